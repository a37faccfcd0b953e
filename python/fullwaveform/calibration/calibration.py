"""All that is measured once per file before its extraction."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field, replace
from itertools import chain

import numpy as np

from fullwaveform.calibration.levels import ChannelLevels, LevelsObserver, measure_levels
from fullwaveform.calibration.outgoing_phase import OutgoingPhase, measure_outgoing_phase
from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.pulse_fit import PulseModel
from fullwaveform.core.pulse_models import ReceiverModel, model_of
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
    pulse_models: tuple[ReceiverModel, ...] = ()  # by channel flag and descriptor
    receiver_names: Mapping[int, str] = field(default_factory=dict)  # as in `WaveformReader`

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

    def pulse_model_of(self, channel_flag: int, descriptor: int) -> PulseModel:
        """The pulse model of a receiver, see `model_of`; ValueError if there are none."""
        return model_of(self.pulse_models, channel_flag, descriptor)

    def thresholds(self, block: WaveformBlock) -> IntArray:
        """Threshold (n,) of each waveform with its baseline kept, counts; -1 for an estimate."""
        thresholds = np.full(len(block), -1, np.int64)
        receivers = zip(block.channel_flags.tolist(), block.descriptors.tolist(), strict=True)
        for row, (flag, descriptor) in enumerate(receivers):
            level = self.levels_of(flag, descriptor)
            if level is not None:
                thresholds[row] = level.threshold
        return thresholds


def measure(
    reader: WaveformReader,
    outgoing_phase: PhaseChoice = "auto",
    pulse: PulseChoice | tuple[ReceiverModel, ...] | None = None,
    observe_levels: LevelsObserver | None = None,
) -> Calibration:
    """Measure the file of an open reader, on waveforms spread over it.

    Takes a bounded time. `reader.with_outgoing` is set to what the extraction needs.

    Parameters
    ----------
    reader : not changed otherwise
    outgoing_phase : whether the phase of the outgoing pulses is taken off
    pulse : pulses of which models are made, or known models; None: no models
    observe_levels : as in `measure_levels`

    Raises
    ------
    ValueError
        If `outgoing_phase` is "on" and the file has no usable outgoing pulses, and as
        `measure_pulse_models`.
    WaveformFileError
        As `WaveformReader.spread_blocks`.
    """
    if outgoing_phase == "on" and not reader.times_from_outgoing:
        raise ValueError(
            f"{reader.path} has no outgoing pulses whose phase could be taken off; use "
            "--outgoing-phase auto (outgoing_phase='auto')"
        )
    is_phase_measured = outgoing_phase != "off" and reader.times_from_outgoing
    reader.with_outgoing = is_phase_measured or (isinstance(pulse, str) and reader.has_outgoing)
    if not (is_phase_measured or isinstance(pulse, str)):
        levels = measure_levels(reader.spread_blocks(), observe_levels)
        return Calibration(levels, None, pulse or (), reader.receiver_names)
    blocks = list(reader.spread_blocks())
    calibration = Calibration(
        measure_levels(blocks, observe_levels), receiver_names=reader.receiver_names
    )
    if is_phase_measured:
        phase = measure_outgoing_phase(blocks, calibration.thresholds, outgoing_phase)
        calibration = replace(calibration, outgoing_phase=phase)
    calibration = replace(
        calibration, pulse_models=_pulse_models(blocks, calibration.levels, str(reader.path), pulse)
    )
    reader.with_outgoing = calibration.needs_outgoing
    return calibration


def _pulse_models(
    blocks: Sequence[WaveformBlock],
    levels: Sequence[ChannelLevels],
    origin: str,
    pulse: PulseChoice | tuple[ReceiverModel, ...] | None,
) -> tuple[ReceiverModel, ...]:
    if isinstance(pulse, str):
        # On demand: it needs SciPy, which takes longer to load than most commands run.
        from fullwaveform.calibration.pulse_model import measure_pulse_models

        return tuple(each.entry for each in measure_pulse_models(blocks, levels, origin, pulse))
    return pulse or ()


def measure_first(
    blocks: Iterable[WaveformBlock],
    pulse: PulseChoice | tuple[ReceiverModel, ...] | None = None,
) -> tuple[Calibration, Iterator[WaveformBlock]]:
    """Measure on the first 4,096 waveforms of blocks; the calibration, and all blocks.

    `pulse` as in `measure`. The blocks with these waveforms stay in memory until they are iterated.
    """
    following = iter(blocks)
    first: list[WaveformBlock] = []
    parts: list[WaveformBlock] = []
    missing = _FIRST_WAVEFORMS
    while missing > 0 and (block := next(following, None)) is not None:
        first.append(block)
        parts.append(take_rows(block, np.arange(min(len(block), missing))))
        missing -= len(block)
    levels = measure_levels(parts)
    models = _pulse_models(parts, levels, "the first waveforms", pulse)
    return Calibration(levels, pulse_models=models), chain(first, following)
