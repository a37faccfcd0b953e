"""Tables of a file: its pulse, its isolated echoes, and sums of two of them."""

from __future__ import annotations

from dataclasses import dataclass, replace
from functools import partial
from pathlib import Path

import numpy as np

import fullwaveform as fw
from accuracy.measures import TOLERANCE, found_as_two
from accuracy.methods import (
    DECONVOLVING,
    PULSE_FIT,
    Found,
    Ints,
    Samples,
    find_with_mode,
    find_with_model,
    scanner_of,
)
from accuracy.plan import Plan, Row, Task
from accuracy.pulses import Floats, Pulse
from accuracy.scenes import INTERVAL, generator
from fullwaveform.calibration.levels import measure_levels
from fullwaveform.calibration.pulse_model import measure_pulse_models
from fullwaveform.core.pulse_fit import PulseFitSettings, PulseModel
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import BoolArray
from fullwaveform.io.base import WaveformReader

SEPARATIONS = (0.5, 0.6, 0.75, 1.0, 1.5, 2.0)  # FWHM
_MIN_SIGNAL = 30.0  # noise rms
_SECOND_MAXIMUM = 0.12  # of the maximum; a larger one is another echo, and no ringing
_BEFORE, _AFTER = 8, 32  # samples around an isolated echo, within its waveform
_DARK = 5.0  # noise rms; higher samples farther away are light of another echo
_PHASE = 0.05  # samples by which a separation may differ from the one that is wanted


@dataclass(frozen=True)
class Singles:
    """Isolated echoes of a file."""

    samples: Samples  # (n, width)
    model: PulseModel
    pulse: Pulse
    limit: int  # counts, of the digitiser


def isolated_echoes(path: Path) -> Singles:
    """The isolated, unclipped echoes of the receiver with most waveforms.

    They are chosen by their samples: one strong maximum, no other one above an eighth of it, and no
    light before the pulse and after its ringing.

    Raises ValueError if the file has no usable pulse.
    """
    with fw.open(path) as reader:
        model, chosen = _model_and_receiver(reader, path.name)
        parts = [
            block.samples[
                (block.channel_flags == chosen[0])
                & (block.descriptors == chosen[1])
                & (block.counts == chosen[2]),
                : chosen[2],
            ]
            for block in reader.blocks()
        ]
    samples = np.concatenate(parts)
    limit = int(samples.max())
    values = np.asarray(model.pulse)
    pulse = Pulse.of_values(path.name, values, model.first_lag, model.lag_step)
    return Singles(samples[_is_isolated(samples, model, limit)], model, pulse, limit)


def _model_and_receiver(
    reader: WaveformReader, name: str
) -> tuple[PulseModel, tuple[int, int, int]]:
    """The pulse model of the receiver with most waveforms; its flag, descriptor and samples."""
    blocks = list(reader.spread_blocks())
    receivers = np.concatenate(
        [np.column_stack([b.channel_flags, b.descriptors, b.counts]) for b in blocks]
    )
    kinds, number = np.unique(receivers, axis=0, return_counts=True)
    flag, descriptor, count = (int(value) for value in kinds[np.argmax(number)])
    entries = [one.entry for one in measure_pulse_models(blocks, measure_levels(blocks), name)]
    (model,) = (
        entry.model
        for entry in entries
        if (entry.channel_flag, entry.descriptor) == (flag, descriptor)
    )
    return model, (flag, descriptor, count)


def _is_isolated(samples: Samples, model: PulseModel, limit: int) -> BoolArray:
    values = samples.astype(np.float64) - model.baseline
    top = np.argmax(values, axis=1)
    height = values[np.arange(len(values)), top]
    inner = values[:, 1:-1]
    is_maximum = (inner > values[:, :-2]) & (inner >= values[:, 2:])
    is_maximum &= inner > _SECOND_MAXIMUM * height[:, np.newaxis]
    distance = np.arange(samples.shape[1]) - top[:, np.newaxis]
    far = (distance < -_BEFORE) | (distance > _AFTER)
    is_dark = ~(far & (values > _DARK * model.noise_rms)).any(axis=1)
    fits = (top >= _BEFORE) & (top < samples.shape[1] - _AFTER)
    strong = height >= _MIN_SIGNAL * model.noise_rms
    below = samples.max(axis=1) < limit
    return np.asarray(fits & strong & below & is_dark & (is_maximum.sum(axis=1) == 1))


def has_usual_width(samples: Samples, baseline: float) -> BoolArray:
    """Whether the highest echo is as wide at half its height as most others are.

    Widths are those of straight lines between the samples; usual are those within three robust
    standard deviations of the median.
    """
    values = samples.astype(np.float64) - baseline
    rows = np.arange(len(values))
    top = np.argmax(values, axis=1)
    half = 0.5 * values[rows, top]
    beyond = values <= half[:, np.newaxis]
    columns = np.arange(samples.shape[1])
    before = np.max(np.where(beyond & (columns < top[:, np.newaxis]), columns, 0), axis=1)
    last = samples.shape[1] - 1
    after = np.min(np.where(beyond & (columns > top[:, np.newaxis]), columns, last), axis=1)
    rise = values[rows, before + 1] - values[rows, before]
    fall = values[rows, after - 1] - values[rows, after]
    left = before + (half - values[rows, before]) / rise
    right = after - (half - values[rows, after]) / fall
    width = right - left
    middle = np.median(width)
    return np.asarray(np.abs(width - middle) <= 3.0 * 1.4826 * np.median(np.abs(width - middle)))


