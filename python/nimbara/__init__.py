"""nimbara: drive a scent accessory on the headphone jack by sound.

Every command becomes a frame of bits, the bits square-wave audio (16-bit
stereo PCM at 44100 Hz), and the audio goes out through an audio output; the
accessory listens. This package is the nimbara C++ library with Python's
conventions:

- :func:`command` gives a command's field map from the tool's words
  (``command("puff", "orange", "--time", "300")``) or from a dict of fields;
- :func:`render` gives the exact samples of a command, no device needed;
- :func:`decode`, :func:`decode_file` and :class:`Receiver` turn sound back
  into commands (:class:`Transmission`);
- :class:`Accessory` sends commands on an output ("pulse", "pulse:SINK",
  "virtual", "wav:PATH");
- :class:`TankId` is the scent tank's identity, with its 7-byte packed form and
  Base64 text;
- errors are :class:`Error`, :class:`NoDevice` and :class:`AudioError`;
- the library's log is silent until :func:`set_log_handler` is given a callable.
"""
import atexit as _atexit
import json as _json

import numpy as _np

from . import _nimbara
from ._accessory import Accessory
from ._arguments import integers as _integers
from ._commands import command
from ._commands import words_of as _words_of
from ._errors import AudioError, Error, NoDevice
from ._receive import Receiver, Transmission, decode, decode_file
from ._track import Cue, parse_track, play_track, read_track, render_track

TankId = _nimbara.TankId
# The public names are nimbara.X wherever they are defined.
for _public in (Accessory, AudioError, Error, NoDevice, Receiver, TankId, Transmission):
    _public.__module__ = __name__
TankId.__doc__ = """The scent tank's identity: a date (``year`` in two digits, ``month``,
``day``), ``scent_id``, ``serial_id`` and two reserved fields.

``TankId(year=13, month=11, day=15)``; :meth:`encode` gives the 7-byte packed
form and :meth:`to_base64` its 12-character Base64 text; the class methods
:meth:`decode` and :meth:`from_base64` make a TankId from them (ValueError for
fewer than 7 bytes). Fields wider than their slot in the packed form (year 5
bits, month 4, day 5, scent_id 10, serial_id 14, reserve1 2, reserve2 16) lose
their high bits there."""

__version__: str = _nimbara.__version__

VERBS = tuple(_nimbara.command_names())


def render(operation, *args) -> _np.ndarray:
    """The exact samples that the operation hands the audio output, the same as
    ``nimbara render``: an int16 array of shape ``(frames, 2)``.

    ``operation`` is a verb ("flash", "puff", "spray", "state", "tank", "echo")
    or a library operation ("doLightLed", "doSprayWithLightLed",
    "doSprayWithLightLedGetTankId", "doAquireDeviceState", "doGetTankId",
    "doEcho"), or a dict of a command's fields (see :func:`command`).
    With integers alone, flash and puff take red, green, blue and optionally
    special and time; spray takes time; echo a number; an operation takes all
    its own arguments. With any str among them, they are the tool's words
    (``render("puff", "orange", "--time", "300")``, ``render("flash", "#ff0080")``).
    ValueError for an unknown name, a wrong count or a value out of range;
    TypeError for an argument that is neither an integer nor a str.
    """
    if isinstance(operation, dict) and not args:
        return _nimbara.render_fields(_json.dumps(operation))
    if not isinstance(operation, str):
        raise TypeError(f"operation must be a str or a dict of fields, not {type(operation).__name__}")
    if any(isinstance(a, str) for a in args):
        return _nimbara.render_fields(_nimbara.command_from_words(_words_of((operation, *args))))
    return _nimbara.render(operation, _integers(operation, args))


def set_log_handler(handler) -> None:
    """Sends the library's log lines, one str each, to ``handler``; None
    silences the library (the default).

    The handler may be called from the library's threads. An exception it
    raises is reported as unraisable and loses that line only. Lines of the
    audio thread reach it a little later; :func:`flush_log` waits for them.
    """
    _nimbara.set_log_handler(handler)


def flush_log() -> None:
    """Waits until every line logged so far has reached the handler."""
    _nimbara.flush_log()


# The handler must not be called once the interpreter is going away.
_atexit.register(_nimbara.set_log_handler, None)

__all__ = [
    "Accessory", "AudioError", "Error", "NoDevice", "Receiver", "TankId", "Transmission",
    "VERBS", "__version__", "command", "decode", "decode_file", "flush_log", "render",
    "set_log_handler", "Cue", "parse_track", "play_track", "read_track", "render_track",
]
