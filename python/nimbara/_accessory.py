"""The accessory on an audio output."""
import json
from typing import Any, List, Optional, Sequence, Union

from . import _nimbara
from ._arguments import integer
from ._commands import command
from ._errors import AudioError, NoDevice
from ._receive import Transmission, _transmissions

Colour = Union[int, str, Sequence[int]]


def _colour_words(red, green, blue):
    """The colour as the tool's words: three numbers, an (r, g, b) sequence, or
    one word ("#rrggbb", "rrggbb" or a CSS name such as "orange")."""
    if isinstance(red, str) or (not isinstance(red, int) and hasattr(red, "__len__")):
        if green is not None or blue is not None:
            raise TypeError("give a colour either as one value or as red, green and blue")
        if isinstance(red, str):
            return [red]
        if len(red) != 3:
            raise ValueError(f"a colour sequence must hold red, green and blue, not {len(red)} values")
        return [str(integer(n, v)) for n, v in zip(("red", "green", "blue"), red)]
    if green is None or blue is None:
        raise TypeError("give green and blue too, or the colour as one value")
    return [str(integer("red", red)), str(integer("green", green)), str(integer("blue", blue))]


def _led_words(verb, red, green, blue, special, time):
    return [verb, *_colour_words(red, green, blue), "--special", str(integer("special", special)),
            "--time", str(integer("time", time))]


class Accessory:
    """The accessory plugged into an audio output.

    ``device`` is the output, as the tool's ``--device`` takes it: "pulse" (the
    sound server's default sink), "pulse:SINK" (the sink named SINK), "virtual"
    (an in-process device that plays in real time and hears what it plays) or
    "wav:PATH" (into a WAV file, as fast as it is written). ``route`` names the
    virtual or WAV output's route (its presence test reads it). With
    ``skip_precheck`` commands go out even when the route has no headphones.
    With ``allow_resampling`` an output that cannot run at 44100 Hz plays the
    signal resampled rather than fail (the "pipewire" output fails without
    it; the "pulse" output plays resampled either way).

    Every command blocks until its sound has been played; other Python threads
    run meanwhile. Commands from several threads take turns. Errors:
    :class:`NoDevice` when nothing like headphones is on the route,
    :class:`AudioError` when the output fails, ValueError or TypeError for bad
    arguments. Ctrl-C during a command raises KeyboardInterrupt once the
    command has gone out whole.

    Use it as a context manager, or call :meth:`close`, to release the output
    (and close a WAV file).
    """

    def __init__(self, device: str = "pulse", route: Optional[str] = None,
                 skip_precheck: bool = False, allow_resampling: bool = False):
        if not isinstance(device, str):
            raise TypeError(f"device must be a str, not {type(device).__name__}")
        if route is not None and not isinstance(route, str):
            raise TypeError(f"route must be a str or None, not {type(route).__name__}")
        if route is not None and (device == "pulse" or device.startswith("pulse:")):
            raise ValueError("a pulse output's route is its sink's description; choose the sink "
                             'with "pulse:SINK" instead')
        self._device = device
        self._output = _nimbara.Output(device, route or "", bool(allow_resampling))
        self.skip_precheck = bool(skip_precheck)

    def __repr__(self):
        state = " closed" if self._output.closed else ""
        return f"<nimbara.Accessory {self._device!r}{state}>"

    def __enter__(self) -> "Accessory":
        return self

    def __exit__(self, *exc_info) -> None:
        self.close()

    def close(self) -> None:
        """Releases the output; later commands raise ValueError."""
        self._output.close()

    @property
    def closed(self) -> bool:
        return self._output.closed

    @property
    def device(self) -> str:
        return self._device

    @property
    def route(self) -> Optional[str]:
        """The output's current route name, or None when it cannot be read."""
        return self._output.route()

    @property
    def present(self) -> bool:
        """Whether the route names headphones or a headset (whatever skip_precheck says)."""
        return self._output.present()

    def flash(self, red: Colour, green: Optional[int] = None, blue: Optional[int] = None,
              special: int = 0, time: int = 500) -> None:
        """Lights the LED in a colour for ``time`` milliseconds. The colour is
        three numbers, an (r, g, b) sequence, or one word: "#rrggbb",
        "rrggbb" or a CSS name ("orange")."""
        self._send(_led_words("flash", red, green, blue, special, time))

    def puff(self, red: Colour, green: Optional[int] = None, blue: Optional[int] = None,
             special: int = 0, time: int = 500, tank: bool = True) -> None:
        """Sprays a puff while the LED is lit; the accessory sprays ``time``
        clamped to 100..1000 milliseconds. With ``tank`` false the puff does
        not also ask for the tank identity."""
        words = _led_words("puff", red, green, blue, special, time)
        self._send(words if tank else [*words, "--no-tank"])

    def spray(self, time: int) -> None:
        """Sprays for ``time`` milliseconds, the LED untouched."""
        self._send(["spray", str(integer("time", time))])

    def state(self) -> None:
        """Asks for the accessory's state; no reply is heard."""
        self._send(["state"])

    def tank(self) -> "_nimbara.TankId":
        """Sends the tank query; no reply is heard, so this is the library's
        identity of the tank."""
        return self._send(["tank"])

    def echo(self, number: int) -> int:
        """Sends the echo of ``number``; no reply is heard, so this is the
        library's answer."""
        return self._send(["echo", str(integer("number", number))])

    def send(self, *words) -> Any:
        """Sends a command given as the tool's words (``send("puff", "orange",
        "--no-tank")``) or as one dict of its fields (see
        :func:`nimbara.command`); returns what :meth:`tank` or :meth:`echo`
        return for those, None otherwise."""
        return self._send(list(words) if not (len(words) == 1 and isinstance(words[0], dict))
                          else words[0])

    def heard(self) -> List[Transmission]:
        """What the virtual device's accessory decoded since the last call
        (device "virtual" only; TypeError for the others)."""
        return _transmissions(self._output.heard())

    def _send(self, words):
        fields = command(words) if isinstance(words, dict) else command(*words)
        sent, status, answer, route = self._output.transmit(json.dumps(fields), self.skip_precheck)
        if not sent:
            raise NoDevice(route)
        if status:
            raise AudioError(status, _nimbara.status_text(status), self._device)
        return answer
