"""The pulse model of each receiver of a file, from its own waveforms."""

from __future__ import annotations

import math
from collections import Counter
from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np

from fullwaveform.calibration.aligned_pulses import AlignedPulses, align
from fullwaveform.calibration.isolated import NOT_ISOLATED, EchoWindow, Waveforms, echo_windows
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.calibration.outgoing_phase import recorded_pulses
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.calibration.pulses import (
    FLAT_TOP,
    Pulses,
    baseline_of,
    pulses_of_rows,
    screened,
)
from fullwaveform.calibration.quiet_samples import (
    Noise,
    QuietMargins,
    leading_level,
    measure_noise,
    quiet_stretches,
)
from fullwaveform.calibration.widened_pulse import WidenedPulse
from fullwaveform.core.pulse_fit import PulseModel
from fullwaveform.core.pulse_models import PulseOrigin, ReceiverModel, at_interval
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import BoolArray, FloatArray
from fullwaveform.data.blocks import WaveformBlock

MIN_ECHOES = 100
MIN_FWHM = 2.0  # samples
MAX_SCATTER = 0.02

_STEPS = 16  # values of the pulse per sample
# Samples around an echo, in which the ringing ends; of broad pulses so many widths.
_BEFORE, _AFTER = 24, 40
_WIDTHS_BEFORE, _WIDTHS_AFTER = 3.0, 6.0
_MAX_SAMPLES_AROUND = 200
_MIN_SIGNAL = 20.0  # noise rms; weaker echoes show little of the pulse
_MIN_HEIGHT = 8.0  # counts
_RISE = 5  # samples from quiet ones to the threshold
_CORE = 0.1  # share of the maximum; samples of the pulse above it make up the matched filter
# The pulse ends where it stays below this share of its maximum, or below its own noise.
_NEGLIGIBLE = (2e-4, 5e-3)
_NOISE_OF_CURVE = 8.0  # standard deviations of the mean of the samples around a knot
_QUIET_GAP = 6  # samples; ringing crosses 0 in shorter intervals
# The mode of the distribution of widths is known less well than its spread tells.
_SPREAD_FACTOR = 1.5
_RMS_OF_GAUSSIAN = 0.42466  # standard deviation over full width at half maximum
_RMS_PER_MEDIAN_DISTANCE = 1.4826  # of a normal distribution
_EDGE = 2 * _STEPS  # values at the ends of a curve, through too few samples
_OTHER_WAY = "use --mode decomposition (mode 1), which needs no pulse model"


@dataclass(frozen=True)
class MeasuredPulse:
    """A receiver and the pulses of which its model was made, also for a plot."""

    entry: ReceiverModel
    pulses: AlignedPulses
    interval: float  # s, of the pulses


@dataclass(frozen=True)
class _Source:
    """Pulses of which the model of a receiver is made."""

    origin: PulseOrigin
    pulses: AlignedPulses
    interval: float  # s


@dataclass(frozen=True)
class _Receiver:
    level: ChannelLevels
    waveforms: Waveforms  # of its most frequent sampling interval


def measure_pulse_models(
    blocks: Sequence[WaveformBlock],
    levels: Sequence[ChannelLevels],
    origin: str,
    choice: PulseChoice = "auto",
) -> tuple[MeasuredPulse, ...]:
    """The pulse model of each receiver, by channel flag and descriptor.

    A receiver with too few isolated echoes gets the pulse of the one that has most, with its own
    baseline and noise.

    Parameters
    ----------
    blocks : waveforms that are spread over a file
    levels : of the same blocks
    origin : name of the file, for messages
    choice : pulses to use

    Raises
    ------
    ValueError
        With fewer than 100 isolated echoes, a pulse of fewer than 2 samples at half maximum, or one
        that scatters by more than 2 %; the message proposes the decomposition.
    """
    receivers = [_receiver(blocks, level) for level in levels]
    if not receivers:
        raise ValueError(f"{origin}: no waveforms for a pulse model; {_OTHER_WAY}")
    found = [_isolated(receiver, origin) for receiver in receivers]
    outgoing = None
    if choice == "outgoing" or (choice == "auto" and max(map(len, found)) < MIN_ECHOES):
        outgoing = _outgoing(blocks, origin)
        if outgoing is None and choice == "outgoing":
            raise ValueError(
                f"{origin} has too few usable outgoing pulses for a pulse model; use --pulse "
                "returned"
            )
    if outgoing is not None:
        return _all_with(receivers, outgoing)
    if max(map(len, found)) < MIN_ECHOES:
        raise ValueError(
            f"{origin}: {max(map(len, found))} isolated echoes for a pulse model; {MIN_ECHOES} "
            f"needed; {_OTHER_WAY}"
        )
    return _each_with_its_own(receivers, found, origin)


