"""Kinds of example waveforms, and how far a waveform is one of each kind."""

from __future__ import annotations

from dataclasses import dataclass
from enum import Enum

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.core.driver import Mode
from fullwaveform.data.arrays import FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import FWHM_PER_SIGMA
from fullwaveform.extraction.carry import half_width_of_system_wave
from fullwaveform.extraction.extractor import ExtractedBlock, Extractor
from fullwaveform.extraction.prepare import by_receiver
from fullwaveform.view.misfit import rms_of_residuals

_CLIPPED_RUN = 3  # samples at the digitiser limit, one after the other, of a saturated waveform


class ExampleKind(Enum):
    """A kind of example waveforms."""

    TYPICAL = "typical"
    WEAKEST = "weakest echoes"
    MOST = "most echoes"
    SATURATED = "saturated"
    WORST = "worst fit"


@dataclass(frozen=True, slots=True)
class ReceiverTop:
    """The waveforms of a receiver in a block that stay at its largest sample for a while."""

    receiver: tuple[int, int]  # channel flag and descriptor
    largest: int  # counts
    rows: IntArray  # (k,), ascending, of the block
    clipped: IntArray  # (k,), their samples at it


@dataclass(frozen=True, slots=True)
class BlockScores:
    """How far each waveform of a block is of each kind but the saturated; NaN: not at all.

    Larger values are better examples.
    """

    scores: dict[ExampleKind, FloatArray]  # (n,) each
    tops: tuple[ReceiverTop, ...]


def block_scores(
    extractor: Extractor, block: WaveformBlock, extracted: ExtractedBlock
) -> BlockScores:
    """The scores of a block.

    - typical: a random number of the waveform, which depends on its number only
    - weakest echoes: amplitude of the weakest echo over the noise rms of the receiver, negative
    - most echoes: their number
    - worst fit: `misfits`
    """
    echoes = extracted.waveforms["echo_count"]
    has_echoes = echoes > 0
    rows = np.searchsorted(block.waveform_numbers, extracted.echoes["waveform_number"])
    noise = _noise_rms(extractor, block)
    weakest = np.full(len(block), np.inf)
    np.minimum.at(weakest, rows, extracted.echoes["amplitude"].astype(np.float64) / noise[rows])
    return BlockScores(
        {
            ExampleKind.TYPICAL: np.where(has_echoes, _random(block.waveform_numbers), np.nan),
            ExampleKind.WEAKEST: np.where(np.isfinite(weakest), -weakest, np.nan),
            ExampleKind.MOST: np.where(has_echoes, echoes, np.nan),
            ExampleKind.WORST: misfits(extractor, block, extracted, rows, noise),
        },
        tuple(_receiver_tops(block, extractor.settings.calibration)),
    )


def misfits(
    extractor: Extractor,
    block: WaveformBlock,
    extracted: ExtractedBlock,
    rows: IntArray,
    noise: FloatArray,
) -> FloatArray:
    """How badly the echoes explain the samples of each waveform (n,); NaN without echoes.

    Of the pulse fit its reduced chi square; of the other modes the rms of the residuals near the
    echoes over the noise rms. The curve of the three-point fit is the highest of its Gaussians,
    which do not add up. Deconvolved echoes count as Gaussians of the width of the system wave.

    rows : (m,), of the echoes in the block
    noise : (n,), noise rms of the receivers, counts
    """
    if extractor.settings.mode is Mode.PULSE_FIT:
        with_echoes = extracted.waveforms["echo_count"] > 0
        chi_square = extracted.waveforms["reduced_chi_square"]
        return np.where(with_echoes & np.isfinite(chi_square), chi_square, np.nan)
    echoes = extracted.echoes
    widths = echoes["sigma_samples"].astype(np.float64)
    unknown = ~np.isfinite(widths)
    if unknown.any():
        widths = np.where(unknown, _widths_of_system_wave(extractor, block)[rows], widths)
    baseline = extractor.baselines(block, np.arange(len(block)))
    rms = rms_of_residuals(
        block.samples,
        block.counts,
        baseline,
        (rows, echoes["position"], widths, echoes["amplitude"].astype(np.float64)),
        adds_up=extractor.settings.mode is not Mode.THREE_POINT,
    )
    return np.asarray(rms / noise)


def _widths_of_system_wave(extractor: Extractor, block: WaveformBlock) -> FloatArray:
    """Standard deviation (n,) of the Gaussian as wide as the system wave, samples."""
    widths = np.full(len(block), np.nan)
    for interval in np.unique(block.sampling_intervals).tolist():
        half_width = half_width_of_system_wave(extractor.settings.scanner, interval)
        sigma = 2.0 * half_width / FWHM_PER_SIGMA / interval
        widths[block.sampling_intervals == interval] = sigma
    return widths


def _noise_rms(extractor: Extractor, block: WaveformBlock) -> FloatArray:
    """Noise rms (n,) of the receivers of the waveforms; 1 where nothing was measured."""
    noise = np.ones(len(block))
    for level, chosen in by_receiver(block, extractor.settings.calibration):
        noise[chosen] = level.effective_rms
    return noise


def _random(numbers: IntArray) -> FloatArray:
    """Equally distributed numbers from 0 to 1, each from one whole number (SplitMix64)."""
    mixed = numbers.astype(np.uint64) + np.uint64(0x9E3779B97F4A7C15)
    for shift, factor in ((30, 0xBF58476D1CE4E5B9), (27, 0x94D049BB133111EB)):
        mixed = (mixed ^ (mixed >> np.uint64(shift))) * np.uint64(factor)
    mixed ^= mixed >> np.uint64(31)
    return (mixed >> np.uint64(11)).astype(np.float64) * 2.0**-53


def _receiver_tops(block: WaveformBlock, calibration: Calibration) -> list[ReceiverTop]:
    """The largest sample of each receiver, and its waveforms that stay at it above the noise."""
    largest = block.samples.max(axis=1, initial=0)
    receivers = np.column_stack([block.channel_flags, block.descriptors])
    tops = []
    for receiver in np.unique(receivers, axis=0).tolist():
        alike = (receivers == receiver).all(axis=1)
        top = int(largest[alike].max())
        rows = np.flatnonzero(alike & (largest == top))
        at_top = block.samples[rows] == top
        run = at_top[:, _CLIPPED_RUN - 1 :].copy()
        for step in range(1, _CLIPPED_RUN):
            run &= at_top[:, _CLIPPED_RUN - 1 - step : at_top.shape[1] - step]
        level = calibration.levels_of(*receiver)
        has_signal = top > (0 if level is None else level.threshold)
        flat = run.any(axis=1) & has_signal
        clipped = np.count_nonzero(at_top[flat], axis=1)
        tops.append(ReceiverTop((receiver[0], receiver[1]), top, rows[flat], clipped))
    return tops
