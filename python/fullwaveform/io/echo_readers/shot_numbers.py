"""Columns of files that identify the shot of an echo."""

from __future__ import annotations

import zlib
from collections.abc import Callable, Collection

import numpy as np

from fullwaveform.data.arrays import AnyArray, IntArray, RecordArray

#: Columns that shots are identified by.
SHOT_COLUMNS = frozenset({"shot_number", "beam"})

_PREFIX = "BEAM"  # of GEDI's names, which go on with the binary digits of the beam's number
_OTHER_NAMES = 1 << 8  # beyond all numbers of beams


def fill_shots(
    records: RecordArray, columns: Collection[str], column: Callable[[str], AnyArray]
) -> None:
    """Enter shot numbers and beams, if the columns of a file have whole numbers of shots."""
    if "shot_number" not in columns:
        return
    numbers = np.asarray(column("shot_number"))
    if numbers.dtype.kind not in "iu":
        try:
            numbers = numbers.astype(np.str_).astype(np.uint64)
        except (ValueError, OverflowError):  # missing values, fractions or texts
            return
    records["shot"] = numbers.astype(np.uint64).view(np.int64)
    records["is_numbered"] = True
    if "beam" in columns:
        records["beam"] = _beam_numbers(np.asarray(column("beam")))


def _beam_numbers(beams: AnyArray) -> IntArray:
    """Numbers (m,) of beams; LAS files have these, tables the names."""
    if beams.dtype.kind in "iu":
        return beams.astype(np.int64)
    names, which = np.unique(beams.astype(np.str_), return_inverse=True)
    numbers: IntArray = np.array([_beam_number(name) for name in names.tolist()], np.int64)[which]
    return numbers


def _beam_number(name: str) -> int:
    digits = name.removeprefix(_PREFIX)
    if name.startswith(_PREFIX) and digits and set(digits) <= {"0", "1"}:
        return int(digits, 2)
    return _OTHER_NAMES + zlib.crc32(name.encode())