def _each_with_its_own(
    receivers: Sequence[_Receiver], found: Sequence[Pulses], origin: str
) -> tuple[MeasuredPulse, ...]:
    sources = [
        _returned(receiver, pulses, origin) if len(pulses) >= MIN_ECHOES else None
        for receiver, pulses in zip(receivers, found, strict=True)
    ]
    faults = [source and _fault(source.pulses) for source in sources]
    usable = [None if fault else source for source, fault in zip(sources, faults, strict=True)]
    if not any(usable):
        raise ValueError(f"{origin}: {next(filter(None, faults))}; {_OTHER_WAY}")
    return tuple(
        _measured(receiver, own or _of_similar(receiver, receivers, usable))
        for receiver, own in zip(receivers, usable, strict=True)
    )


def _returned(receiver: _Receiver, pulses: Pulses, origin: str) -> _Source:
    """The pulse of isolated echoes; of a broad one more of the tail, if enough echoes have it."""
    noise = receiver.level.effective_rms
    aligned = align(pulses, noise)
    fwhm = aligned.pulse.curve.fwhm()
    if _WIDTHS_AFTER * fwhm > _AFTER:
        longer = _isolated(receiver, origin, fwhm)
        if len(longer) >= MIN_ECHOES:
            aligned = align(longer, noise)
    return _Source("returned", aligned, pulses.sampling_interval)


def _of_similar(
    receiver: _Receiver, receivers: Sequence[_Receiver], usable: Sequence[_Source | None]
) -> _Source:
    """The source with the most pulses, if possible of the same channel flag."""
    flag = receiver.level.channel_flag
    pairs = [(other, source) for other, source in zip(receivers, usable, strict=True) if source]
    alike = [source for other, source in pairs if other.level.channel_flag == flag]
    return max(alike or [source for _, source in pairs], key=lambda source: len(source.pulses))


def _all_with(receivers: Sequence[_Receiver], source: _Source) -> tuple[MeasuredPulse, ...]:
    return tuple(_measured(receiver, source) for receiver in receivers)


def _outgoing(blocks: Sequence[WaveformBlock], origin: str) -> _Source | None:
    """The outgoing pulses, as the shape of the echoes of large footprints; None if too few."""
    if any(block.outgoing is None for block in blocks):
        return None
    recorded = recorded_pulses(blocks)
    if recorded is None or len(recorded) < MIN_ECHOES:
        return None
    interval = float(recorded.sampling_intervals[0])
    pulses = screened(
        pulses_of_rows(recorded.samples, recorded.counts, interval, f"outgoing pulses of {origin}"),
        len(recorded),
    )
    if len(pulses) < MIN_ECHOES:
        return None
    rest = pulses.values - baseline_of(pulses.values)[:, np.newaxis]
    noise = _RMS_PER_MEDIAN_DISTANCE * float(np.nanmedian(np.abs(rest)))
    return _Source("outgoing", align(pulses, noise), interval)


def _receiver(blocks: Sequence[WaveformBlock], level: ChannelLevels) -> _Receiver:
    chosen = [
        (block, np.flatnonzero(_is_of(block, level) & (block.counts > 0))) for block in blocks
    ]
    intervals = np.concatenate([block.sampling_intervals[rows] for block, rows in chosen])
    values, counts = np.unique(intervals, return_counts=True)
    interval = float(values[np.argmax(counts)])
    width = max(block.samples.shape[1] for block in blocks)
    samples, lengths = [], []
    for block, rows in chosen:
        same = rows[block.sampling_intervals[rows] == interval]
        samples.append(np.pad(block.samples[same], ((0, 0), (0, width - block.samples.shape[1]))))
        lengths.append(block.counts[same])
    counts_of_all = np.concatenate(lengths)
    thresholds = np.full(len(counts_of_all), level.threshold)
    return _Receiver(level, Waveforms(np.concatenate(samples), counts_of_all, interval, thresholds))


def _is_of(block: WaveformBlock, level: ChannelLevels) -> BoolArray:
    return np.asarray(
        (block.channel_flags == level.channel_flag) & (block.descriptors == level.descriptor)
    )


def _isolated(receiver: _Receiver, origin: str, fwhm: float = 0.0) -> Pulses:
    """Strong isolated echoes without clipped samples; `fwhm` in samples, if it is known."""
    waveforms = receiver.waveforms
    after = min(max(_AFTER, math.ceil(_WIDTHS_AFTER * fwhm)), _MAX_SAMPLES_AROUND)
    window = EchoWindow(
        before=min(max(_BEFORE, math.ceil(_WIDTHS_BEFORE * fwhm)), _MAX_SAMPLES_AROUND),
        after=after,
        clearance=float(after),
        min_height=max(_MIN_SIGNAL * receiver.level.effective_rms, _MIN_HEIGHT),
    )
    windows, _, crowded = echo_windows(waveforms, Scanner.default(), None, window)
    largest = int(waveforms.samples.max(initial=0))
    # An echo that reaches the largest value of all may be clipped there.
    below = ~(windows >= largest).any(axis=1)
    rejected = Counter({NOT_ISOLATED: crowded, FLAT_TOP: int(np.count_nonzero(~below))})
    return Pulses(windows[below], waveforms.sampling_interval, origin, +rejected)


