"""NumPy samples of any integer or float type, mono or (frames, channels), as
the interleaved int16 or float32 that the receiver takes."""
import numpy as np


def interleaved(samples, channels=None):
    """Returns (flat C-contiguous int16 or float32 array, channels)."""
    array = np.asarray(samples)
    if array.ndim == 1:
        count = channels or 1
    elif array.ndim == 2:
        count = array.shape[1]
        if channels is not None and count != channels:
            raise ValueError(f"samples have {count} channels, the receiver takes {channels}")
    else:
        raise ValueError(f"samples must be mono or (frames, channels), not {array.ndim}-dimensional")
    if count < 1:
        raise ValueError("samples need at least one channel")
    kind = array.dtype.kind
    if array.dtype == np.int16:
        flat = np.ascontiguousarray(array, dtype=np.int16).reshape(-1)
    elif kind == "f":
        flat = np.ascontiguousarray(array, dtype=np.float32).reshape(-1)
    elif kind in "iu":
        half = float(2 ** (array.dtype.itemsize * 8 - 1))
        offset = half if kind == "u" else 0.0
        flat = ((array.reshape(-1).astype(np.float64) - offset) / half).astype(np.float32)
    else:
        raise TypeError(f"samples must be integers or floats, not {array.dtype}")
    if flat.size % count:
        raise ValueError(f"{flat.size} samples do not make whole frames of {count} channels")
    return flat, count
