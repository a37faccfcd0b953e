"""From blocks of waveforms to tables of echoes in space: one road for every file format."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform.driver import DECONVOLVING_MODES, LONGEST_DECONVOLUTION, Driver, Mode, Result
from fullwaveform.formats.blocks import (
    EchoTable,
    FloatArray,
    PulseGeometry,
    WaveformBlock,
    take_rows,
)
from fullwaveform.scanner import Scanner

_PICOSECONDS = 1e12
_NANOSECONDS = 1e9
_DECONVOLVED = 5  # type of the echoes that a deconvolution finds


@dataclass(frozen=True)
class ExtractionSettings:
    """How echoes are extracted from every block."""

    scanner: Scanner
    mode: Mode = Mode.THREE_POINT
    noise: int = -1  # counts; negative: estimated for every waveform
    report_directory: Path | None = None  # for the statistics of suspicious blocks
    input_file: str = "waveforms"  # names the file of those statistics


@dataclass
class ExtractionTally:
    """What the extraction met so far."""

    waveforms: int = 0
    waveforms_with_echoes: int = 0
    echoes: int = 0
    rejected: Counter[str] = field(default_factory=Counter)  # reason as a phrase -> waveforms
    echoes_left_out: int = 0  # not finite, from flat or hollow triples of samples
    suspicious_blocks: int = 0


class Extractor:
    """Runs the driver over blocks; one driver per sampling interval, made when it is first met."""

    def __init__(self, settings: ExtractionSettings) -> None:
        self.settings = settings
        self.tally = ExtractionTally()
        self._drivers: dict[float, tuple[int, Driver]] = {}  # with the longest waveform of each

    def extract(self, block: WaveformBlock) -> EchoTable:
        """The echoes of a block, shot by shot along the flight of light.

        Echoes that are not finite are counted and left out.
        """
        parts = [
            self._of_interval(block, interval) for interval in np.unique(block.sampling_intervals)
        ]
        rows, peaks = _joined(parts)
        peaks = self._where_a_fit_sees_them(peaks, block.sampling_intervals[rows])
        finite = (
            np.isfinite(peaks["idx"])
            & np.isfinite(peaks["amplitudeCounts"])
            & np.isfinite(peaks["std"])
        )
        self.tally.echoes_left_out += int(np.count_nonzero(~finite))
        lost = len(np.unique(rows)) - len(np.unique(rows[finite]))
        if lost:
            self.tally.rejected["no echo that is finite"] += lost
        rows = rows[finite]
        peaks = {name: column[finite] for name, column in peaks.items()}
        self.tally.waveforms += len(block)
        self.tally.waveforms_with_echoes += len(np.unique(rows))
        self.tally.echoes += len(rows)
        return _placed(block, rows, peaks)

    def _of_interval(
        self, block: WaveformBlock, interval: float
    ) -> tuple[npt.NDArray[np.int64], dict[str, npt.NDArray[Any]]]:
        """Rows (of the block) and peaks of the waveforms that share a sampling interval."""
        chosen = block.sampling_intervals == interval
        rows = np.flatnonzero(chosen)
        # A boolean index copies; the usual block has one interval and is handed over as it is.
        pick = slice(None) if chosen.all() else rows
        longest = int(block.counts[pick].max(initial=0))
        result = self._driver(float(interval), longest).apply(
            block.samples[pick],
            block.counts[pick],
            block.shot_times[pick],
            block.sbl_times[pick],
            block.channel_flags[pick],
            noise=self.settings.noise,
        )
        self._count(result)
        return rows[result.peaks["row"]], dict(result.peaks)

    def _where_a_fit_sees_them(
        self, peaks: dict[str, npt.NDArray[Any]], interval: FloatArray
    ) -> dict[str, npt.NDArray[Any]]:
        """The peaks, deconvolved ones moved by the offset that the scanner's description states."""
        offset = np.where(peaks["type"] == _DECONVOLVED, self._stated_offset(), 0.0)
        moved = {"idx": peaks["idx"] - offset, "time": peaks["time"] - offset * interval}
        return {**peaks, **moved}

    def _stated_offset(self) -> float:
        """Samples; the hybrid's deconvolved echoes stand among decomposed ones."""
        scanner, mode = self.settings.scanner, self.settings.mode
        if mode == Mode.HYBRID and scanner.deconvolution_offset_hybrid is not None:
            return scanner.deconvolution_offset_hybrid
        return scanner.deconvolution_offset if mode in DECONVOLVING_MODES else 0.0

    def _driver(self, interval: float, longest: int) -> Driver:
        planned, driver = self._drivers.get(interval, (-1, None))
        if driver is None or longest > planned:
            self._check_interval(interval)
            driver = Driver(
                self.settings.mode,
                self.settings.scanner.at_interval(interval),
                report_directory=self.settings.report_directory,
                input_file=self.settings.input_file,
                longest_waveform=min(longest, LONGEST_DECONVOLUTION),
            )
            self._drivers[interval] = (longest, driver)
        return driver

    def _check_interval(self, interval: float) -> None:
        """An offset in samples holds for the interval at which it was measured."""
        known = self.settings.scanner.sampling_interval
        if (
            self._stated_offset() != 0.0
            and known is not None
            and abs(interval - known) > 1e-3 * known
        ):
            raise ValueError(
                f"the system wave was estimated for samples {known * 1e9:g} ns apart, those of the "
                f"file are {interval * 1e9:g} ns apart; estimate it for them"
            )

    def _count(self, result: Result) -> None:
        statistics = result.statistics
        merged, too_long = statistics["mergedAway"], statistics["withoutPlane"]
        empty = int(np.count_nonzero(result.waveforms["peakCount"] == 0))
        without = empty - merged - too_long
        for reason, count in (
            ("signal not above the noise", statistics["signalTooLow"]),
            ("repeats a waveform of its shot", statistics["duplicates"]),
            ("no echo found, or none that can be real", without),
            (
                f"longer than the {LONGEST_DECONVOLUTION:,} samples that can be deconvolved",
                too_long,
            ),
            ("echoes stand in the other channel of the shot", merged),
        ):
            if count:
                self.tally.rejected[reason] += count
        self.tally.suspicious_blocks += bool(statistics["suspicious"])


