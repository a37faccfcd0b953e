"""One waveform as the methods see it: levels, segments, echoes, fitted and deconvolved signal."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from fullwaveform import _core
from fullwaveform.analysis.waveform_selection import ChosenShot
from fullwaveform.core.driver import Driver, Mode, Threshold, check_system_wave
from fullwaveform.core.messages import forward_messages
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.extraction.extractor import ExtractedBlock, ExtractionSettings, Extractor
from fullwaveform.extraction.waveform_table import WaveformState

_DECOMPOSED, _DECONVOLVED = (3, 4), 5  # types of echoes
_CURVE_STEP, _MOST_STEPS = 0.05, 40_000  # samples; longer records have wider steps
_HALF_BAR_HEIGHT = float(np.exp(-0.5))  # a Gaussian has this share of its top at one width


@dataclass(frozen=True, slots=True)
class MethodView:
    """What one method made of a waveform; positions in samples, heights in counts."""

    mode: Mode
    state: WaveformState
    positions: FloatArray  # (m,), samples, ascending
    amplitudes: FloatArray  # (m,), counts as the extraction gives them
    widths: FloatArray  # (m,), samples, standard deviations; 0 where the method measures none
    feet: FloatArray  # (m,), counts over which the amplitudes stand
    fitted: FloatArray  # (k, 2), position and height of the sum of Gaussians; (0, 2) without
    deconvolved: FloatArray  # (k, 2), the same of the deconvolved signal

    @property
    def tops(self) -> FloatArray:
        """(m,) heights of the echoes' maxima."""
        return self.feet + self.amplitudes

    @property
    def bar_heights(self) -> FloatArray:
        """(m,) heights at which the Gaussian is one standard deviation wide to either side."""
        return self.feet + self.amplitudes * _HALF_BAR_HEIGHT


@dataclass(frozen=True, slots=True)
class WaveformView:
    """A waveform, its threshold, and what the methods made of it."""

    number: int  # running number in the file
    channel_flag: int  # 1 low power, 0 the other
    gps_time: float  # s; NaN where it is not known
    interval: float  # s per sample
    samples: npt.NDArray[np.uint16]  # (n,), valid ones only
    threshold: int  # counts
    segments: npt.NDArray[np.int64]  # (s, 2), first and last sample of the stretches above it
    methods: tuple[MethodView, ...]


def waveform_views(
    shot: ChosenShot, scanner: Scanner, modes: Sequence[Mode], threshold: Threshold = "estimate"
) -> list[WaveformView]:
    """The meant waveforms of a shot, each seen by every mode; channels are merged as in a run.

    A Gaussian through three samples stands on 0, one of a decomposition on the threshold,
    which the decomposition subtracts first. Deconvolved signals lie where the echoes that stand on
    their maxima are reported, the offset of the scanner's description included.

    Parameters
    ----------
    scanner, threshold
        As for `ExtractionSettings`; the sampling interval is that of the waveforms.

    Raises
    ------
    ValueError
        A mode deconvolves and the scanner has no system wave for it.
    """
    for mode in modes:
        check_system_wave(mode, scanner)
    block = shot.block
    extractors = [Extractor(ExtractionSettings(scanner, mode, threshold)) for mode in modes]
    extracted = [extractor.extract(block) for extractor in extractors]
    views = []
    for row in shot.rows.tolist():
        samples = block.samples[row, : block.counts[row]]
        level, segments = _levels(block, row, scanner, threshold)
        views.append(
            WaveformView(
                number=int(block.waveform_numbers[row]),
                channel_flag=int(block.channel_flags[row]),
                gps_time=float(block.attributes.gps_time[row]),
                interval=float(block.sampling_intervals[row]),
                samples=samples,
                threshold=level,
                segments=segments,
                methods=tuple(
                    _method_view(extractor, found, block, row, level)
                    for extractor, found in zip(extractors, extracted, strict=True)
                ),
            )
        )
    return views


