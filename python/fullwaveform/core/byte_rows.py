"""Runs of bytes of equal length."""

from __future__ import annotations

from fullwaveform import _core
from fullwaveform.data.arrays import IntArray, UInt8Array


def copy_rows(source: UInt8Array, starts: IntArray, rows: IntArray, target: UInt8Array) -> None:
    """Copy the bytes from each of the starts (n,) in `source` to a row of `target` (m, width).

    Raises
    ------
    IndexError
        If a run of bytes or a row is not inside.
    """
    _core.copy_rows(source, starts, rows, target)
