"""From blocks of waveforms to tables of echoes in space: one road for every file format."""

from __future__ import annotations

import json
from collections import Counter
from dataclasses import dataclass, field
from typing import Any

import numpy as np
import numpy.typing as npt

from fullwaveform import __version__
from fullwaveform.core.constants import EchoType
from fullwaveform.core.driver import (
    DECONVOLVING_MODES,
    LONGEST_DECONVOLUTION,
    Driver,
    Mode,
    Result,
    Threshold,
)
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.data.empty_waveforms import with_empty_waveforms
from fullwaveform.extraction.georeference import to_echo_table
from fullwaveform.extraction.waveform_table import (
    WaveformTable,
    enter_echoes,
    enter_result,
    waveform_table,
    without_echoes,
)


@dataclass(frozen=True)
class ExtractionSettings:
    """How echoes are extracted from every block."""

    scanner: Scanner
    mode: Mode = Mode.THREE_POINT
    threshold: Threshold = "estimate"  # counts, or an estimate for every waveform
    keep_empty: bool = False  # whether waveforms without echoes have a row among the echoes

    @property
    def position_offset(self) -> float:
        """Samples to subtract from positions of deconvolved echoes; 0 if the mode has none."""
        if self.mode not in DECONVOLVING_MODES:
            return 0.0
        offset, hybrid = (
            self.scanner.deconvolution_offset,
            self.scanner.deconvolution_offset_hybrid,
        )
        return hybrid if self.mode is Mode.HYBRID and hybrid is not None else offset


def run_metadata(settings: ExtractionSettings) -> dict[str, str]:
    """How echoes were made, for the files that can carry it."""
    return {
        "version": __version__,
        "mode": settings.mode.title,
        "threshold": str(settings.threshold),
        "scanner": json.dumps(dict(settings.scanner.attributes), sort_keys=True),
    }


@dataclass
class ExtractionTally:
    """What the extraction met."""

    waveforms: int = 0
    waveforms_with_echoes: int = 0
    echoes: int = 0
    rejected: Counter[str] = field(default_factory=Counter)  # reason as a phrase -> waveforms
    echoes_left_out: int = 0  # not finite, from flat or hollow triples of samples
    suspicious_blocks: int = 0

    def add(self, other: ExtractionTally) -> None:
        """Count what the other one counted as well."""
        self.waveforms += other.waveforms
        self.waveforms_with_echoes += other.waveforms_with_echoes
        self.echoes += other.echoes
        self.rejected.update(other.rejected)
        self.echoes_left_out += other.echoes_left_out
        self.suspicious_blocks += other.suspicious_blocks


@dataclass(frozen=True)
class ExtractedBlock:
    """What was extracted from one block.

    echoes : shot by shot along the flight of light
    waveforms : what became of each waveform
    tally : the same in numbers
    record : statistics, where so many waveforms were rejected that an operator should look
    """

    echoes: EchoTable
    waveforms: WaveformTable
    tally: ExtractionTally
    record: str


