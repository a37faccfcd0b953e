"""The library's text reports of single waveforms."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import numpy as np

from fullwaveform.core.driver import LONGEST_DECONVOLUTION, Driver, Mode, Thresholds
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.waveform_table import WaveformState


def block_reports(
    block: WaveformBlock,
    rows: Any,
    scanner: Scanner,
    mode: Mode,
    threshold: Thresholds,
    *,
    extent: bool = False,
) -> Iterator[tuple[int, str | None, str]]:
    """Text reports of some waveforms of a block.

    The other waveforms of their shots are extracted as well, since channels are merged.

    Parameters
    ----------
    block
        The waveforms, whole shots of them.
    rows
        (k,) rows of the block, ascending.
    scanner, mode, threshold
        As for `Driver`, with a threshold for all or each (n,) of the waveforms of the block; the
        sampling interval is that of the block.
    extent
        One line on the extent of the echoes in place of the full report.

    Yields
    ------
    Number of the waveform in the file, its report (None if it is not in the result), and its
    state in words; one sampling interval after the other.
    """
    for interval in np.unique(block.sampling_intervals[rows]):
        here = block.sampling_intervals == interval
        shots = np.unique(block.shot_times[rows])
        taken = np.flatnonzero(here & np.isin(block.shot_times, shots))
        longest = min(int(block.counts[taken].max(initial=0)), LONGEST_DECONVOLUTION)
        driver = Driver(mode, scanner.at_interval(float(interval)), longest_waveform=longest)
        states, texts = driver.reports(
            block.samples[taken],
            block.counts[taken],
            block.shot_times[taken],
            block.sbl_times[taken],
            block.channel_flags[taken],
            threshold=threshold if np.ndim(threshold) == 0 else np.asarray(threshold)[taken],
            extent=extent,
        )
        for row in np.flatnonzero(np.isin(taken, rows)):
            number = int(block.waveform_numbers[taken[row]])
            yield number, texts[row], WaveformState(states[row]).phrase
