"""Metrics of the waveforms of a file or of blocks."""

from __future__ import annotations

from collections.abc import Generator, Iterable
from functools import partial

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.threads import checked_workers, processed_in_order
from fullwaveform.io.base import WaveformReader
from fullwaveform.waveform_metrics.settings import MetricsSettings
from fullwaveform.waveform_metrics.table import MetricsRun, MetricsTable


def measured_run(reader: WaveformReader, settings: MetricsSettings) -> MetricsRun:
    """The run for a file, whose levels are measured on waveforms spread over it.

    `reader.with_outgoing` is set where the file has outgoing pulses. Raises as
    `WaveformReader.spread_blocks`.
    """
    reader.with_outgoing = reader.has_outgoing
    levels = measure_levels(reader.spread_blocks())
    return MetricsRun(settings, Calibration(levels), reader.scanner() or Scanner.default())


def block_metrics(
    blocks: Iterable[WaveformBlock], run: MetricsRun, workers: int = 1
) -> Generator[MetricsTable]:
    """The metrics of blocks, in their order, computed in `workers` threads.

    The result does not depend on the number of workers. Raises ValueError for fewer than one.
    """
    process = partial(MetricsTable.of, run=run)
    return processed_in_order(blocks, lambda: process, checked_workers(workers))
