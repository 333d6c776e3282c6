"""Checks of the arguments that reach the library: integers of a sane size."""
import operator

_LIMIT = 2 ** 62


def integer(name, value):
    """``value`` as an int; TypeError for anything that is not an integer."""
    if isinstance(value, bool):
        raise TypeError(f"{name} must be an integer, not bool")
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}") from None
    if not -_LIMIT < number < _LIMIT:
        raise ValueError(f"{name} is out of range: {number}")
    return number


def integers(name, values):
    return [integer(f"{name} argument {i + 1}", v) for i, v in enumerate(values)]
