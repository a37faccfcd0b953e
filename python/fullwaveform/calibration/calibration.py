"""All that is measured once per file before its extraction."""

from __future__ import annotations

from dataclasses import dataclass

from fullwaveform.calibration.levels import ChannelLevels, measure_levels
from fullwaveform.calibration.outgoing_phase import OutgoingPhase, measure_outgoing_phase
from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.io.base import WaveformReader


@dataclass(frozen=True)
class Calibration:
    """Measurements of a file; equal for any division into blocks, and storable as JSON."""

    levels: tuple[ChannelLevels, ...] = ()  # by channel flag and descriptor
    outgoing_phase: OutgoingPhase | None = None  # None: not measured

    @property
    def needs_outgoing(self) -> bool:
        """Whether the extraction needs the outgoing pulses, `WaveformReader.with_outgoing`."""
        return self.outgoing_phase is not None and self.outgoing_phase.is_applied


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
    # The highest threshold, because the driver merges the echoes of all channels of a shot.
    threshold = max((channel.threshold for channel in levels), default=0)
    calibration = Calibration(levels, measure_outgoing_phase(blocks, threshold, outgoing_phase))
    reader.with_outgoing = calibration.needs_outgoing
    return calibration
