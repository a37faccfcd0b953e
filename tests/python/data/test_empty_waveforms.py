"""Rows for waveforms without echoes in a table of echoes."""

from __future__ import annotations

import numpy as np

from fullwaveform import Scanner
from fullwaveform.core.echo_table import FoundEchoes, echo_table
from fullwaveform.data.blocks import PulseGeometry, WaveformBlock
from fullwaveform.data.echo_columns import ECHO_COLUMNS, EchoTable
from fullwaveform.data.empty_waveforms import without_empty_waveforms

from ..support.echo_tables import shot_attributes

# Waveforms 40 to 45 in four shots: 40 and 43 in the one at 7 s, 41 at 9 s, 42 and 44 at 5 s, 45 at
# 6 s.
SHOT_TIMES = np.array([7.0, 9.0, 5.0, 7.0, 5.0, 6.0])


def block() -> WaveformBlock:
    rows = len(SHOT_TIMES)
    zeros, places = np.zeros(rows), np.zeros((rows, 3))
    attributes = shot_attributes(
        rows,
        gps_time=SHOT_TIMES + 1000.0,
        scan_angle=np.arange(rows, dtype=np.float32),
        user_data=np.arange(rows, dtype=np.uint8) + 10,
    )
    return WaveformBlock(
        samples=np.zeros((rows, 4), np.uint16),
        counts=np.full(rows, 4, np.uint16),
        shot_times=SHOT_TIMES,
        sbl_times=zeros,
        channel_flags=np.array([1, 1, 1, 0, 0, 1], np.uint8),
        sampling_intervals=np.full(rows, 1e-9),
        geometry=PulseGeometry(places, zeros, places),
        attributes=attributes,
        waveform_numbers=40 + np.arange(rows),
    )


def table_of(rows: list[int], positions: list[float], *, keep_empty: bool = True) -> EchoTable:
    """The table of echoes at positions in samples, with amplitudes of 10 counts and more."""
    count = len(rows)
    numbers = np.arange(count, dtype=np.float64)
    found = FoundEchoes(
        rows=np.array(rows, np.int64),
        peaks={
            "idx": np.array(positions),
            "time": numbers,
            "height": 10.0 + numbers,
            "std": 1.0 + numbers,
            "reflectance": np.zeros(count, np.float32),
            "type": np.full(count, 3, np.uint8),
        },
        scale=np.ones(len(SHOT_TIMES), np.int64),
        phase=np.zeros(len(SHOT_TIMES)),
    )
    attributes = {**Scanner.default().attributes, "ampl_unit": 0.5}
    scanner = Scanner.from_attributes(attributes)
    return echo_table(block(), found, scanner, keep_empty=keep_empty)[0]


def some_echoes(*, keep_empty: bool = True) -> EchoTable:
    """The shot at 5 s has two echoes in waveform 44, that at 7 s one in 43 and one in 40."""
    return table_of([4, 4, 3, 0], [1.0, 2.0, 1.0, 2.0], keep_empty=keep_empty)


def test_rows_follow_the_echoes_of_their_shot_or_are_inserted_by_time() -> None:
    table = some_echoes()
    assert table.waveform_number.tolist() == [44, 44, 42, 45, 43, 40, 41]
    assert table.gps_time.tolist() == [1005, 1005, 1005, 1006, 1007, 1007, 1009]
    assert table.echo_number.tolist() == [1, 2, 0, 0, 1, 2, 0]
    assert table.echo_count.tolist() == [2, 2, 2, 0, 2, 2, 0]
    assert table.amplitude[[0, 1, 4, 5]].tolist() == [10, 11, 12, 13]


def test_row_without_echo_has_nan_and_zero_values() -> None:
    table = some_echoes()
    empty = np.flatnonzero(table.echo_number == 0)
    for name in ("x", "y", "z", "amplitude", "amplitude_db", "sigma_ns", "sigma_samples"):
        assert np.isnan(getattr(table, name)[empty]).all(), name
        assert np.isfinite(np.delete(getattr(table, name), empty, axis=0)).all(), name
    for name in ("position", "reflectance", "time"):
        assert np.isnan(getattr(table, name)[empty]).all(), name
    assert table.echo_type[empty].tolist() == table.quality[empty].tolist() == [0, 0, 0]
    assert table.echo_type[0] == 3
    assert table.channel_flag[empty].tolist() == [1, 1, 1]  # waveforms 42, 45, 41
    assert table.scan_angle[empty].tolist() == [2, 5, 1]
    assert table.user_data[empty].tolist() == [12, 15, 11]
    assert table.user_data[0] == 14


def test_all_waveforms_are_empty() -> None:
    table = table_of([], [])
    assert table.waveform_number.tolist() == [42, 44, 45, 40, 43, 41]
    assert table.echo_count.tolist() == [0] * 6
    assert table.channel_flag.tolist() == [1, 0, 1, 1, 0, 1]


def test_no_rows_are_added_if_all_have_echoes() -> None:
    rows, positions = [2, 4, 5, 3, 0, 1], [1.0, 2.0, 1.0, 1.0, 2.0, 1.0]
    table = table_of(rows, positions)
    assert table.waveform_number.tolist() == [42, 44, 45, 43, 40, 41]
    assert table.echo_number.tolist() == [1, 2, 1, 1, 2, 1]


def test_types_are_those_of_the_description() -> None:
    for table in (some_echoes(), some_echoes(keep_empty=False), table_of([], [])):
        assert [(column.name, np.dtype(column.dtype)) for column in ECHO_COLUMNS] == [
            (name, values.dtype) for name, values in table.columns.items()
        ]


def test_removing_the_rows_restores_the_echoes() -> None:
    echoes = some_echoes(keep_empty=False)
    back = without_empty_waveforms(some_echoes())
    assert back.waveform_number.tolist() == [44, 44, 43, 40]
    assert back.amplitude.tolist() == echoes.amplitude.tolist() == [10, 11, 12, 13]
    assert without_empty_waveforms(echoes) is echoes