def positions_in_space(
    geometry: PulseGeometry, rows: npt.NDArray[np.int64], time_ps: FloatArray
) -> FloatArray:
    """Where the samples of the given rows at the given times lie.

    Parameters
    ----------
    geometry : of the block
    rows : (m,) rows of the block
    time_ps : (m,) picoseconds after the first sample of each row

    Returns
    -------
    (m, 3) coordinates in the units of the file
    """
    lead = geometry.location[rows] - time_ps
    placed: FloatArray = geometry.anchor[rows] + lead[:, np.newaxis] * geometry.direction[rows]
    return placed


def _joined(
    parts: list[tuple[npt.NDArray[np.int64], dict[str, npt.NDArray[Any]]]],
) -> tuple[npt.NDArray[np.int64], dict[str, npt.NDArray[Any]]]:
    rows = np.concatenate([part[0] for part in parts])
    names = parts[0][1]
    return rows, {name: np.concatenate([part[1][name] for part in parts]) for name in names}


def _placed(
    block: WaveformBlock, rows: npt.NDArray[np.int64], peaks: dict[str, npt.NDArray[Any]]
) -> EchoTable:
    interval = block.sampling_intervals[rows]
    xyz = positions_in_space(block.geometry, rows, peaks["idx"] * interval * _PICOSECONDS)
    order, number, count = _numbered_along_flight(block, rows, xyz, peaks["idx"] * interval)
    rows, xyz, interval = rows[order], xyz[order], interval[order]
    peaks = {name: column[order] for name, column in peaks.items()}
    return EchoTable(
        xyz=xyz,
        gps_time=block.attributes.gps_time[rows],
        echo_number=number,
        echo_count=count,
        amplitude_counts=peaks["amplitudeCounts"],
        amplitude_db=peaks["amplitude"],
        width_ns=peaks["std"] * interval * _NANOSECONDS,
        position=peaks["idx"],
        type=peaks["type"],
        quality=peaks["quality"],
        reflectance=peaks["reflectance"],
        time=peaks["time"],
        waveform_number=block.waveform_numbers[rows],
        channel_flag=block.channel_flags[rows],
        attributes=take_rows(block.attributes, rows),
    )


def _numbered_along_flight(
    block: WaveformBlock, rows: npt.NDArray[np.int64], xyz: FloatArray, time: FloatArray
) -> tuple[npt.NDArray[np.int64], npt.NDArray[np.int64], npt.NDArray[np.int64]]:
    """Order of the echoes by shot and distance; in that order each one's number, its shot's count.

    The packets of a shot may begin at different ranges, so echoes are compared by their place
    along the pulse; its direction vector points back to the scanner. Equal places fall back on
    the time.
    """
    shots, first_row, shot_of_row = np.unique(
        block.shot_times, return_index=True, return_inverse=True
    )
    shot = shot_of_row[rows]
    direction = block.geometry.direction[rows]
    length = np.linalg.norm(direction, axis=1, keepdims=True)
    unit = np.divide(direction, length, out=np.zeros_like(direction), where=length > 0)
    offset = xyz - block.geometry.anchor[first_row[shot]]
    distance = -np.einsum("ij,ij->i", offset, unit)
    order = np.lexsort((time, distance, shot))
    per_shot = np.bincount(shot, minlength=len(shots))
    first_echo = np.concatenate(([0], np.cumsum(per_shot)[:-1])) if len(shots) else per_shot
    number = np.arange(len(order)) - first_echo[shot[order]] + 1
    return order, number, per_shot[shot[order]]
