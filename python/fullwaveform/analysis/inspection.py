"""Statistics of a file of waveforms, from one pass over its blocks."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import TypeVar

import numpy as np

from fullwaveform.analysis.histograms import (
    Histogram,
    count_median,
    count_quantile,
    value_histogram,
)
from fullwaveform.analysis.origin import FileOrigin, origin_of
from fullwaveform.calibration.calibration import Calibration, measure
from fullwaveform.calibration.waveform_levels import MIN_SAMPLES, waveform_levels
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray, UInt16Array
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.las.descriptors import WaveformDescriptor
from fullwaveform.io.las.reader import LasWaveformReader

_Key = TypeVar("_Key", int, float)

_VALUES = MAX_COUNT + 1  # of a sample
_STEPS = 16  # per count, of baseline and noise rms
_SAMPLES_AT_ONCE = 1 << 20  # they are converted to eight bytes each
_PLATEAU = 2  # samples
_FEMTOSECONDS = 1e15  # per s; sampling intervals are rounded to them
_QUANTILES = (0.05, 0.95)
_FORMATS = {
    "LasWaveformReader": "LAS",
    "PulseWavesReader": "PulseWaves",
    "ScanContainerReader": "scan container (HDF5)",
    "NpzReader": "NumPy archive",
    "GediReader": "GEDI L1B (HDF5)",
    "LvisReader": "LVIS L1B (HDF5)",
}


@dataclass(frozen=True, slots=True)
class Level:
    """Median over the waveforms, and range of 90 % of them, counts."""

    median: float
    low: float  # 5 % quantile
    high: float  # 95 % quantile


@dataclass(frozen=True, slots=True)
class Receiver:
    """Waveforms of one packet descriptor or channel."""

    number: int  # of the descriptor or channel in the file; 0 where it has none
    waveforms: int
    descriptor: WaveformDescriptor | None  # of LAS files


@dataclass(frozen=True, slots=True)
class FileContents:
    """Statistics of a file of waveforms.

    Baseline and noise rms of every waveform are those of `waveform_levels`, rounded to a sixteenth
    of a count.

    saturated : share of the waveforms with two consecutive samples of the largest value of the
        file, which clipping produces and noise rarely does
    """

    format: str
    points: int  # points or pulses of the file; waveforms if it has neither
    points_without_waveform: int
    points_sharing_waveform: int  # whose waveform another point has, too
    waveforms: int
    shots: int
    samples: int
    sample_counts: Mapping[int, int]  # samples per waveform -> waveforms, ascending
    sampling_intervals: Mapping[float, int]  # s -> waveforms, ascending
    channels: Mapping[int, int]  # channel flag -> waveforms, ascending
    waveforms_per_shot: Mapping[int, int]  # -> shots, ascending
    first_time: float | None  # s, GPS time; None if no shot has one
    last_time: float | None  # s
    baseline: Level | None  # None without waveforms
    noise_rms: Level | None
    calibration: Calibration  # with which `extract` starts
    smallest: int | None  # counts, None without samples
    largest: int | None
    bits: int  # needed for the largest value
    saturated: float  # share of the waveforms, 0 to 1
    value_counts: IntArray  # (largest + 1,), samples of each value
    maximum_counts: IntArray  # (largest + 1,), waveforms by their largest sample
    receivers: tuple[Receiver, ...]  # ascending by number
    point_sources: Mapping[int, int]  # point source ID -> waveforms, ascending
    origin: FileOrigin | None  # None for files without coordinates
    beams: Mapping[str, int]  # name -> shots, also those left out; empty if the format has none
    left_out: Mapping[str, int]  # reason -> readable shots that were not asked for
    rejected: Mapping[str, int]  # reason -> unreadable waveforms
    notes: tuple[str, ...]  # of the reader

    @property
    def median_sample_count(self) -> float | None:
        """Median of the samples per waveform, None without waveforms."""
        if not self.waveforms:
            return None
        counts = np.zeros(max(self.sample_counts) + 1, np.int64)
        counts[list(self.sample_counts)] = list(self.sample_counts.values())
        return count_median(counts)

    def values(self, bins: int = 20) -> Histogram:
        """Histogram of all samples, see `value_histogram`."""
        return value_histogram(self.value_counts, bins)

    def maxima(self, bins: int = 20) -> Histogram:
        """Histogram of the largest sample of each waveform."""
        return value_histogram(self.maximum_counts, bins)


def inspect_waveforms(
    reader: WaveformReader, blocks: Iterable[WaveformBlock] | None = None
) -> FileContents:
    """Statistics of the file of an open reader, in one pass with bounded memory, and calibration.

    `blocks` are those of the reader, for a caller that shows the progress. Raises what the reader
    raises.
    """
    sums = _Sums()
    for block in reader.blocks() if blocks is None else blocks:
        sums.add(block)
    return sums.contents(_format_of(reader), reader)


def _format_of(reader: WaveformReader) -> str:
    name = _FORMATS.get(type(reader).__name__, type(reader).__name__)
    header = reader.header
    if name != "LAS" or header is None:
        return name
    kind = "LAZ" if header.are_points_compressed else "LAS"
    return f"{kind} {header.version}, point format {header.point_format.id}"


class _Sums:
    """Sums over blocks."""

    def __init__(self) -> None:
        self.waveforms = 0
        self.sample_counts: Counter[int] = Counter()
        self.intervals: Counter[float] = Counter()
        self.channels: Counter[int] = Counter()
        self.numbers: Counter[int] = Counter()
        self.point_sources: Counter[int] = Counter()
        self.per_shot: Counter[int] = Counter()
        self.times = (np.inf, -np.inf)
        self.baseline = np.zeros(_VALUES * _STEPS, np.int64)  # waveforms by steps of a count
        self.noise_rms = np.zeros(_VALUES * _STEPS, np.int64)
        self.values = np.zeros(_VALUES, np.int64)
        self.maxima = np.zeros(_VALUES, np.int64)
        self.largest = -1
        self.with_plateau = 0

    def add(self, block: WaveformBlock) -> None:
        self.waveforms += len(block)
        self.sample_counts.update(_counted(block.counts))
        femtoseconds = _counted(np.rint(block.sampling_intervals * _FEMTOSECONDS))
        self.intervals.update({key / _FEMTOSECONDS: n for key, n in femtoseconds.items()})
        self.channels.update(_counted(block.channel_flags))
        self.numbers.update(_counted(block.descriptors))
        self.point_sources.update(_counted(block.attributes.point_source_id))
        per_shot = np.unique(block.shot_times, return_counts=True)[1]
        self.per_shot.update(_counted(per_shot))
        times = block.attributes.gps_time[np.isfinite(block.attributes.gps_time)]
        self.times = (
            min(self.times[0], float(times.min(initial=np.inf))),
            max(self.times[1], float(times.max(initial=-np.inf))),
        )
        for count in np.unique(block.counts[block.counts > 0]):
            self._add_samples(block.samples[block.counts == count, :count])

    def _add_samples(self, samples: UInt16Array) -> None:
        """Add the samples (n, count) of waveforms of equal length, at least 1."""
        self._add_plateaus(samples)
        self.maxima += np.bincount(samples.max(axis=1), minlength=_VALUES)
        rows = max(_SAMPLES_AT_ONCE // samples.shape[1], 1)
        for first in range(0, len(samples), rows):
            part = samples[first : first + rows]
            self.values += np.bincount(part.ravel(), minlength=_VALUES)
            if samples.shape[1] >= MIN_SAMPLES:
                levels = waveform_levels(part)
                _count_steps(self.baseline, levels.baseline)
                _count_steps(self.noise_rms, np.sqrt(levels.mean_square))

    def _add_plateaus(self, samples: UInt16Array) -> None:
        largest = int(samples.max())
        if largest > self.largest:
            self.largest, self.with_plateau = largest, 0
        at_top = samples == self.largest
        is_plateau = at_top[:, : 1 - _PLATEAU] & at_top[:, _PLATEAU - 1 :]
        self.with_plateau += int(np.count_nonzero(is_plateau.any(axis=1)))

    def contents(self, kind: str, reader: WaveformReader) -> FileContents:
        tally = reader.tally
        described = reader.descriptors if isinstance(reader, LasWaveformReader) else {}
        values = self.values[: self.largest + 1]
        has_time = bool(np.isfinite(self.times[0]))
        return FileContents(
            format=kind,
            points=reader.point_count,
            points_without_waveform=tally.points_without_waveform,
            points_sharing_waveform=tally.points_sharing_waveform,
            waveforms=self.waveforms,
            shots=self.per_shot.total(),
            samples=int(values.sum()),
            sample_counts=_ascending(self.sample_counts),
            sampling_intervals=_ascending(self.intervals),
            channels=_ascending(self.channels),
            waveforms_per_shot=_ascending(self.per_shot),
            first_time=self.times[0] if has_time else None,
            last_time=self.times[1] if has_time else None,
            baseline=_level(self.baseline),
            noise_rms=_level(self.noise_rms),
            calibration=measure(reader),
            smallest=int(np.flatnonzero(values)[0]) if self.largest >= 0 else None,
            largest=self.largest if self.largest >= 0 else None,
            bits=max(self.largest, 0).bit_length(),
            saturated=self.with_plateau / max(self.waveforms, 1),
            value_counts=values.copy(),
            maximum_counts=self.maxima[: self.largest + 1].copy(),
            receivers=tuple(
                Receiver(number, waveforms, described.get(number))
                for number, waveforms in _ascending(self.numbers).items()
            ),
            point_sources=_ascending(self.point_sources),
            origin=origin_of(reader.header),
            beams=reader.beams,
            left_out=dict(tally.left_out),
            rejected=dict(tally.rejected),
            notes=(*tally.notes, *_note_on_short_points(tally)),
        )


def _note_on_short_points(tally: ReadTally) -> list[str]:
    if not tally.points_short:
        return []
    return [f"Pulses with two segments where three are declared: {tally.points_short:,}."]


def _counted(values: AnyArray) -> dict[int, int]:
    distinct, counts = np.unique(values, return_counts=True)
    return {int(value): int(n) for value, n in zip(distinct, counts, strict=True)}


def _ascending(counter: Counter[_Key]) -> dict[_Key, int]:
    return {key: counter[key] for key in sorted(counter)}


def _count_steps(counts: IntArray, levels: FloatArray) -> None:
    steps = np.rint(levels * _STEPS).astype(np.int64)
    np.add.at(counts, np.minimum(steps, len(counts) - 1), 1)


def _level(counts: IntArray) -> Level | None:
    """Median and range, from counts by steps; None without counts."""
    if not counts.any():
        return None
    low, high = (count_quantile(counts, share) / _STEPS for share in _QUANTILES)
    return Level(count_median(counts) / _STEPS, low, high)
