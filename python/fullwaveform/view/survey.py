"""Everything that the page without a server shows of a file, from one pass over its blocks."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from contextlib import closing
from dataclasses import dataclass, replace

import numpy as np

from fullwaveform.core.driver import RunMonitor
from fullwaveform.data.arrays import AnyArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_records import EchoFile
from fullwaveform.extraction.extractor import (
    ExtractedBlock,
    ExtractionSettings,
    ExtractionTally,
    Extractor,
)
from fullwaveform.extraction.threads import checked_workers, processed_in_order
from fullwaveform.io.base import WaveformReader
from fullwaveform.view.echo_raster import EchoRaster
from fullwaveform.view.echo_values import value_rows
from fullwaveform.view.example_kinds import BlockScores, ExampleKind, block_scores
from fullwaveform.view.examples import ChosenExamples, ExampleSelection, numbers_of_shots
from fullwaveform.view.value_counts import Histogram, ValueCounts, whole_number_histogram

_FIRST_CELL = 2.0**-7  # m
_FIRST_CELL_DEGREES = 2.0**-22  # about 3 cm; those within reach cover all longitudes
_MAX_COUNTED = 1 << 16  # echoes of a shot; more are counted as this many


@dataclass(frozen=True)
class EchoSummary:
    """Where the echoes of a file are, and how high and wide.

    source : name of their file; empty for the echoes of the survey itself
    """

    source: str
    raster: EchoRaster
    amplitudes: Histogram  # counts
    widths: Histogram  # ns, full widths at half maximum


@dataclass(frozen=True)
class Survey:
    """What is known of a file after one pass."""

    tally: ExtractionTally
    echoes: EchoSummary
    echoes_per_shot: Histogram
    examples: dict[ExampleKind, ChosenExamples]


class _EchoSums:
    """Sums over echoes."""

    def __init__(self, *, in_degrees: bool) -> None:
        self._raster = EchoRaster(_FIRST_CELL_DEGREES if in_degrees else _FIRST_CELL)
        self._amplitudes, self._widths = ValueCounts(), ValueCounts()

    def add(self, columns: Mapping[str, AnyArray]) -> None:
        """Enter echoes (m,): x, y, z, and if known amplitude and width."""
        self._raster.add(columns["x"], columns["y"], columns["z"])
        if "amplitude" in columns:
            self._amplitudes.add(columns["amplitude"])
        if "width" in columns:
            self._widths.add(columns["width"])

    def summary(self, source: str) -> EchoSummary:
        return EchoSummary(
            source, self._raster, self._amplitudes.histogram(), self._widths.histogram()
        )


def survey(
    reader: WaveformReader,
    blocks: Iterable[WaveformBlock],
    settings: ExtractionSettings,
    *,
    in_degrees: bool,
    workers: int = 1,
    monitor: RunMonitor | None = None,
) -> Survey:
    """Extract the echoes of the blocks of a reader in threads, and keep what the page shows.

    The result does not depend on the number of workers or the size of the blocks. Raises as
    `extracted_blocks`, and what the reader raises.

    in_degrees : whether x and y are degrees
    """
    monitor = monitor or RunMonitor()
    sums, tally, selection = _EchoSums(in_degrees=in_degrees), ExtractionTally(), ExampleSelection()
    per_shot = np.zeros(_MAX_COUNTED + 1, np.int64)
    worked = processed_in_order(
        blocks,
        lambda: _Surveyor(settings, monitor).work,
        checked_workers(workers),
        on_failure=monitor.cancel,
    )
    with closing(worked):
        for block, extracted, scores in worked:
            tally.add(extracted.tally)
            columns = extracted.echoes.columns
            sums.add({**columns, "width": columns["fwhm_ns"]})
            counts = _echoes_of_shots(block, extracted)
            per_shot += np.bincount(np.minimum(counts, _MAX_COUNTED), minlength=len(per_shot))
            selection.add(block, scores)
    return Survey(
        tally,
        sums.summary(""),
        whole_number_histogram(np.trim_zeros(per_shot, "b")),
        _with_true_shots(selection.chosen(), reader),
    )


def summary_of_file(file: EchoFile, *, in_degrees: bool) -> EchoSummary:
    """The echoes of a file, read block by block; raises as its reader."""
    sums = _EchoSums(in_degrees=in_degrees)
    for _, _, columns in value_rows(file):
        sums.add(columns)
    return sums.summary(file.path.name)


class _Surveyor:
    """Extracts and scores blocks in a thread."""

    def __init__(self, settings: ExtractionSettings, monitor: RunMonitor) -> None:
        self._extractor = Extractor(settings, monitor)

    def work(self, block: WaveformBlock) -> tuple[WaveformBlock, ExtractedBlock, BlockScores]:
        extracted = self._extractor.extract(block)
        return block, extracted, block_scores(self._extractor, block, extracted)


def _echoes_of_shots(block: WaveformBlock, extracted: ExtractedBlock) -> IntArray:
    """Echoes of each shot of a block."""
    begins = np.concatenate([[True], block.shot_times[1:] != block.shot_times[:-1]])
    return np.add.reduceat(extracted.waveforms["echo_count"], np.flatnonzero(begins))


def _with_true_shots(
    chosen: dict[ExampleKind, ChosenExamples], reader: WaveformReader
) -> dict[ExampleKind, ChosenExamples]:
    """With the numbers of the shots in the file, where unreadable waveforms count, too."""
    if not reader.tally.rejected:
        return chosen
    waveforms = [one.waveform for kind in chosen.values() for one in kind.examples]
    numbers = numbers_of_shots(reader, waveforms)
    return {
        kind: replace(
            found,
            examples=tuple(
                replace(one, shot_number=numbers[one.waveform]) for one in found.examples
            ),
        )
        for kind, found in chosen.items()
    }
