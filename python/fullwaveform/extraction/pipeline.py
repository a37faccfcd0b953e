"""Extraction of many blocks in one or several threads, in the order of the file."""

from __future__ import annotations

import os
from collections.abc import Callable, Generator, Iterable
from pathlib import Path

import numpy as np

from fullwaveform.core.driver import RunMonitor
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import (
    ExtractedBlock,
    ExtractionSettings,
    ExtractionTally,
    Extractor,
)
from fullwaveform.extraction.threads import checked_workers, processed_in_order, worked_behind
from fullwaveform.extraction.warning_file import append_statistics
from fullwaveform.extraction.waveform_table import WaveformState, WaveformTable
from fullwaveform.io.echo_writers.echo_writer import EchoWriter


def available_workers() -> int:
    """Number of processors that this process may use."""
    return len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1


def extracted_blocks(
    blocks: Iterable[WaveformBlock],
    settings: ExtractionSettings,
    workers: int = 1,
    monitor: RunMonitor | None = None,
) -> Generator[ExtractedBlock]:
    """Extract blocks in `workers` threads; yields the results in the order of the blocks.

    Each thread has its own drivers and runs them without Python's global lock. At most
    ``workers + 1`` blocks are in memory. The result does not depend on the number of workers.
    Closing the generator, or an exception of a signal, ends the work on the current blocks.

    `monitor` counts the waveforms that are finished, also within a block, and can cancel the run
    from another thread.

    Raises ValueError for fewer than one worker, and as `Extractor.extract` does.
    """
    monitor = monitor or RunMonitor()
    # The threads would finish their blocks.
    return processed_in_order(
        blocks,
        lambda: Extractor(settings, monitor).extract,
        checked_workers(workers),
        on_failure=monitor.cancel,
    )


def write_echoes(
    extracted: Iterable[ExtractedBlock],
    writer: EchoWriter,
    *,
    statistics: Path | None = None,
    on_rejected: Callable[[str], None] | None = None,
) -> ExtractionTally:
    """Write the echoes of all blocks in a thread, and return the sum of their counts.

    At most two blocks wait to be written or are being written. An exception of the writer is raised
    here, at the next block or at the end.

    Parameters
    ----------
    statistics
        File to which the statistics of suspicious blocks are appended; ignored if it cannot be
        opened, as the library does.
    on_rejected
        Called with number and state of each waveform without echoes.
    """
    tally = ExtractionTally()

    def write(block: ExtractedBlock) -> None:
        writer.write(block.echoes, block.source)

    with worked_behind(write) as hand_over:
        for block in extracted:
            hand_over(block)
            tally.add(block.tally)
            if block.record and statistics is not None:
                append_statistics(statistics, block.record)
            if on_rejected is not None:
                _report_rejected(block.waveforms, on_rejected)
    return tally


def _report_rejected(waveforms: WaveformTable, report: Callable[[str], None]) -> None:
    for row in np.flatnonzero(waveforms.state != WaveformState.WITH_ECHOES):
        state = WaveformState(waveforms.state[row])
        report(f"waveform {waveforms.waveform_number[row]}: {state.phrase}")
