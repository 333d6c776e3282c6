"""Samples of any integer or float type, mono or (frames, channels), as the
interleaved int16 or float32 that the receiver takes. A NumPy integer array
spans its type's full range (int32 samples are 32-bit audio); plain Python
integers (lists) are 16-bit samples."""
import numpy as np


def interleaved(samples, channels=None):
    """Returns (flat C-contiguous int16 or float32 array, channels)."""
    array = np.asarray(samples)
    if not isinstance(samples, np.ndarray) and array.dtype.kind in "iu":
        if array.size and (array.min() < -32768 or array.max() > 32767):
            raise ValueError("integer samples that are not a NumPy array must be 16-bit")
        array = array.astype(np.int16)
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
