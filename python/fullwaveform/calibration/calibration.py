"""All that is measured once per file before its extraction."""

from __future__ import annotations

from dataclasses import dataclass

from fullwaveform.calibration.levels import ChannelLevels, measure_levels
from fullwaveform.io.base import WaveformReader


@dataclass(frozen=True)
class Calibration:
    """Measurements of a file; equal for any division into blocks, and storable as JSON."""

    levels: tuple[ChannelLevels, ...] = ()  # by channel flag and descriptor


def measure(reader: WaveformReader) -> Calibration:
    """Measure the file of an open reader, on waveforms spread over it.

    Takes a bounded time. Raises as `WaveformReader.spread_blocks`.
    """
    return Calibration(levels=measure_levels(reader.spread_blocks()))