def _levels(
    block: WaveformBlock, row: int, scanner: Scanner, threshold: Threshold
) -> tuple[int, npt.NDArray[np.int64]]:
    """Threshold and the segments above it, which do not depend on the mode."""
    samples = np.ascontiguousarray(block.samples[row, : block.counts[row]])
    level = _core.estimate_noise(samples) if threshold == "estimate" else threshold
    scanner = scanner.at_interval(float(block.sampling_intervals[row]))
    found = Driver(Mode.THREE_POINT, scanner).apply(samples[np.newaxis], threshold=level).segments
    return level, np.column_stack([found["start"], found["end"]]).astype(np.int64)


def _method_view(
    extractor: Extractor, extracted: ExtractedBlock, block: WaveformBlock, row: int, threshold: int
) -> MethodView:
    echoes, mode = extracted.echoes, extractor.settings.mode
    mine = np.flatnonzero(echoes.waveform_number == block.waveform_numbers[row])
    mine = mine[np.argsort(echoes.position[mine], kind="stable")]
    types = echoes.echo_type[mine]
    positions, widths = echoes.position[mine], echoes.width_samples[mine]
    amplitudes = echoes.amplitude_counts[mine].astype(np.float64)
    state = WaveformState(int(extracted.waveforms.state[row]))
    feet = np.where(np.isin(types, _DECOMPOSED), float(threshold), 0.0)
    fits = types != _DECONVOLVED
    count = int(block.counts[row])
    fitted = fitted_sum(
        positions[fits], amplitudes[fits], widths[fits], float(feet.max(initial=0.0)), count
    )
    deconvolves = mode is Mode.DECONVOLUTION or (mode is Mode.HYBRID and bool(np.any(~fits)))
    if deconvolves and state is not WaveformState.TOO_LONG_TO_DECONVOLVE:
        signal = _deconvolved_signal(extractor, block, row)
    else:
        signal = np.empty((0, 2))
    return MethodView(mode, state, positions, amplitudes, widths, feet, fitted, signal)


def fitted_sum(
    positions: FloatArray, amplitudes: FloatArray, widths: FloatArray, foot: float, count: int
) -> FloatArray:
    """Sum of the Gaussians over a level, (k, 2): position in samples and height in counts.

    It is given at twentieths of a sample, wider steps in records of more than 2,000, and at the
    positions of the Gaussians themselves, from the first to the last of `count` samples. Without
    a Gaussian there are no values. Arguments (m,) in samples and counts; widths are standard
    deviations, above 0.
    """
    if not len(positions):
        return np.empty((0, 2))
    step = max(_CURVE_STEP, count / _MOST_STEPS)
    x = np.arange(0.0, count - 1.0 + step / 2, step)
    x = np.union1d(x, positions[(positions >= 0) & (positions <= count - 1)])
    height = np.full(len(x), foot)
    for position, amplitude, width in zip(positions, amplitudes, widths, strict=True):
        height += amplitude * np.exp(-0.5 * ((x - position) / width) ** 2)
    return np.column_stack([x, height])


def _deconvolved_signal(extractor: Extractor, block: WaveformBlock, row: int) -> FloatArray:
    """Position and height of the signal whose maxima are the echoes, (k, 2)."""
    settings = extractor.settings
    samples = np.ascontiguousarray(block.samples[row, : block.counts[row]])
    scanner = settings.scanner.at_interval(float(block.sampling_intervals[row]))
    threshold = -1 if settings.threshold == "estimate" else settings.threshold
    values, first, step = _core.deconvolved_signal(samples, scanner.device(), threshold)
    forward_messages()
    position = first + np.arange(len(values)) * step - _offset(settings)
    return np.column_stack([position, values])[np.isfinite(values)]


def _offset(settings: ExtractionSettings) -> float:
    """Samples by which deconvolved echoes are moved back, as the extraction does."""
    scanner = settings.scanner
    if settings.mode is Mode.HYBRID and scanner.deconvolution_offset_hybrid is not None:
        return scanner.deconvolution_offset_hybrid
    return scanner.deconvolution_offset
