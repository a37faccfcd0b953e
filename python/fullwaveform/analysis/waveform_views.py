"""One waveform with its threshold and segments, and the echoes and signals of the methods."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace

import numpy as np
import numpy.typing as npt

from fullwaveform.analysis.waveform_selection import SelectedShot
from fullwaveform.core.constants import EchoType
from fullwaveform.core.driver import MODE_NAMES, Driver, Mode, check_system_wave
from fullwaveform.core.pulse_fit import PulseFit
from fullwaveform.core.signal import deconvolved_signal, estimated_threshold
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import FWHM_PER_SIGMA, EchoTable
from fullwaveform.extraction.extractor import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.extraction.prepare import prepare
from fullwaveform.extraction.waveform_table import WaveformState

_PICOSECONDS = 1e12
_NANOSECONDS = 1e9
_CURVE_STEP = 0.05  # samples
_MAX_CURVE_POINTS = 40_000  # of long waveforms; their steps are wider
GAUSSIAN_REACH = 4.0  # standard deviations from an echo to which its curve is drawn
_ZERO_BEYOND = 40.0  # standard deviations, where a Gaussian is below the smallest number
_HEIGHT_AT_ONE_WIDTH = float(np.exp(-0.5))  # of a Gaussian, share of its maximum


@dataclass(frozen=True, slots=True)
class MethodView:
    """Echoes and signals of one method; positions in samples, heights in counts."""

    mode: Mode
    state: WaveformState
    positions: FloatArray  # (m,), samples, ascending
    amplitudes: FloatArray  # (m,), counts, as in the tables of echoes
    widths: FloatArray  # (m,), samples, standard deviations; NaN for deconvolved echoes
    foot: float  # counts, the baseline, from which the amplitudes count
    # (k, 2), position and height of the Gaussians or the sum of the echoes; (0, 2) if none
    fitted: FloatArray
    deconvolved: FloatArray  # (k, 2), position and height of the deconvolved signal
    # (n, 2), position of each sample and its height above the sum, NaN where no echo is near;
    # (0, 2) without a sum
    residuals: FloatArray
    # (m, 3), standard deviations by the noise of position (samples), amplitude (counts) and width
    # (samples); NaN where unknown
    uncertainties: FloatArray

    @property
    def name(self) -> str:
        """Name of the mode."""
        return MODE_NAMES[self.mode]

    @property
    def fits_a_sum(self) -> bool:
        """Whether the Gaussians add up to the samples; the three-point fit treats each alone."""
        return self.mode is not Mode.THREE_POINT

    @property
    def fitted_near_echoes(self) -> FloatArray:
        """The fitted sum with heights of NaN where no echo is near."""
        curve = self.fitted.copy()
        curve[~_near(self.positions, self.widths, curve[:, 0]), 1] = np.nan
        return curve

    @property
    def note(self) -> str:
        """Why there are no echoes; empty if there are."""
        return "" if self.state is WaveformState.WITH_ECHOES else self.state.phrase

    @property
    def tops(self) -> FloatArray:
        """(m,) counts of the echoes' maxima."""
        return self.foot + self.amplitudes

    @property
    def bar_heights(self) -> FloatArray:
        """(m,) heights at one standard deviation from the maximum."""
        return self.foot + self.amplitudes * _HEIGHT_AT_ONE_WIDTH


@dataclass(frozen=True, slots=True)
class WaveformView:
    """A waveform, its threshold, and the results of the methods."""

    number: int  # in the file
    channel_flag: int  # 1 low power, 0 high power
    gps_time: float  # s; NaN if unknown
    interval: float  # s per sample
    samples: npt.NDArray[np.uint16]  # (n,), counts
    threshold: int  # counts
    segments: npt.NDArray[np.int64]  # (s, 2), first and last sample
    returns: FloatArray  # (r,), samples, ascending: discrete returns that the scanner listed
    smoothing: float  # s, standard deviation, before the methods other than the pulse fit; 0: none
    methods: tuple[MethodView, ...]
    beam: str  # name; empty if the file has no beams


