"""IntArray for waveforms without echoes."""

from __future__ import annotations

from dataclasses import fields

import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import EchoTable, ShotAttributes, WaveformBlock, take_rows


def with_empty_waveforms(echoes: EchoTable, block: WaveformBlock) -> EchoTable:
    """The echoes of a block, and a row for each of its waveforms that has none.

    Such a row has the echo number 0, type and quality 0, NaN in every column of real numbers but
    the GPS time, and as `echo_count` the echoes of its shot. It stands behind the echoes of its
    shot; shots without any stand where their time belongs. Waveforms of one shot keep their order.

    Raises
    ------
    ValueError
        If an echo is of a waveform that the block does not have.
    """
    row_of_echo = _rows_of(echoes.waveform_number, block.waveform_numbers)
    empty = np.flatnonzero(np.bincount(row_of_echo, minlength=len(block)) == 0)
    _, shot = np.unique(block.shot_times, return_inverse=True)
    per_shot = np.bincount(shot[row_of_echo], minlength=len(block))
    both = _joined(echoes, _empty_rows(block, empty, per_shot[shot[empty]]))
    # A stable sort: of equal shots the echoes come first, in the order they have.
    order = np.argsort(np.concatenate([shot[row_of_echo], shot[empty]]), kind="stable")
    return _taken(both, order)


def without_empty_waveforms(echoes: EchoTable) -> EchoTable:
    """The rows that are echoes, for files that have no place for others."""
    kept = np.flatnonzero(echoes.echo_number > 0)
    return echoes if len(kept) == len(echoes) else _taken(echoes, kept)


def _rows_of(numbers: IntArray, numbers_of_block: IntArray) -> IntArray:
    by_number = np.argsort(numbers_of_block, kind="stable")
    place = np.searchsorted(numbers_of_block, numbers, sorter=by_number)
    rows: IntArray = by_number[np.minimum(place, len(by_number) - 1)] if len(by_number) else place
    known = numbers_of_block[rows] == numbers if len(by_number) else np.zeros(len(numbers), bool)
    if not known.all():
        raise ValueError(
            f"an echo is of waveform {numbers[np.argmin(known)]}, which the block does not have"
        )
    return rows


def _empty_rows(block: WaveformBlock, rows: IntArray, echo_count: IntArray) -> EchoTable:
    count = len(rows)
    none, none_single = np.full(count, np.nan), np.full(count, np.nan, np.float32)
    zero = np.zeros(count, np.uint8)
    return EchoTable(
        xyz=np.full((count, 3), np.nan),
        gps_time=block.attributes.gps_time[rows],
        echo_number=np.zeros(count, np.int64),
        echo_count=echo_count.astype(np.int64),
        amplitude_counts=none_single,
        amplitude_db=none_single,
        width_ns=none,
        width_samples=none,
        position=none,
        type=zero,
        quality=zero,
        reflectance=none_single,
        time=none,
        waveform_number=block.waveform_numbers[rows],
        channel_flag=block.channel_flags[rows],
        attributes=take_rows(block.attributes, rows),
    )


def _joined(first: EchoTable, second: EchoTable) -> EchoTable:
    attributes = ShotAttributes(
        *(
            np.concatenate([getattr(first.attributes, c.name), getattr(second.attributes, c.name)])
            for c in fields(ShotAttributes)
        )
    )
    columns = {
        column.name: np.concatenate([getattr(first, column.name), getattr(second, column.name)])
        for column in fields(EchoTable)
        if column.name != "attributes"
    }
    return EchoTable(**columns, attributes=attributes)


def _taken(echoes: EchoTable, order: IntArray) -> EchoTable:
    columns = {
        column.name: getattr(echoes, column.name)[order]
        for column in fields(EchoTable)
        if column.name != "attributes"
    }
    return EchoTable(**columns, attributes=take_rows(echoes.attributes, order))
