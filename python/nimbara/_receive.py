"""The receiver: commands back out of the accessory's sound."""
import os
from dataclasses import dataclass
from typing import Any, Dict, List

import numpy as np

from . import _nimbara
from ._samples import interleaved

class Transmission:
    """One transmission as the accessory would have understood it: its field
    map (the same as the tool's ``--json``) as attributes.

    ``command`` is the verb ("flash", "puff", "spray", "state", "tank", "echo",
    or "unknown" for a layout no command has). Only the fields the verb carries
    are there (``red``, ``green``, ``blue``, ``special``, ``time``, ``number``,
    ``asks_tank``); reading another raises AttributeError, and
    ``getattr(t, "red", None)`` reads any. ``time`` is what the frame carries
    (a puff's is clamped to 100..1000 ms). ``damaged`` is true for bad parity,
    disagreeing or missing repetitions: then the fields are those of the first
    repetition as far as they could be read. ``start`` is where the
    transmission began, in seconds from the start of the samples (to 0.1 ms);
    ``confidence`` (0 to 1) is the weakest bit's margin, ``snr_db`` the
    estimated signal-to-noise ratio. :attr:`fields` is the field map as a dict.
    """

    __slots__ = ("_fields",)

    def __init__(self, fields: Dict[str, Any]):
        object.__setattr__(self, "_fields", dict(fields))

    @property
    def fields(self) -> Dict[str, Any]:
        return dict(self._fields)

    def __getattr__(self, name):
        fields = object.__getattribute__(self, "_fields")
        if name in fields:
            return fields[name]
        raise AttributeError(f"a {fields.get('command')} transmission carries no {name}")

    def __setattr__(self, name, value):
        raise AttributeError("a Transmission is read-only")

    def __reduce__(self):
        return (Transmission, (self._fields,))

    def __eq__(self, other):
        return isinstance(other, Transmission) and self._fields == other._fields

    def __hash__(self):
        return hash(tuple(sorted(self._fields.items())))

    def __repr__(self):
        inner = ", ".join(f"{k}={v!r}" for k, v in self._fields.items())
        return f"Transmission({inner})"


def _transmissions(found):
    return [Transmission(fields) for fields in found]


class Receiver:
    """Decodes a stream fed in chunks of any size.

    ``sample_rate`` from 8000 to 192000 Hz; ``channels`` interleaved channels
    (mixed to one; by default 2, as the library renders). :meth:`push` takes a
    NumPy array (or anything array-like) of integers or floats in -1..1,
    shaped ``(frames, channels)`` or flat and interleaved; :meth:`finish` ends
    the stream; :meth:`take` hands out the transmissions decoded so far, each
    once. One receiver may be fed from several threads; the chunks are taken
    in the order the calls reach it.
    """

    def __init__(self, sample_rate: float = 44100, channels: int = 2):
        if isinstance(channels, bool) or not isinstance(channels, int):
            raise TypeError(f"channels must be an integer, not {type(channels).__name__}")
        self._channels = channels
        self._core = _nimbara.Receiver(float(sample_rate), channels)

    @property
    def channels(self) -> int:
        return self._channels

    def push(self, samples) -> None:
        flat, _ = interleaved(samples, self._channels)
        if flat.dtype == np.int16:
            self._core.push_int16(flat)
        else:
            self._core.push_float32(flat)

    def finish(self) -> None:
        self._core.finish()

    def take(self) -> List[Transmission]:
        return _transmissions(self._core.take())


def decode(samples, sample_rate: float = 44100, channels: int = 2) -> List[Transmission]:
    """Every transmission in a recording: a NumPy array of integers or floats
    in -1..1, ``(frames, channels)``, or flat and interleaved with
    ``channels`` channels (by default 2)."""
    flat, channels = interleaved(samples, None if np.ndim(samples) == 2 else channels)
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