class Extractor:
    """Runs the driver over blocks; one driver per sampling interval, made when it is first met.

    What a block gives depends on the block and the settings only, not on the blocks before it.
    """

    def __init__(self, settings: ExtractionSettings) -> None:
        self.settings = settings
        self._drivers: dict[float, tuple[int, Driver]] = {}  # with the longest waveform of each

    def extract(self, block: WaveformBlock) -> ExtractedBlock:
        """The echoes of a block; those that are not finite are counted and left out.

        Raises
        ------
        ValueError
            The scanner's system wave was estimated for another sampling interval.
        """
        waveforms = waveform_table(block)
        parts, records = [], []
        for interval in np.unique(block.sampling_intervals):
            rows = np.flatnonzero(block.sampling_intervals == interval)
            result = self._of_interval(block, float(interval), rows)
            enter_result(waveforms, rows, result)
            parts.append((rows[result.peaks["row"]], dict(result.peaks)))
            records.append(result.record)
        rows, peaks = _joined(parts)
        peaks = self._apply_position_offset(peaks, block.sampling_intervals[rows])
        finite = _finite(peaks)
        left_out = int(np.count_nonzero(~finite))
        rows, peaks = rows[finite], {name: column[finite] for name, column in peaks.items()}
        enter_echoes(waveforms, rows)
        echoes = to_echo_table(block, rows, peaks)
        if self.settings.keep_empty:
            echoes = with_empty_waveforms(echoes, block)
        tally = _tally(waveforms, left_out, records)
        return ExtractedBlock(echoes, waveforms, tally, "".join(records))

    def _of_interval(
        self, block: WaveformBlock, interval: float, rows: npt.NDArray[np.int64]
    ) -> Result:
        # A boolean index copies; the usual block has one interval and is handed over as it is.
        pick = slice(None) if len(rows) == len(block) else rows
        longest = int(block.counts[pick].max(initial=0))
        return self._driver(interval, longest).apply(
            block.samples[pick],
            block.counts[pick],
            block.shot_times[pick],
            block.sbl_times[pick],
            block.channel_flags[pick],
            threshold=self.settings.threshold,
        )

    def _apply_position_offset(
        self, peaks: dict[str, npt.NDArray[Any]], interval: FloatArray
    ) -> dict[str, npt.NDArray[Any]]:
        """The peaks with the position offset subtracted from the deconvolved ones."""
        if self.settings.position_offset == 0.0:
            return peaks
        deconvolved = peaks["type"] == EchoType.RICHARDSON_LUCY
        offset = np.where(deconvolved, self.settings.position_offset, 0.0)
        moved = {"idx": peaks["idx"] - offset, "time": peaks["time"] - offset * interval}
        return {**peaks, **moved}

    def _driver(self, interval: float, longest: int) -> Driver:
        planned, driver = self._drivers.get(interval, (-1, None))
        if driver is None or longest > planned:
            self._check_interval(interval)
            driver = Driver(
                self.settings.mode,
                self.settings.scanner.at_interval(interval),
                longest_waveform=min(longest, LONGEST_DECONVOLUTION),
            )
            self._drivers[interval] = (longest, driver)
        return driver

    def _check_interval(self, interval: float) -> None:
        """An offset in samples holds for the interval at which it was measured."""
        known = self.settings.scanner.sampling_interval
        if (
            self.settings.position_offset != 0.0
            and known is not None
            and abs(interval - known) > 1e-3 * known
        ):
            raise ValueError(
                f"the system wave was estimated for samples {known * 1e9:g} ns apart, those of the "
                f"file are {interval * 1e9:g} ns apart; estimate it for them"
            )


def _joined(
    parts: list[tuple[npt.NDArray[np.int64], dict[str, npt.NDArray[Any]]]],
) -> tuple[npt.NDArray[np.int64], dict[str, npt.NDArray[Any]]]:
    rows = np.concatenate([part[0] for part in parts])
    names = parts[0][1]
    return rows, {name: np.concatenate([part[1][name] for part in parts]) for name in names}


def _finite(peaks: dict[str, npt.NDArray[Any]]) -> npt.NDArray[np.bool_]:
    finite: npt.NDArray[np.bool_] = (
        np.isfinite(peaks["idx"])
        & np.isfinite(peaks["amplitudeCounts"])
        & np.isfinite(peaks["std"])
    )
    return finite


def _tally(waveforms: WaveformTable, left_out: int, records: list[str]) -> ExtractionTally:
    return ExtractionTally(
        waveforms=len(waveforms),
        waveforms_with_echoes=int(np.count_nonzero(waveforms.echo_count)),
        echoes=int(waveforms.echo_count.sum()),
        rejected=without_echoes(waveforms),
        echoes_left_out=left_out,
        suspicious_blocks=sum(bool(record) for record in records),
    )