def waveform_views(
    shot: SelectedShot, settings: ExtractionSettings, modes: Sequence[Mode]
) -> list[WaveformView]:
    """The selected waveforms of a shot with the results of every mode.

    Echoes are merged between the channels as in an extraction. The position offset
    of the scanner description is subtracted from deconvolved signals as from deconvolved echoes.

    Parameters
    ----------
    settings
        Of the extraction, except its mode; the sampling interval is that of the waveforms.

    Raises
    ------
    ValueError
        A mode deconvolves and the scanner has no system wave.
    """
    for mode in modes:
        check_system_wave(mode, settings.scanner)
    block = shot.block
    extractors = [Extractor(replace(settings, mode=mode)) for mode in modes]
    extracted = [extractor.extract(block) for extractor in extractors]
    # A pulse fit has no threshold; that of the other modes shows what it finds below.
    levels_of = replace(settings, mode=Mode.THREE_POINT)
    views = []
    for row in shot.rows.tolist():
        samples = block.samples[row, : block.counts[row]]
        level, segments = _levels(levels_of, block, row)
        views.append(
            WaveformView(
                number=int(block.waveform_numbers[row]),
                channel_flag=int(block.channel_flags[row]),
                gps_time=float(block.attributes.gps_time[row]),
                interval=float(block.sampling_intervals[row]),
                samples=samples,
                threshold=level,
                segments=segments,
                returns=_returns(block, row),
                smoothing=max(one.settings.preparation.smoothing_of(block) for one in extractors),
                methods=tuple(
                    _method_view(extractor, found, block, row)
                    for extractor, found in zip(extractors, extracted, strict=True)
                ),
                beam="" if block.beams is None else str(block.beams[row]),
            )
        )
    return views


def _returns(block: WaveformBlock, row: int) -> FloatArray:
    """Positions of the discrete returns in the waveform; empty if the format has none."""
    if block.returns is None:
        return np.empty(0)
    picoseconds = block.returns.of_rows(np.array([row])).times
    positions: FloatArray = picoseconds / (float(block.sampling_intervals[row]) * _PICOSECONDS)
    return positions


def _levels(
    settings: ExtractionSettings, block: WaveformBlock, row: int
) -> tuple[int, npt.NDArray[np.int64]]:
    """Threshold and the segments above it, which do not depend on the mode."""
    samples = block.samples[row, : block.counts[row]]
    level = prepare(block, settings.preparation).input_threshold(row)
    level = estimated_threshold(samples) if level is None else level
    scanner = settings.scanner.at_interval(float(block.sampling_intervals[row]))
    found = Driver(Mode.THREE_POINT, scanner).apply(samples[np.newaxis], threshold=level).segments
    return level, np.column_stack([found["start"], found["end"]]).astype(np.int64)


def _method_view(
    extractor: Extractor, extracted: ExtractedBlock, block: WaveformBlock, row: int
) -> MethodView:
    echoes, mode = extracted.echoes, extractor.settings.mode
    chosen = np.flatnonzero(echoes.waveform_number == block.waveform_numbers[row])
    chosen = chosen[np.argsort(echoes.position[chosen], kind="stable")]
    types = echoes.echo_type[chosen]
    positions, widths = echoes.position[chosen], echoes.sigma_samples[chosen]
    amplitudes = echoes.amplitude[chosen].astype(np.float64)
    uncertainties = _uncertainties(echoes, chosen, float(block.sampling_intervals[row]))
    state = WaveformState(int(extracted.waveforms.state[row]))
    count = int(block.counts[row])
    fitted = signal = residuals = np.empty((0, 2))
    if mode is Mode.PULSE_FIT:
        foot = float(np.nan_to_num(extracted.waveforms.baseline[row]))
        fitted, residuals = _fitted_pulses(
            extractor.settings, block, row, (positions, amplitudes, FWHM_PER_SIGMA * widths), foot
        )
    else:
        foot = float(extractor.baselines(block, np.array([row]))[0])
        fits = types != EchoType.RICHARDSON_LUCY
        curve = single_gaussians if mode is Mode.THREE_POINT else fitted_sum
        fitted = curve(positions[fits], amplitudes[fits], widths[fits], foot, count)
        deconvolves = mode is Mode.DECONVOLUTION or (mode is Mode.HYBRID and bool(np.any(~fits)))
        if deconvolves and state is not WaveformState.TOO_LONG_TO_DECONVOLVE:
            signal = _reported_signal(extractor.settings, block, row)
        if mode is Mode.DECOMPOSITION and len(positions):
            at = np.arange(count, dtype=np.float64)
            rest = block.samples[row, :count] - _sum_of_gaussians(
                positions, amplitudes, widths, foot, at
            )
            residuals = np.column_stack([at, np.where(_near(positions, widths, at), rest, np.nan)])
    return MethodView(
        mode,
        state,
        positions,
        amplitudes,
        widths,
        foot,
        fitted,
        signal,
        residuals,
        uncertainties,
    )


def _uncertainties(echoes: EchoTable, chosen: IntArray, interval: float) -> FloatArray:
    per_sample = interval * _NANOSECONDS
    return np.column_stack(
        [
            echoes.sigma_position_ns[chosen] / per_sample,
            echoes.sigma_amplitude[chosen],
            echoes.sigma_width_ns[chosen] / per_sample / FWHM_PER_SIGMA,
        ]
    ).astype(np.float64)


