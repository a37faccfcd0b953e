"""Records and values that are kept on disk: order and percentiles."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.analysis import record_files
from fullwaveform.data.echo_records import ECHO_RECORD, unknown_records


def test_runs_on_disk_are_merged_in_order(tmp_path: Path, parts_of_two: None) -> None:
    """Seven records arrive in three runs, of which the second follows the first."""
    keys = [4.0, 1.0, 5.0, 6.0, 2.0, 5.0, 0.0]
    with record_files.Scratch() as scratch:
        ordered = record_files.SortedRecords(
            scratch.file(), ECHO_RECORD, lambda records: records["gps_time"]
        )
        for row, key in enumerate(keys):
            records = unknown_records(1, row)
            records["gps_time"] = key
            ordered.append(records)
        assert len(ordered) == 7
        for _ in range(2):  # it can be read again
            merged = np.concatenate(list(ordered.ascending()))
            assert merged["gps_time"].tolist() == sorted(keys)
            assert merged["row"].tolist() == [6, 1, 4, 0, 2, 5, 3]


@pytest.mark.parametrize("about", [None, 0.3])
def test_percentiles_of_values_on_disk_are_those_of_numpy(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, about: float | None
) -> None:
    monkeypatch.setattr(record_files, "_IN_MEMORY", 0)
    random = np.random.default_rng(3)
    values = np.concatenate([random.normal(0.0, 1.0, 999), np.full(500, 0.25), [-0.0, 1e-300]])
    with (tmp_path / "values").open("w+b") as stream:
        check_percentiles(record_files.ValueFile(stream), values, about)


def check_percentiles(
    on_disk: record_files.ValueFile, values: np.ndarray, about: float | None
) -> None:
    on_disk.append(values[:700])
    on_disk.append(np.append(values[700:], np.nan))
    expected = values if about is None else np.abs(values - about)
    for percent in (0.0, 3.7, 50.0, 60.0, 99.0, 100.0):
        assert on_disk.percentile(percent, about=about) == pytest.approx(
            np.percentile(expected, percent), rel=1e-12
        )
    assert len(on_disk.sample(100)) == 94  # every 16th of 1,501
