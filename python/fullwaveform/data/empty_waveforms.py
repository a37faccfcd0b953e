"""Rows for waveforms without echoes in a table of echoes."""

from __future__ import annotations

import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import EXTRA_BYTES, EchoTable


def with_empty_waveforms(echoes: EchoTable, block: WaveformBlock) -> EchoTable:
    """The echoes of a block and a row for each of its waveforms without echoes.

    Such a row has the echo number, type and quality 0, NaN in every floating-point column except
    the GPS time, and the number of echoes of its shot as `echo_count`. It follows the echoes of its
    shot; shots without echoes are inserted by their time. Waveforms of a shot keep their order.

    Raises
    ------
    ValueError
        If an echo belongs to a waveform that is not in the block.
    """
    row_of_echo = _rows_of(echoes["waveform_number"], block.waveform_numbers)
    empty = np.flatnonzero(np.bincount(row_of_echo, minlength=len(block)) == 0)
    if len(empty) == 0:
        return echoes
    _, shot = np.unique(block.shot_times, return_inverse=True)
    per_shot = np.bincount(shot[row_of_echo], minlength=len(block))
    extra = echoes[EXTRA_BYTES].dtype if EXTRA_BYTES in echoes.columns else None
    empty_rows = EchoTable.of_empty_waveforms(block, empty, per_shot[shot[empty]], extra)
    # A stable sort: of equal shots the echoes come first, in the order they have.
    order = np.argsort(np.concatenate([shot[row_of_echo], shot[empty]]), kind="stable")
    return EchoTable.join([echoes, empty_rows]).take(order)


def without_empty_waveforms(echoes: EchoTable) -> EchoTable:
    """The rows that are echoes, for files that have no rows without a position in space."""
    is_echo = echoes["echo_number"] > 0
    return echoes if is_echo.all() else echoes.take(np.flatnonzero(is_echo))


def _rows_of(numbers: IntArray, numbers_of_block: IntArray) -> IntArray:
    """Row of the block (m,) for the waveform number of each echo (m,)."""
    known = np.isin(numbers, numbers_of_block)
    if not known.all():
        raise ValueError(
            f"echo of waveform {numbers[np.argmin(known)]}, which is not in the block; the echoes "
            "must be those of the block"
        )
    by_number = np.argsort(numbers_of_block, kind="stable")
    rows: IntArray = by_number[np.searchsorted(numbers_of_block, numbers, sorter=by_number)]
    return rows
