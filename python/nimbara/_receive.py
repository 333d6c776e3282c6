"""The receiver: commands back out of the accessory's sound."""
import os
from dataclasses import dataclass
from typing import List, Optional

import numpy as np

from . import _nimbara
from ._samples import interleaved

# The fields each verb carries; the others are None.
_FIELDS = {
    "flash": ("red", "green", "blue", "special", "time"),
    "puff": ("red", "green", "blue", "special", "time", "asks_tank"),
    "spray": ("time",),
    "state": (),
    "tank": (),
    "echo": ("number",),
    "unknown": (),
}
_OPTIONAL = ("red", "green", "blue", "special", "time", "number", "asks_tank")


@dataclass(frozen=True)
class Transmission:
    """One transmission as the accessory would have understood it.

    ``command`` is the verb ("flash", "puff", "spray", "state", "tank", "echo",
    or "unknown" for a layout no command has). The arguments the verb does not
    carry are None. ``time`` is what the frame carries (a puff's is clamped to
    100..1000 ms). ``damaged`` is true for bad parity, disagreeing or missing
    repetitions: then the fields are those of the first repetition as far as
    they could be read. ``start`` is where the transmission began, in seconds
    from the start of the samples; ``confidence`` (0 to 1) is the weakest bit's
    margin, ``snr_db`` the estimated signal-to-noise ratio.
    """

    command: str
    opcode: int
    red: Optional[int]
    green: Optional[int]
    blue: Optional[int]
    special: Optional[int]
    time: Optional[int]
    number: Optional[int]
    asks_tank: Optional[bool]
    damaged: bool
    start: float
    confidence: float
    snr_db: float


def _transmission(fields):
    carried = _FIELDS.get(fields["command"], ())
    for name in _OPTIONAL:
        if name not in carried:
            fields[name] = None
    return Transmission(**fields)


def _transmissions(found):
    return [_transmission(fields) for fields in found]


class Receiver:
    """Decodes a stream fed in chunks of any size.

    ``sample_rate`` from 8000 to 192000 Hz; ``channels`` interleaved channels
    (mixed to one). :meth:`push` takes a NumPy array (or anything array-like) of
    integers or floats in -1..1, shaped ``(frames, channels)`` or flat and
    interleaved, and returns the transmissions completed so far; :meth:`finish`
    ends the stream and returns the rest. One receiver may be fed from several
    threads; the chunks are taken in the order the calls reach it.
    """

    def __init__(self, sample_rate: float = 44100, channels: int = 2):
        if isinstance(channels, bool) or not isinstance(channels, int):
            raise TypeError(f"channels must be an integer, not {type(channels).__name__}")
        self._channels = channels
        self._core = _nimbara.Receiver(float(sample_rate), channels)

    @property
    def channels(self) -> int:
        return self._channels

    def push(self, samples) -> List[Transmission]:
        flat, _ = interleaved(samples, self._channels)
        if flat.dtype == np.int16:
            return _transmissions(self._core.push_int16(flat))
        return _transmissions(self._core.push_float32(flat))

    def finish(self) -> List[Transmission]:
        return _transmissions(self._core.finish())


def decode(samples, sample_rate: float = 44100) -> List[Transmission]:
    """Every transmission in a recording: a NumPy array, mono or
    ``(frames, channels)``, of integers or floats in -1..1."""
    flat, channels = interleaved(samples)
    if flat.dtype == np.int16:
        found = _nimbara.decode_int16(flat, float(sample_rate), channels)
    else:
        found = _nimbara.decode_float32(flat, float(sample_rate), channels)
    return _transmissions(found)


def decode_file(path) -> List[Transmission]:
    """Every transmission in a WAV file (16-, 24- or 32-bit PCM, 32-bit float).

    OSError when the file cannot be opened; ValueError when it is not such a
    WAV file."""
    path = os.fspath(path)
    with open(path, "rb"):
        pass  # the system's own error for a missing or unreadable file
    return _transmissions(_nimbara.decode_file(path))
