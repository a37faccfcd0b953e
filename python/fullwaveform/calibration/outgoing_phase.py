"""When the outgoing pulse of each shot left, against the grid of the digitiser.

A digitiser starts its grid at whole samples, while the pulse leaves at any phase between two.
Ranges that count from the grid scatter by that phase, up to half a sample. The recorded outgoing
pulse shows it. Whether a file needs the correction depends on what its durations already hold:
nothing, the whole samples, or the phase, too. This is decided by the ranges of the file.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Literal

import numpy as np

from fullwaveform.calibration.neighbour_ranges import NeighbourRanges, Receiver, single_echo_ranges
from fullwaveform.calibration.outgoing_template import OutgoingTemplate, mean_outgoing_pulse
from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import OutgoingPulses, WaveformBlock
from fullwaveform.data.columns import take_rows

MIN_PAIRS = 200
_MAX_SHARE = 0.8  # of the scatter, that must not be exceeded for the correction to be applied
# A reference other than 0, and the whole time, must be better by this factor than the phase.
_MAX_SHARE_OF_PHASE = 0.9
_REFERENCES = np.arange(-9, 11) / 20.0  # samples
_SAME_INTERVAL = 1e-6  # relative


@dataclass(frozen=True)
class OutgoingPhase:
    """The decision on the phase of the outgoing pulses of a file, and what the correction needs.

    The time of an outgoing pulse, in samples of the returning waveform after the reference time of
    its shot, less `reference`, is subtracted from the positions of its echoes: all of it, or the
    part that remains when whole samples are taken off, -0.5 to 0.5.
    """

    form: Literal["none", "phase", "whole time"]  # that is subtracted
    reference: float = 0.0  # samples
    template: OutgoingTemplate | None = None  # None: too few usable outgoing pulses
    pairs: int = 0  # second differences of ranges that were compared
    scatter_without: float | None = None  # m, of single-echo ranges of neighbouring shots
    scatter_with: float | None = None  # m, with the best form of the correction

    @property
    def is_applied(self) -> bool:
        """Whether positions are corrected."""
        return self.form != "none"

    def result(self) -> str:
        """The decision, for a summary."""
        return {"none": "not taken off", "phase": "taken off"}.get(self.form, "whole time off")

    def reason(self) -> str:
        """What the decision was based on, for a summary: ranges of neighbouring shots."""
        if self.template is None:
            return "too few usable outgoing pulses"
        if self.scatter_without is None or self.scatter_with is None:
            return f"{self.pairs} neighbouring single-echo ranges; at least {MIN_PAIRS} needed"
        return (
            f"ranges scatter by {100 * self.scatter_with:.1f} cm with, "
            f"{100 * self.scatter_without:.1f} cm without"
        )

    def corrections(self, block: WaveformBlock) -> FloatArray:
        """Samples to subtract from the positions of the echoes of each waveform, (n,).

        NaN for a waveform whose outgoing pulse is missing or cannot be fitted. Raises ValueError if
        the correction is not applied, or the block has no outgoing pulses.
        """
        if self.template is None or not self.is_applied:
            raise ValueError("the phase of the outgoing pulses is not taken off")
        if block.outgoing is None:
            raise ValueError("the block has no outgoing pulses; set with_outgoing of its reader")
        time = pulse_times(self.template, block.outgoing) / block.sampling_intervals
        return _correction(time, self.form, self.reference)


def pulse_times(template: OutgoingTemplate, outgoing: OutgoingPulses) -> FloatArray:
    """Time of each outgoing pulse after the reference time of its shot, s; NaN if unknown."""
    interval = template.sampling_interval
    position = template.positions(outgoing.samples, outgoing.counts)
    similar = np.abs(outgoing.sampling_intervals - interval) <= _SAME_INTERVAL * interval
    time: FloatArray = outgoing.durations + np.where(similar, position, np.nan) * interval
    return time


def measure_outgoing_phase(
    blocks: Sequence[WaveformBlock],
    thresholds: Callable[[WaveformBlock], IntArray],
    choice: PhaseChoice = "auto",
) -> OutgoingPhase:
    """Decide whether and how the phase of the outgoing pulses is taken off.

    The correction is applied if it lowers the robust scatter of the ranges by more than 20 %; "on"
    applies its best form in any case.

    Parameters
    ----------
    blocks : runs of consecutive shots, with outgoing pulses
    thresholds : gives the threshold of each waveform of a block, counts
    choice : "auto" or "on"; "off" is not measured

    Raises
    ------
    ValueError
        If the choice is "on" and there are fewer than 20 usable outgoing pulses.
    """
    template = _template(blocks)
    if template is None:
        if choice == "on":
            raise ValueError(
                "the file has too few usable outgoing pulses to take their phase off; use "
                "--outgoing-phase off (outgoing_phase='off')"
            )
        return OutgoingPhase("none")
    ranges = _most_pairs(
        [single_echo_ranges(block, _times(template, block), thresholds(block)) for block in blocks]
    )
    if ranges.pairs < MIN_PAIRS:
        return OutgoingPhase("phase" if choice == "on" else "none", 0.0, template, ranges.pairs)
    form, reference, scatter = _best_correction(ranges)
    without = ranges.scatter(np.zeros(len(ranges)))
    is_applied = choice == "on" or scatter < _MAX_SHARE * without
    return OutgoingPhase(
        form if is_applied else "none", reference, template, ranges.pairs, without, scatter
    )


def _most_pairs(runs: Sequence[Mapping[Receiver, NeighbourRanges]]) -> NeighbourRanges:
    """The ranges of the receiver with the largest number of second differences."""
    receivers = sorted({receiver for run in runs for receiver in run})
    joined = [
        NeighbourRanges.join([run[receiver] for run in runs if receiver in run])
        for receiver in receivers
    ]
    return max(joined, key=lambda ranges: ranges.pairs, default=NeighbourRanges.join([]))


def _times(template: OutgoingTemplate, block: WaveformBlock) -> FloatArray:
    assert block.outgoing is not None
    return pulse_times(template, block.outgoing)


def _template(blocks: Sequence[WaveformBlock]) -> OutgoingTemplate | None:
    """Mean of the outgoing pulses of the most frequent sampling interval."""
    pulses = recorded_pulses(blocks)
    if pulses is None:
        return None
    return mean_outgoing_pulse(pulses.samples, pulses.counts, float(pulses.sampling_intervals[0]))


def recorded_pulses(blocks: Sequence[WaveformBlock]) -> OutgoingPulses | None:
    """The outgoing pulses of the most frequent sampling interval, each once; None without any."""
    shots = [_one_per_shot(block) for block in blocks]
    intervals = np.concatenate([pulses.sampling_intervals for pulses in shots] or [np.empty(0)])
    if len(intervals) == 0:
        return None
    values, counts = np.unique(intervals, return_counts=True)
    interval = float(values[np.argmax(counts)])
    chosen = [
        take_rows(pulses, np.flatnonzero(pulses.sampling_intervals == interval)) for pulses in shots
    ]
    width = max(pulses.samples.shape[1] for pulses in chosen)
    samples = [
        np.pad(pulses.samples, ((0, 0), (0, width - pulses.samples.shape[1]))) for pulses in chosen
    ]
    return OutgoingPulses(
        np.concatenate(samples),
        np.concatenate([pulses.counts for pulses in chosen]),
        np.concatenate([pulses.sampling_intervals for pulses in chosen]),
        np.concatenate([pulses.durations for pulses in chosen]),
    )


def _one_per_shot(block: WaveformBlock) -> OutgoingPulses:
    """The recorded outgoing pulses, each once."""
    assert block.outgoing is not None
    is_first = np.diff(block.shot_times, prepend=np.nan) != 0.0
    chosen = np.flatnonzero(is_first & (block.outgoing.counts > 0))
    return take_rows(block.outgoing, chosen)


def _best_correction(
    ranges: NeighbourRanges,
) -> tuple[Literal["phase", "whole time"], float, float]:
    """Form, reference and scatter of the correction after which the ranges scatter least.

    The maximum of the mean pulse need not be the point from which the durations of the file count,
    so that the whole samples which they hold may change at another phase than half a sample.
    """
    time = ranges.time / ranges.interval
    scatters = [ranges.scatter(_correction(time, "phase", at)) for at in _REFERENCES.tolist()]
    reference, scatter = 0.0, scatters[int(np.argmin(np.abs(_REFERENCES)))]
    if min(scatters) < _MAX_SHARE_OF_PHASE * scatter:
        reference, scatter = float(_REFERENCES[np.argmin(scatters)]), min(scatters)
    middle = float(np.median(time))
    of_whole_time = ranges.scatter(_correction(time, "whole time", middle))
    if of_whole_time < _MAX_SHARE_OF_PHASE * scatter:
        return "whole time", middle, of_whole_time
    return "phase", reference, scatter


def _correction(time: FloatArray, form: str, reference: float) -> FloatArray:
    """Samples to subtract, for pulses at these times in samples."""
    after = time - reference
    return after - np.rint(after) if form == "phase" else after