def _fault(pulses: AlignedPulses) -> str:
    """Why a pulse fit with these pulses would not be valid; empty if it would."""
    fwhm = pulses.pulse.curve.fwhm()
    if len(pulses) < MIN_ECHOES:
        return (
            f"{len(pulses)} usable isolated echoes for a pulse model, at least {MIN_ECHOES} needed"
        )
    if not fwhm >= MIN_FWHM:
        return (
            f"the pulse is {fwhm:.2f} samples wide at half maximum; a pulse fit needs {MIN_FWHM:g}"
        )
    if not pulses.scatter <= MAX_SCATTER:
        return (
            f"echoes differ from the mean pulse by {pulses.scatter:.1%} rms; a pulse fit allows "
            f"{MAX_SCATTER:.0%}"
        )
    return ""


def _measured(receiver: _Receiver, source: _Source) -> MeasuredPulse:
    """The model of a receiver with a pulse."""
    model = at_interval(_model(receiver, source), receiver.waveforms.sampling_interval)
    level, count = receiver.level, len(source.pulses)
    entry = ReceiverModel(level.channel_flag, level.descriptor, source.origin, count, model)
    return MeasuredPulse(entry, source.pulses, source.interval)


def _model(receiver: _Receiver, source: _Source) -> PulseModel:
    pulses = source.pulses
    curve = pulses.pulse.curve
    lag = _extent(pulses)
    # The matched filter has the samples of the receiver.
    step = receiver.waveforms.sampling_interval / source.interval
    core = curve(step * np.arange(np.ceil(lag[0] / step), np.floor(lag[-1] / step) + 1.0))
    noise = _noise(receiver, core[core > _CORE], float(lag[-1]) / step)
    baseline, spread = _baseline(receiver)
    widening = pulses.widths.widening
    if source.origin == "outgoing":
        widening = (_RMS_OF_GAUSSIAN * curve.fwhm()) ** 2
    return PulseModel(
        pulse=tuple(_smooth(pulses.pulse, lag).tolist()),
        first_lag=float(lag[0]),
        lag_step=1.0 / _STEPS,
        baseline=baseline,
        baseline_spread=spread,
        noise_rms=noise.rms,
        noise_correlation=noise.correlation,
        scatter=pulses.scatter,
        variance_spread=_SPREAD_FACTOR * pulses.widths.spread,
        widening=widening,
        sampling_interval=source.interval,
    )


def _smooth(pulse: WidenedPulse, lag: FloatArray) -> FloatArray:
    """The pulse without the noise of its spline, which narrowing in the fit would amplify."""
    value = pulse.at(lag[np.newaxis, :], np.zeros(1))[0][0]
    return np.asarray(value / value.max())


def _baseline(receiver: _Receiver) -> tuple[float, float]:
    """Level before the echoes and its spread; that of all quiet samples if these are too few.

    After an echo the level of a receiver may differ for longer than the pulse.
    """
    waveforms, level = receiver.waveforms, receiver.level
    leading = leading_level(waveforms.samples, waveforms.counts, level.threshold, _RISE)
    return leading or (level.baseline, level.baseline_spread)


def _noise(receiver: _Receiver, core: FloatArray, last_lag: float) -> Noise:
    waveforms, level = receiver.waveforms, receiver.level
    margins = QuietMargins(_RISE, after=max(_AFTER, math.ceil(last_lag)))
    stretches = quiet_stretches(waveforms.samples, waveforms.counts, level.threshold, margins)
    if len(stretches) == 0:
        return Noise(level.effective_rms, 1.0)
    return measure_noise(stretches, core)


def _extent(pulses: AlignedPulses) -> FloatArray:
    """Lags of the pulse, from its maximum up to where it stays negligible for some samples."""
    curve = pulses.pulse.curve
    lag = curve.grid(_STEPS)
    noise = float(np.median(np.nanstd(pulses.residuals(), axis=1)))
    of_curve = noise / float(np.sqrt(0.5 * (pulses.alignment.amplitude**2).sum()))
    matters = np.abs(curve(lag)) > np.clip(_NOISE_OF_CURVE * of_curve, *_NEGLIGIBLE)
    matters[:_EDGE] = matters[-_EDGE:] = False
    top = int(np.argmin(np.abs(lag)))
    first, last = top - _length(matters[top::-1]), top + _length(matters[top:])
    return lag[max(first, 0) : last + 1]


def _length(matters: BoolArray) -> int:
    """Values up to the first long gap, and one sample more."""
    places = np.flatnonzero(np.append(matters, False))
    gaps = np.flatnonzero(np.diff(places) > _QUIET_GAP * _STEPS)
    return int(places[gaps[0]] if len(gaps) else places[-1]) + _STEPS