@dataclass(frozen=True)
class Sums:
    """Sums of two echoes each, and their true positions (n, 2)."""

    samples: Samples
    position: Floats
    model: PulseModel


def sums_of_two(singles: Singles, position: Floats, separation: float, pairs: int) -> Sums:
    """Pairs of different echoes, the second shifted by whole samples to a separation in samples.

    position : (n,) of the singles, samples
    """
    rng = generator(f"sums {separation:g}")
    order = np.argsort(position % 1.0)
    phase = position[order] % 1.0
    first = rng.integers(0, len(position), pairs)
    wanted = (position[first] + separation) % 1.0
    # Echoes whose fraction of a sample gives the separation; the whole samples are shifted.
    low = np.searchsorted(phase, wanted - _PHASE)
    high = np.searchsorted(phase, wanted + _PHASE)
    usable = (high - low >= 2) & (wanted > _PHASE) & (wanted < 1.0 - _PHASE)
    first, low, high, wanted = first[usable], low[usable], high[usable], wanted[usable]
    second = order[rng.integers(low, high)]
    different = second != first
    first, second = first[different], second[different]
    shift = np.rint(position[first] + separation - position[second]).astype(np.int64)
    width = singles.samples.shape[1]
    # Around the end: what moves there is quiet, and has real noise.
    source = (np.arange(width) - shift[:, np.newaxis]) % width
    moved = np.take_along_axis(singles.samples[second], source, axis=1).astype(np.int64)
    level = round(singles.model.baseline)
    total = np.maximum(singles.samples[first].astype(np.int64) + moved - level, 0)
    model = replace(
        singles.model,
        baseline=2.0 * singles.model.baseline - level,
        baseline_spread=np.sqrt(2.0) * singles.model.baseline_spread,
        noise_rms=np.sqrt(2.0) * singles.model.noise_rms,
    )
    truth = np.column_stack([position[first], position[second] + shift])
    return Sums(total.astype(np.uint16), truth, model)


def _found(method: str, samples: Samples, model: PulseModel, pulse: Pulse, limit: float) -> Found:
    if method == PULSE_FIT:
        return find_with_model(samples, model, PulseFitSettings(digitiser_limit=limit))
    scanner = scanner_of(pulse) if method in DECONVOLVING else Scanner.default(INTERVAL)
    return find_with_mode(method, samples, scanner)


def real_tasks(plan: Plan, singles: Singles) -> tuple[list[Task], list[Task]]:
    """Tasks of the sums of two echoes, and of the echoes by themselves."""
    alone = _found(PULSE_FIT, singles.samples, singles.model, singles.pulse, singles.limit)
    rows, position = only_echoes(alone, len(singles.samples))
    unsplit = replace(singles, samples=singles.samples[rows])
    pairs: list[Task] = [
        partial(_pairs, plan, unsplit, position, separation) for separation in SEPARATIONS
    ]
    return pairs, [partial(_split, plan, singles)]


def only_echoes(found: Found, rows: int) -> tuple[Ints, Floats]:
    """Waveforms with exactly one echo, and its position."""
    number = np.bincount(found.row, minlength=rows)
    return np.flatnonzero(number == 1), found.position[number[found.row] == 1]


def _pairs(plan: Plan, singles: Singles, position: Floats, separation: float) -> list[Row]:
    fwhm = singles.pulse.fwhm
    sums = sums_of_two(singles, position, separation * fwhm, plan.real)
    rows: list[Row] = []
    for method in plan.methods:
        # The sum of two samples at the limit is the first that both digitisers could have clipped.
        limit = 2.0 * singles.limit
        found = _found(method, sums.samples, sums.model, singles.pulse, limit)
        two = found_as_two(found, len(sums.position), sums.position, TOLERANCE * fwhm)
        first = np.searchsorted(found.row, two)
        seen = np.stack([found.position[first], found.position[first + 1]], axis=1)
        error = seen - sums.position[two]
        rows.append(
            {
                "separation": separation,
                "method": method,
                "sums": len(sums.position),
                "two": 100.0 * len(two) / len(sums.position),
                "rms": float(np.sqrt(np.mean(error**2))) if len(two) else float("nan"),
            }
        )
    return rows


def _split(plan: Plan, singles: Singles) -> list[Row]:
    usual = has_usual_width(singles.samples, singles.model.baseline)
    rows: list[Row] = []
    for method in plan.methods:
        found = _found(method, singles.samples, singles.model, singles.pulse, singles.limit)
        number = np.bincount(found.row, minlength=len(singles.samples))
        rows.append(
            {
                "method": method,
                "singles": len(singles.samples),
                "split": 100.0 * float(np.mean(number > 1)),
                "split_usual": 100.0 * float(np.mean(number[usual] > 1)),
            }
        )
    return rows
