"""Compare the echoes of a simulated scan with its truth, and plot both.

python examples/python/show_scan.py SCAN.las ECHOES.las PICTURE.png
"""

from __future__ import annotations

import sys
from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt
from rich.console import Console
from rich.table import Table
from scan_overview import Waveform, draw_overview

from fullwaveform.analysis.matching import match_echoes
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.simulation import TruthTable, read_truth

TOLERANCE = 2.0  # samples between an echo and its true echo
THRESHOLD = 20.0  # counts; shown in the plot
SHOWN = 3  # waveforms in the plot


def main(scan: Path, echoes_path: Path, picture: Path) -> None:
    """Print the comparison and write the plot."""
    truth = read_truth(scan.with_name(f"{scan.stem}_truth.csv"))
    echoes = laspy.read(echoes_path)
    compare(truth, echoes, Console())
    draw(scan, truth, echoes, picture)
    print(f"picture: {picture}")


def compare(truth: TruthTable, echoes: laspy.LasData, console: Console) -> None:
    """Print how many echoes of each kind were found, and their position errors."""
    gps_time, position = np.asarray(echoes.gps_time), np.asarray(echoes["position"])
    matching = match_echoes(gps_time, position, truth.gps_time, truth.position_samples, TOLERANCE)
    found = np.zeros(len(truth), dtype=bool)
    found[matching.ref_index] = True
    difference = np.full(len(truth), np.nan)
    difference[matching.ref_index] = matching.difference
    kinds = {
        "alone": ~truth.overlapping & ~truth.saturated,
        "overlapping": truth.overlapping & ~truth.saturated,
        "saturated": truth.saturated,
    }
    table = Table(title="Echoes against the truth of the simulation")
    for heading in ("kind", "true", "found", "share", "median error", "90 % within"):
        table.add_column(heading, justify="left" if heading == "kind" else "right")
    for kind, chosen in kinds.items():
        table.add_row(kind, *_row(found[chosen], difference[chosen]))
    console.print(table)
    wrong = f"{len(matching.unmatched_found):,} of {len(gps_time):,}"
    console.print(f"false positives (no true echo within {TOLERANCE:g} samples): {wrong}")


def _row(found: npt.NDArray[np.bool_], difference: npt.NDArray[np.float64]) -> list[str]:
    seen = difference[found]
    if not len(seen):
        return [f"{len(found):,}", "0", "", "", ""]
    return [
        f"{len(found):,}",
        f"{len(seen):,}",
        f"{len(seen) / len(found):.1%}",
        f"{np.median(seen):+.3f} samples",
        f"{np.percentile(np.abs(seen), 90):.3f} samples",
    ]


def draw(scan: Path, truth: TruthTable, echoes: laspy.LasData, picture: Path) -> None:
    """Plot waveforms with overlapping echoes, and the points of the whole scan."""
    with LasWaveformReader(scan) as reader:
        block = next(reader.blocks())
    waveforms = [_waveform(block, row, echoes) for row in _crowded_rows(block, truth)]
    draw_overview(picture, waveforms, np.asarray(echoes.xyz), np.asarray(echoes["amplitude"]))


def _crowded_rows(block: WaveformBlock, truth: TruthTable) -> list[int]:
    """Low-power waveforms with the most overlapping, unsaturated echoes."""
    crowd = truth.overlapping & ~truth.saturated
    times, counts = np.unique(truth.gps_time[crowd], return_counts=True)
    chosen = times[np.argsort(-counts, kind="stable")][: 40 * SHOWN : 40]
    low_power = block.channel_flags == 1
    first_row = {t: int(r) for r, t in reversed(list(enumerate(block.shot_times))) if low_power[r]}
    return [first_row[t] for t in chosen if t in first_row]


def _waveform(block: WaveformBlock, row: int, echoes: laspy.LasData) -> Waveform:
    interval_ns = block.sampling_intervals[row] * 1e9
    number = int(block.waveform_numbers[row])
    chosen = np.asarray(echoes["waveform_number"]) == number
    samples = block.samples[row, : block.counts[row]]
    baseline = np.median(samples)  # most samples hold no light
    return Waveform(
        samples=samples,
        threshold=THRESHOLD,
        positions=np.asarray(echoes["position"])[chosen],
        amplitudes=baseline + np.asarray(echoes["amplitude"], dtype=np.float64)[chosen],
        widths=np.asarray(echoes["sigma_ns"], dtype=np.float64)[chosen] / interval_ns,
        title=f"waveform {number}",
    )


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(*map(Path, sys.argv[1:]))