def _fitted_pulses(
    settings: ExtractionSettings,
    block: WaveformBlock,
    row: int,
    echoes: tuple[FloatArray, FloatArray, FloatArray],
    foot: float,
) -> tuple[FloatArray, FloatArray]:
    """The sum of echoes (position, amplitude, full width), and residuals; (0, 2) without any."""
    if not len(echoes[0]):
        return np.empty((0, 2)), np.empty((0, 2))
    flag, descriptor = int(block.channel_flags[row]), int(block.descriptors[row])
    model = settings.calibration.pulse_model_of(flag, descriptor)
    fit = PulseFit(model, settings.pulse_fit.settings(model, None))
    samples = block.samples[row, : block.counts[row]]
    x = np.union1d(_curve_positions(len(samples)), echoes[0])
    at = np.arange(len(samples), dtype=np.float64)
    return (
        np.column_stack([x, foot + fit.pulses(*echoes, x)]),
        np.column_stack([at, samples - foot - fit.pulses(*echoes, at)]),
    )


def fitted_sum(
    positions: FloatArray, amplitudes: FloatArray, widths: FloatArray, foot: float, count: int
) -> FloatArray:
    """Sum of Gaussians on a level, (k, 2): position in samples and height in counts.

    Evaluated from the first to the last of `count` samples, in steps of a twentieth of a sample
    (wider in waveforms of more than 2,000 samples) and at the maxima. Empty without Gaussians.
    Arguments (m,) in samples and counts; widths are standard deviations, above 0.
    """
    if not len(positions):
        return np.empty((0, 2))
    x = _curve_positions(count)
    x = np.union1d(x, positions[(positions >= 0) & (positions <= count - 1)])
    return np.column_stack([x, _sum_of_gaussians(positions, amplitudes, widths, foot, x)])


def _sum_of_gaussians(
    positions: FloatArray, amplitudes: FloatArray, widths: FloatArray, foot: float, at: FloatArray
) -> FloatArray:
    height = np.full(len(at), foot)
    first = np.searchsorted(at, positions - _ZERO_BEYOND * np.abs(widths))
    end = np.searchsorted(at, positions + _ZERO_BEYOND * np.abs(widths), side="right")
    columns = zip(positions, amplitudes, widths, first, end, strict=True)
    for position, amplitude, width, start, stop in columns:
        distance = (at[start:stop] - position) / width
        height[start:stop] += amplitude * np.exp(-0.5 * distance**2)
    return height


def _near(positions: FloatArray, widths: FloatArray, at: FloatArray) -> npt.NDArray[np.bool_]:
    """Which places (k,), ascending, are within the reach of an echo."""
    near = np.zeros(len(at), dtype=np.bool_)
    first = np.searchsorted(at, positions - GAUSSIAN_REACH * widths)
    end = np.searchsorted(at, positions + GAUSSIAN_REACH * widths, side="right")
    for start, stop in zip(first, end, strict=True):
        near[start:stop] = True
    return near


def single_gaussians(
    positions: FloatArray, amplitudes: FloatArray, widths: FloatArray, foot: float, count: int
) -> FloatArray:
    """Gaussians one after the other, (k, 2), with a row of height NaN after each.

    Arguments as for `fitted_sum`. The three-point fit treats every echo alone, so where echoes
    overlap the sum of its Gaussians exceeds the samples. Each curve reaches four standard
    deviations to either side.
    """
    x = _curve_positions(count)
    curves = [np.empty((0, 2))]
    for position, amplitude, width in zip(positions, amplitudes, widths, strict=True):
        first, last = position - GAUSSIAN_REACH * width, position + GAUSSIAN_REACH * width
        near = x[np.searchsorted(x, first) : np.searchsorted(x, last, side="right")]
        near = np.union1d(near, [position])
        height = foot + amplitude * np.exp(-0.5 * ((near - position) / width) ** 2)
        curves += [np.column_stack([near, height]), np.array([[near[-1], np.nan]])]
    return np.concatenate(curves)


def _curve_positions(count: int) -> FloatArray:
    step = max(_CURVE_STEP, count / _MAX_CURVE_POINTS)
    return np.arange(0.0, count - 1.0 + step / 2, step)


def _reported_signal(settings: ExtractionSettings, block: WaveformBlock, row: int) -> FloatArray:
    """The deconvolved signal at the positions at which its echoes are reported, (k, 2)."""
    prepared = prepare(block, settings.preparation)
    samples = prepared.block.samples[row, : block.counts[row]]
    scanner = settings.scanner.at_interval(float(block.sampling_intervals[row]))
    threshold = int(prepared.thresholds[row])
    signal = deconvolved_signal(samples, scanner, "estimate" if threshold < 0 else threshold)
    signal[:, 1] /= prepared.scale[row]
    signal[:, 0] -= settings.position_offset
    return signal
