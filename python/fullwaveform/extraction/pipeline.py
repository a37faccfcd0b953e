"""Blocks through one or several workers, their echoes in the order of the file."""

from __future__ import annotations

import os
import threading
from collections import deque
from collections.abc import Callable, Iterable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from pathlib import Path

import numpy as np

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import (
    ExtractedBlock,
    ExtractionSettings,
    ExtractionTally,
    Extractor,
)
from fullwaveform.extraction.waveform_table import WaveformState, WaveformTable
from fullwaveform.io.base import EchoWriter


def available_workers() -> int:
    """Processors that this process may use."""
    return len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1


def extracted_blocks(
    blocks: Iterable[WaveformBlock], settings: ExtractionSettings, workers: int = 1
) -> Iterator[ExtractedBlock]:
    """Yield what is extracted from each block, in the order of the blocks.

    Every worker is a thread with drivers of its own; the extraction itself runs without Python's
    lock. At most ``workers + 1`` blocks are in memory, and the result does not depend on how many
    workers there are.

    Raises
    ------
    ValueError
        For fewer than one worker, and as `Extractor.extract` does.
    """
    if isinstance(workers, bool) or not isinstance(workers, int) or workers < 1:
        raise ValueError(f"workers is {workers}; it must be a whole number, at least 1")
    if workers == 1:
        extractor = Extractor(settings)
        return (extractor.extract(block) for block in blocks)
    return _in_threads(blocks, settings, workers)


def _in_threads(
    blocks: Iterable[WaveformBlock], settings: ExtractionSettings, workers: int
) -> Iterator[ExtractedBlock]:
    own = threading.local()

    def extract(block: WaveformBlock) -> ExtractedBlock:
        if not hasattr(own, "extractor"):
            own.extractor = Extractor(settings)
        extracted: ExtractedBlock = own.extractor.extract(block)
        return extracted

    pool = ThreadPoolExecutor(workers, thread_name_prefix="extraction")
    pending: deque[Future[ExtractedBlock]] = deque()
    try:
        for block in blocks:
            pending.append(pool.submit(extract, block))
            if len(pending) > workers:
                yield pending.popleft().result()
        while pending:
            yield pending.popleft().result()
    finally:
        pool.shutdown(wait=True, cancel_futures=True)


def write_echoes(
    extracted: Iterable[ExtractedBlock],
    writer: EchoWriter,
    *,
    statistics: Path | None = None,
    each: Callable[[str], None] | None = None,
) -> ExtractionTally:
    """Write the echoes of all blocks, and sum up what was met.

    Parameters
    ----------
    extracted
        The blocks, in their order.
    writer
        Open for writing.
    statistics
        File to which the statistics of suspicious blocks are appended; one that cannot be opened
        is passed over in silence.
    each
        Told a sentence about each waveform without echoes.
    """
    tally = ExtractionTally()
    for block in extracted:
        writer.write(block.echoes)
        tally.add(block.tally)
        if block.record and statistics is not None:
            _append(statistics, block.record)
        if each is not None:
            _tell(block.waveforms, each)
    return tally


def _append(path: Path, text: str) -> None:
    try:
        with path.open("a", encoding="ascii", newline="") as file:
            file.write(text)
    except OSError:
        return


def _tell(waveforms: WaveformTable, each: Callable[[str], None]) -> None:
    for row in np.flatnonzero(waveforms.state != WaveformState.WITH_ECHOES):
        state = WaveformState(waveforms.state[row])
        each(f"waveform {waveforms.waveform_number[row]}: {state.phrase}")
