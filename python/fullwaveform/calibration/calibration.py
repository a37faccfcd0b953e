"""All that is measured once per file before its extraction."""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from itertools import chain

import numpy as np

from fullwaveform.calibration.levels import ChannelLevels, measure_levels
from fullwaveform.calibration.outgoing_phase import OutgoingPhase, measure_outgoing_phase
from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.io.base import WaveformReader

_FIRST_WAVEFORMS = 4096  # of blocks that do not come from a file


@dataclass(frozen=True)
class Calibration:
    """Measurements of a file; equal for any division into blocks, and storable as JSON."""

    levels: tuple[ChannelLevels, ...] = ()  # by channel flag and descriptor
    outgoing_phase: OutgoingPhase | None = None  # None: not measured

    @property
    def needs_outgoing(self) -> bool:
        """Whether the extraction needs the outgoing pulses, `WaveformReader.with_outgoing`."""
        return self.outgoing_phase is not None and self.outgoing_phase.is_applied

    def levels_of(self, channel_flag: int, descriptor: int) -> ChannelLevels | None:
        """The levels of a receiver; None if nothing was measured.

        A receiver of which no waveform was measured has the levels of the one with the highest
        threshold, if possible among those of its channel flag.
        """
        alike = [level for level in self.levels if level.channel_flag == channel_flag]
        same = [level for level in alike if level.descriptor == descriptor]
        candidates = same or alike or list(self.levels)
        return max(candidates, key=lambda level: level.threshold, default=None)

    def thresholds(self, block: WaveformBlock) -> IntArray:
        """Threshold (n,) of each waveform with its baseline kept, counts; -1 for an estimate."""
        thresholds = np.full(len(block), -1, np.int64)
        receivers = zip(block.channel_flags.tolist(), block.descriptors.tolist(), strict=True)
        for row, (flag, descriptor) in enumerate(receivers):
            level = self.levels_of(flag, descriptor)
            if level is not None:
                thresholds[row] = level.threshold
        return thresholds


def measure(reader: WaveformReader, outgoing_phase: PhaseChoice = "auto") -> Calibration:
    """Measure the file of an open reader, on waveforms spread over it.

    Takes a bounded time. `reader.with_outgoing` is set to what the extraction needs.

    Raises
    ------
    ValueError
        If `outgoing_phase` is "on" and the file has no usable outgoing pulses.
    WaveformFileError
        As `WaveformReader.spread_blocks`.
    """
    if outgoing_phase == "on" and not reader.has_outgoing:
        raise ValueError(
            f"{reader.path} has no outgoing pulses whose phase could be taken off; use "
            "--outgoing-phase auto (outgoing_phase='auto')"
        )
    if outgoing_phase == "off" or not reader.has_outgoing:
        reader.with_outgoing = False
        return Calibration(measure_levels(reader.spread_blocks()))
    reader.with_outgoing = True
    blocks = list(reader.spread_blocks())
    levels = measure_levels(blocks)
    thresholds = Calibration(levels).thresholds
    calibration = Calibration(levels, measure_outgoing_phase(blocks, thresholds, outgoing_phase))
    reader.with_outgoing = calibration.needs_outgoing
    return calibration


def measure_first(
    blocks: Iterable[WaveformBlock],
) -> tuple[Calibration, Iterator[WaveformBlock]]:
    """Measure on the first 4,096 waveforms of blocks; the calibration, and all blocks.

    The blocks with these waveforms are kept in memory until they are iterated.
    """
    following = iter(blocks)
    first: list[WaveformBlock] = []
    parts: list[WaveformBlock] = []
    missing = _FIRST_WAVEFORMS
    while missing > 0 and (block := next(following, None)) is not None:
        first.append(block)
        parts.append(take_rows(block, np.arange(min(len(block), missing))))
        missing -= len(block)
    return Calibration(levels=measure_levels(parts)), chain(first, following)
