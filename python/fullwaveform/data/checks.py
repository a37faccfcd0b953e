"""Checks of arrays that a caller hands over."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import AnyArray, FloatArray, UInt8Array, UInt16Array

_LARGEST_COUNT = 65_535
_LARGEST_EXACT = 2**53  # integers up to it are doubles


def checked_column(values: npt.ArrayLike, name: str, rows: int) -> AnyArray:
    """One value per row, as an array; ValueError otherwise."""
    array = np.asarray(values)
    if array.ndim != 1:
        raise ValueError(f"{name} must have 1 dimension, not {array.ndim}")
    if len(array) != rows:
        raise ValueError(f"{name} has {len(array)} values; expected {rows}")
    return array


def checked_integers(
    values: npt.ArrayLike, name: str, rows: int, largest: int, rule: str, *, smallest: int = 0
) -> AnyArray:
    """Integers within the limits, one per row; ValueError with the rule otherwise."""
    array = checked_column(values, name, rows)
    if not (np.issubdtype(array.dtype, np.integer) or (rows == 0 and array.size == 0)):
        raise ValueError(f"{name} must be integers, not {array.dtype}")
    wrong = np.flatnonzero((array < smallest) | (array > largest))
    if wrong.size:
        row = int(wrong[0])
        raise ValueError(f"{name}: {array[row]} of waveform {row} {rule}")
    return array


def as_counts(values: AnyArray, name: str) -> UInt16Array:
    """Samples of any type of number as uint16; the array itself if it is of this type.

    Raises ValueError if a value is not a whole number from 0 to 65535.
    """
    if values.dtype == np.uint16 and values.dtype.isnative:
        return values
    if values.dtype.kind not in "uif":
        raise ValueError(f"{name} must be whole numbers of counts, not {values.dtype}")
    # Comparisons with NaN are false, so this also rejects NaN.
    fits = (values >= 0) & (values <= _LARGEST_COUNT)
    if values.dtype.kind == "f":
        fits &= np.rint(values) == values
    if not fits.all():
        place = np.unravel_index(int(np.argmin(fits)), fits.shape)
        raise ValueError(
            f"{name}: value {values[place]} at {tuple(map(int, place))} is not a whole number "
            f"from 0 to {_LARGEST_COUNT} counts"
        )
    return np.ascontiguousarray(values, dtype=np.uint16)


def checked_samples(samples: npt.NDArray[np.uint16]) -> UInt16Array:
    """Samples (n, width) of waveforms, rows contiguous; ValueError if they cannot be made so."""
    array = np.asarray(samples)
    if array.ndim != 2:
        raise ValueError(f"samples must have 2 dimensions (waveform, sample), not {array.ndim}")
    array = as_counts(array, "samples")
    rows, width = array.shape
    if width > _LARGEST_COUNT:
        raise ValueError(f"samples have {width} columns; at most {_LARGEST_COUNT} are allowed")
    contiguous = array.strides[1] == array.itemsize or rows == 0 or width <= 1
    if not (contiguous and array.flags.aligned):
        raise ValueError(
            "rows of samples must be contiguous and aligned; use numpy.array(samples, order='C')"
        )
    return array


def checked_counts(values: npt.ArrayLike, rows: int, width: int) -> UInt16Array:
    """Valid samples of rows of the given width."""
    rule = f"is not between 0 and the row length {width}"
    counts = checked_integers(values, "counts", rows, width, rule)
    return np.ascontiguousarray(counts, dtype=np.uint16)


def checked_flags(values: npt.ArrayLike, rows: int) -> UInt8Array:
    """Channel flags, 0 to 255 or Boolean."""
    rule = "is not between 0 and 255"
    flags = np.asarray(values)
    flags = flags.view(np.uint8) if flags.dtype == np.bool_ else flags
    flags = checked_integers(flags, "channel_flags", rows, 255, rule)
    return np.ascontiguousarray(flags, dtype=np.uint8)


def checked_times(values: npt.ArrayLike, name: str, rows: int) -> FloatArray:
    """Times in seconds without NaN; integers only if a double represents each exactly."""
    array = checked_column(values, name, rows)
    if not (np.issubdtype(array.dtype, np.floating) or np.issubdtype(array.dtype, np.integer)):
        raise ValueError(f"{name} must be numbers, not {array.dtype}")
    if np.issubdtype(array.dtype, np.integer) and not _fits_a_double(array):
        raise ValueError(
            f"{name}: integers beyond 2**53 are not exact as float64; give seconds as float"
        )
    times = np.ascontiguousarray(array, dtype=np.float64)
    if (nan := np.flatnonzero(np.isnan(times))).size:
        raise ValueError(f"{name}: the time of waveform {int(nan[0])} is NaN; expected seconds")
    return times


def _fits_a_double(integers: AnyArray) -> bool:
    return not integers.size or (
        int(integers.min()) >= -_LARGEST_EXACT and int(integers.max()) <= _LARGEST_EXACT
    )
