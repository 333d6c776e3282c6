"""Commands through the library's vocabulary: the tool's words, or a field map."""
import json
from typing import Any, Dict, Sequence

from . import _nimbara
from ._arguments import integer


def _word(position, value):
    if isinstance(value, str):
        return value
    return str(integer(f"word {position}", value))


def words_of(words: Sequence[Any]):
    """The tool's words as str: plain integers are written in decimal."""
    if not words or not isinstance(words[0], str):
        raise TypeError("a command's first word must be its verb, a str")
    return [_word(i + 1, w) for i, w in enumerate(words)]


def command(*words) -> Dict[str, Any]:
    """The field map of a command: from the tool's words (``"puff", "orange",
    "--time", "300"``; integers are taken as their decimal words), or from one
    dict of fields (checked, and completed with the derived fields).
    ValueError names what is wrong."""
    if len(words) == 1 and isinstance(words[0], dict):
        return json.loads(_nimbara.command_fields(json.dumps(words[0])))
    return json.loads(_nimbara.command_from_words(words_of(words)))
