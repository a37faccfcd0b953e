"""Comparison of the echoes of a repeated scan with its truth and between its repetitions."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt
import pyarrow as pa
import pyarrow.csv
import pyarrow.parquet
from scans import CHANNELS, RepeatedScan

from fullwaveform.analysis.matching import match_echoes
from fullwaveform.simulation import TruthTable

# Samples; a coarse tolerance, because other tests measure the accuracy of the methods.
_TOLERANCE = 0.5

Rows = Mapping[str, npt.NDArray[np.generic]]


@dataclass
class Balance:
    """Counts of a whole file of echoes."""

    rows: int = 0
    waveforms: int = 0  # with an echo or with a row without echo
    echoes: int = 0
    certain: int = 0  # true echoes that all methods must find
    certain_found: int = 0
    empty: int = 0  # waveforms of shots without a true echo
    empty_with_echoes: int = 0
    failures: list[str] = field(default_factory=list)


def balance(path: Path, scan: RepeatedScan) -> Balance:
    """Compare every repetition with the first, and the first with the truth.

    The file is Parquet or CSV, with a row for every waveform without echoes.
    """
    found = Balance()
    first: Rows = {}
    for number, rows in enumerate(_repetitions(path, scan)):
        _count(found, rows, scan)
        if number == 0:
            first = rows
            _compare_with_truth(found, rows, scan)
        else:
            found.failures += _differences(first, rows, number, scan)
    expected = {
        "waveforms": scan.waveforms,
        "certain_found": found.certain,
        "empty": scan.repetitions * _empty_waveforms(scan),
        "empty_with_echoes": 0,
    }
    for name, count in expected.items():
        if getattr(found, name) != count:
            label = name.replace("_", " ")
            found.failures.append(f"{label}: {getattr(found, name):,}; expected {count:,}")
    return found


def _repetitions(path: Path, scan: RepeatedScan) -> Iterator[Rows]:
    """Rows of each repetition by waveform and echo; waveforms are numbered from its start."""
    once = scan.waveforms_once
    pending: list[pa.Table] = []
    number = 0
    for batch in _batches(path):
        pending.append(pa.Table.from_batches([batch]))
        # Blocks are in order and shorter than a repetition.
        last = int(pa.compute.max(batch["waveform_number"]).as_py())
        while last >= (number + 2) * once:
            rows, pending = _split_off(pending, number, once)
            yield rows
            number += 1
    while number < scan.repetitions:
        rows, pending = _split_off(pending, number, once)
        yield rows
        number += 1
    if sum(map(len, pending)):
        raise ValueError(f"{path} contains waveforms that are not in the scan")


def _batches(path: Path) -> Iterator[pa.RecordBatch]:
    if path.suffix == ".csv":
        with pyarrow.csv.open_csv(path) as lines:
            yield from lines
    else:
        with pyarrow.parquet.ParquetFile(path) as file:
            yield from file.iter_batches()


def _split_off(pending: list[pa.Table], number: int, once: int) -> tuple[Rows, list[pa.Table]]:
    table = pa.concat_tables(pending)
    waveform = table["waveform_number"].to_numpy()
    selected = waveform // once == number
    rows = {name: table[name].to_numpy()[selected] for name in table.column_names}
    rows["waveform_number"] = rows["waveform_number"] - number * once
    order = np.lexsort((rows["echo_number"], rows["waveform_number"]))
    return {name: column[order] for name, column in rows.items()}, [table.filter(~selected)]


def _count(found: Balance, rows: Rows, scan: RepeatedScan) -> None:
    waveforms, with_echoes = rows["waveform_number"], rows["echo_number"] > 0
    found.rows += len(waveforms)
    found.waveforms += len(np.unique(waveforms))
    found.echoes += int(np.count_nonzero(with_echoes))
    empty = ~np.isin(waveforms // CHANNELS, scan.truth.shot)
    found.empty += int(np.count_nonzero(empty))
    found.empty_with_echoes += int(np.count_nonzero(empty & with_echoes))


def _empty_waveforms(scan: RepeatedScan) -> int:
    return CHANNELS * (scan.shots - len(np.unique(scan.truth.shot)))


def _compare_with_truth(found: Balance, rows: Rows, scan: RepeatedScan) -> None:
    truth = scan.truth
    certain = certain_echoes(truth)
    echoes = rows["echo_number"] > 0
    matching = match_echoes(
        rows["gps_time"][echoes],
        rows["position"][echoes],
        truth.gps_time[certain],
        truth.position_samples[certain],
        _TOLERANCE,
    )
    found.certain, found.certain_found = len(certain), len(matching)


def certain_echoes(truth: TruthTable) -> npt.NDArray[np.intp]:
    """Rows of echoes that all methods must find: strong, not clipped, far from other echoes."""
    isolated = truth.neighbour_distance_samples > 6.0 * truth.sigma_samples
    strong = truth.amplitude_low_power >= 300.0
    return np.flatnonzero(isolated & strong & ~truth.saturated)


def _bytes(column: npt.NDArray[Any]) -> bytes:
    """The values of a column; geometries are objects, whose text has all digits."""
    return repr(column.tolist()).encode() if column.dtype == object else column.tobytes()


def _differences(first: Rows, rows: Rows, number: int, scan: RepeatedScan) -> list[str]:
    """Columns of a repetition that differ in any bit from the first one, shifted in time."""
    if len(rows["echo_number"]) != len(first["echo_number"]):
        counts = f"{len(rows['echo_number']):,} rows; expected {len(first['echo_number']):,}"
        return [f"repetition {number}: {counts}"]
    later = {**first, "gps_time": first["gps_time"] + number * scan.period}
    different = [name for name in rows if _bytes(rows[name]) != _bytes(later[name])]
    return [f"repetition {number}: {name} differs" for name in different]
