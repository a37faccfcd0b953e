"""Statistics of a file of waveforms, from one pass over its blocks."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Mapping
from dataclasses import dataclass, replace
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
from fullwaveform.calibration.waveform_levels import WaveformLevels
from fullwaveform.core.sample_statistics import PlaceBounds, SampleStatistics
from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.summaries import distinct_with_counts
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.las.descriptors import WaveformDescriptor
from fullwaveform.io.las.reader import LasWaveformReader

_Key = TypeVar("_Key", int, float)

_STEPS = 16  # per count, of baseline and noise rms
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
    name: str  # in the terms of the format; empty where it is a descriptor
    waveforms: int
    descriptor: WaveformDescriptor | None  # of LAS files


@dataclass(frozen=True, slots=True)
class FileContents:
    """Statistics of a file of waveforms.

    Baseline and noise rms are those of `waveform_levels`, rounded to a sixteenth of a count, of up
    to 4,096 waveforms spread over the file, on which the thresholds are measured, too.

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
    sampled: bool = False  # whether only waveforms spread over the file were read

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


def inspect_sample(reader: WaveformReader) -> FileContents:
    """As `inspect_waveforms`, of waveforms spread over the file.

    Reads little of a large file. Points and shots of beams are those of the whole file, everything
    else is of the sample; unreadable waveforms are left out.
    """
    return replace(inspect_waveforms(reader, reader.spread_blocks()), sampled=True)


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
        self.bounds = PlaceBounds()
        self.samples = SampleStatistics()

    def add(self, block: WaveformBlock) -> None:
        self.waveforms += len(block)
        self.sample_counts.update(_counted(block.counts))
        for interval, n in distinct_with_counts(block.sampling_intervals):
            self.intervals[round(interval * _FEMTOSECONDS) / _FEMTOSECONDS] += n
        self.channels.update(_counted(block.channel_flags))
        self.numbers.update(_counted(block.descriptors))
        self.point_sources.update(_counted(block.attributes.point_source_id))
        per_shot = np.bincount(_waveforms_per_shot(block.shot_times))
        self.per_shot.update({n: int(per_shot[n]) for n in np.flatnonzero(per_shot).tolist()})
        times = block.attributes.gps_time
        is_finite = np.isfinite(times)
        times = times if is_finite.all() else times[is_finite]
        self.times = (
            min(self.times[0], float(times.min(initial=np.inf))),
            max(self.times[1], float(times.max(initial=-np.inf))),
        )
        geometry = block.geometry
        self.bounds.add(
            np.ascontiguousarray(geometry.anchor),
            np.ascontiguousarray(geometry.location),
            np.ascontiguousarray(geometry.direction),
            np.ascontiguousarray(block.sampling_intervals),
            block.counts,
        )
        self.samples.add(np.ascontiguousarray(block.samples), block.counts)

    def origin(self, reader: WaveformReader) -> FileOrigin | None:
        """That of the header, with the box of the waveforms if that of the header has none of them.

        Compressors of PulseWaves files leave the box as it was before the first pulse.
        """
        origin = origin_of(reader.header)
        lower, upper = np.array(self.bounds.lower), np.array(self.bounds.upper)
        if origin is None or np.any(lower > upper):
            return origin
        if np.all(lower <= origin.upper) and np.all(upper >= origin.lower):
            return origin
        return replace(origin, lower=tuple(lower.tolist()), upper=tuple(upper.tolist()))

    def contents(self, kind: str, reader: WaveformReader) -> FileContents:
        tally = reader.tally
        described = reader.descriptors if isinstance(reader, LasWaveformReader) else {}
        names = reader.receiver_names
        values = self.samples.value_counts
        present = np.flatnonzero(values)
        smallest, largest = (int(present[0]), int(present[-1])) if len(present) else (None, None)
        waveforms: list[WaveformLevels] = []
        calibration = measure(reader, observe_levels=waveforms.append)
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
            baseline=_level([one.baseline for one in waveforms]),
            noise_rms=_level([np.sqrt(one.mean_square) for one in waveforms]),
            calibration=calibration,
            smallest=smallest,
            largest=largest,
            bits=(largest or 0).bit_length(),
            saturated=self.samples.plateaus / max(self.waveforms, 1),
            value_counts=_trimmed(values),
            maximum_counts=_trimmed(self.samples.maximum_counts),
            receivers=tuple(
                Receiver(number, names.get(number, ""), waveforms, described.get(number))
                for number, waveforms in _ascending(self.numbers).items()
            ),
            point_sources=_ascending(self.point_sources),
            origin=self.origin(reader),
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
    return {int(value): count for value, count in distinct_with_counts(values)}


def _waveforms_per_shot(shot_times: FloatArray) -> IntArray:
    """Number of waveforms of each shot; those of a shot have equal times, never NaN."""
    if (shot_times[1:] < shot_times[:-1]).any():
        return np.unique(shot_times, return_counts=True)[1]
    starts = np.flatnonzero(shot_times[1:] != shot_times[:-1]) + 1
    return np.diff(starts, prepend=0, append=len(shot_times))


def _ascending(counter: Counter[_Key]) -> dict[_Key, int]:
    return {key: counter[key] for key in sorted(counter)}


def _trimmed(counts: IntArray) -> IntArray:
    """The counts up to the last one that is not 0."""
    return np.trim_zeros(counts, "b")


def _level(parts: list[FloatArray]) -> Level | None:
    """Median and range of the values of all parts; None without values."""
    values = np.concatenate([np.empty(0), *parts])
    if len(values) == 0:
        return None
    counts = np.bincount(np.rint(values * _STEPS).astype(np.int64))
    low, high = (count_quantile(counts, share) / _STEPS for share in _QUANTILES)
    return Level(count_median(counts) / _STEPS, low, high)
