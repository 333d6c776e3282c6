"""Scent tracks: commands at times along a film, read from WebVTT (or a cue
file of "SECONDS COMMAND WORDS..." lines), rendered whole or played."""
import json
import os
import time
from typing import Callable, List, NamedTuple, Optional, Union

import numpy as np

from . import _nimbara

PathLike = Union[str, "os.PathLike[str]"]


class Cue(NamedTuple):
    """One cue: ``start`` in seconds, the file ``line`` of its text, the
    ``text`` as written, its ``command`` (a verb), the command's ``fields``
    (its field map, as :func:`nimbara.command` gives it) and the ``frames``
    its transmission plays."""
    start: float
    line: int
    text: str
    command: str
    fields: dict
    frames: int


def _cues(found) -> List[Cue]:
    cues = []
    for c in found:
        fields = json.loads(c["fields"])
        cues.append(Cue(c["start"], c["line"], c["text"], fields["command"], fields, c["frames"]))
    return cues


def _read(path: PathLike) -> str:
    with open(os.fspath(path), encoding="utf-8") as f:  # the system's own error
        return f.read()


def parse_track(text: str, name: str = "<track>") -> List[Cue]:
    """The cues of a track's text, in order of time. ValueError
    "NAME:LINE: ..." for a malformed file, a cue that is not a command or a
    cue that starts while the one before still plays."""
    return _cues(_nimbara.parse_track(text, name))


def read_track(path: PathLike) -> List[Cue]:
    """parse_track of a file (OSError when it cannot be read)."""
    return parse_track(_read(path), os.fspath(path))


def render_track(path: PathLike) -> np.ndarray:
    """The whole track as one signal, the same as ``nimbara render TRACK``:
    int16 samples of shape ``(frames, 2)``."""
    return _nimbara.render_track(_read(path), os.fspath(path))


def play_track(accessory, track: Union[PathLike, List[Cue]],
               on_cue: Optional[Callable[[dict], object]] = None) -> List[dict]:
    """Sends each cue's command on the accessory when its time comes, counted
    from the call. Returns, and hands on_cue as each is sent, what the tool's
    ``play --json`` prints: ``cue`` (its time in the track), ``sent`` (Unix
    time), ``line`` and the command's field map. A command that cannot go out raises as
    the accessory's own methods do, and the rest of the track is not sent."""
    cues = track if isinstance(track, list) else read_track(track)
    start = time.monotonic()
    sent = []
    for cue in cues:
        delay = start + cue.start - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        report = {"cue": cue.start, "sent": time.time(), "line": cue.line, **cue.fields}
        accessory.send(cue.fields)
        sent.append(report)
        if on_cue is not None:
            on_cue(report)
    return sent
