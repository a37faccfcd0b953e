"""Metrics of the waveforms of a block."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, field

import numpy as np

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray, BoolArray, Float32Array, FloatArray, IntArray
from fullwaveform.data.blocks import PulseGeometry, WaveformBlock
from fullwaveform.data.columns import Column, Table, take_rows
from fullwaveform.data.echo_columns import shot_columns_of
from fullwaveform.waveform_metrics.canopy import canopies
from fullwaveform.waveform_metrics.columns import (
    SHOT_COLUMNS,
    MetricsFlag,
    area_name,
    gap_name,
    metrics_columns,
)
from fullwaveform.waveform_metrics.energy_heights import PERCENTS, energy_places
from fullwaveform.waveform_metrics.ground_return import ground_returns
from fullwaveform.waveform_metrics.moments import moments
from fullwaveform.waveform_metrics.noise import NoiseLevels, noise_levels
from fullwaveform.waveform_metrics.outgoing_decay import outgoing_decays
from fullwaveform.waveform_metrics.settings import MetricsSettings
from fullwaveform.waveform_metrics.signal_bounds import PER_SAMPLE, SignalBounds, signal_bounds
from fullwaveform.waveform_metrics.smoothing import smoothed

_NANOSECONDS = 1e9
_PICOSECONDS = 1e12
_MAX_SCALE = 100  # samples; the return of the ground is sought in 28 times as many
_SAMPLES_AT_ONCE = 1 << 16  # their interpolation fits into a processor's cache


@dataclass(frozen=True)
class MetricsRun:
    """What determines the metrics of a block."""

    settings: MetricsSettings = field(default_factory=MetricsSettings)
    calibration: Calibration = field(default_factory=Calibration)  # levels where none are recorded
    scanner: Scanner = field(default_factory=Scanner.default)  # its group velocity


class MetricsTable(Table):
    """One row per waveform with the columns of `metrics_columns`, in the order of the block."""

    @classmethod
    def of(cls, block: WaveformBlock, run: MetricsRun) -> MetricsTable:
        """The metrics of a block; those of a waveform do not depend on the others."""
        levels = noise_levels(block, run.calibration)
        columns = _columns_of_block(block, levels, run.settings)
        for rows, interval in _parts(block):
            for chosen, found in _Part(block, rows, interval, levels, run).metrics():
                for name, values in found.items():
                    columns[name][chosen] = values
        return cls(columns)

    @property
    def shot_columns(self) -> tuple[str, ...]:
        """Names of the columns of beams and shots that the table has."""
        return tuple(name for name in SHOT_COLUMNS if name in self.columns)

    @property
    def with_signal(self) -> int:
        """Number of waveforms with a signal."""
        return int(np.count_nonzero(self["flags"] & MetricsFlag.NO_SIGNAL == 0))

    def described(self, settings: MetricsSettings) -> tuple[Column, ...]:
        """The columns of the table with these settings."""
        return metrics_columns(settings, self.shot_columns)


def _parts(block: WaveformBlock) -> Iterator[tuple[IntArray, float]]:
    """Rows of the block with one sampling interval, some at a time."""
    step = max(_SAMPLES_AT_ONCE // max(block.samples.shape[1], 1), 1)
    for interval in np.unique(block.sampling_intervals).tolist():
        rows = np.flatnonzero(block.sampling_intervals == interval)
        for start in range(0, len(rows), step):
            yield rows[start : start + step], interval


def _columns_of_block(
    block: WaveformBlock, levels: NoiseLevels, settings: MetricsSettings
) -> dict[str, AnyArray]:
    """The columns with what is known of every waveform, NaN for the rest."""
    known: dict[str, AnyArray | None] = {
        "gps_time": block.attributes.gps_time,
        "waveform_number": block.waveform_numbers,
        "channel_flag": block.channel_flags,
        "descriptor": block.descriptors,
        "noise_mean": levels.baseline,
        "noise_rms": levels.rms,
        "beam": block.beams,
        "shot_number": block.shot_numbers,
    }
    columns: dict[str, AnyArray] = {}
    for column in metrics_columns(settings, shot_columns_of(block)):
        values = known.get(column.name)
        if values is not None:
            columns[column.name] = (
                values if column.dtype is np.str_ else values.astype(column.dtype)
            )
        else:
            unknown = np.nan if np.issubdtype(column.dtype, np.floating) else 0
            columns[column.name] = np.full(len(block), unknown, column.dtype)
    return columns


class _Part:
    """Some waveforms of a block that have one sampling interval."""

    def __init__(
        self,
        block: WaveformBlock,
        rows: IntArray,
        interval: float,
        levels: NoiseLevels,
        run: MetricsRun,
    ) -> None:
        self._block, self._rows, self._interval = block, rows, interval
        self._settings = run.settings
        self._baseline, self._rms = levels.baseline[rows], levels.rms[rows]
        self._recorded = levels.recorded[rows]
        self._range_step = run.scanner.range_per_second * interval
        self._height, self._is_placed = self._sample_heights()
        self._decay = self._decays()
        self._scale = run.settings.smoothing / (interval * _NANOSECONDS)  # samples
        if not self._scale <= _MAX_SCALE:
            raise ValueError(
                f"smoothing {run.settings.smoothing} ns is {self._scale:.4g} samples of "
                f"{interval * _NANOSECONDS:.4g} ns; at most {_MAX_SCALE} samples are allowed"
            )

    def metrics(self) -> Iterator[tuple[IntArray, dict[str, AnyArray]]]:
        """Yield rows of the block and columns of them, by name."""
        values = self._values()
        smooth = smoothed(values, self._scale)
        noise = np.where(np.isfinite(self._rms + self._baseline), self._rms, np.inf)
        bounds = signal_bounds(
            smooth,
            self._settings.front_threshold * noise,
            self._settings.back_threshold * noise,
        )
        found = np.flatnonzero(bounds.found)
        yield (
            self._rows,
            {
                "flags": self._flags(bounds),
                "mode_count": bounds.mode_count,
                "amplitude": values.max(axis=1, initial=-np.inf),
            },
        )
        if len(found) == 0:
            return
        of_signals = self._of_signals(
            found, values[found], smooth[found], take_rows(bounds, found), self._height[found]
        )
        yield self._rows[found], of_signals

    def _values(self) -> Float32Array:
        """Counts (n, width) above the baseline; 0 beyond the ends of the waveforms."""
        samples = self._block.samples[self._rows]
        values = samples.astype(np.float32)
        values -= np.nan_to_num(self._baseline).astype(np.float32)[:, np.newaxis]
        counts = self._block.counts[self._rows]
        values[np.arange(samples.shape[1]) >= counts[:, np.newaxis]] = 0.0
        return values

    def _sample_heights(self) -> tuple[FloatArray, BoolArray]:
        """Metres (n,) from a sample down to the next, and whether the place in space is known."""
        geometry = self._block.geometry
        height = geometry.direction[self._rows, 2] * (self._interval * _PICOSECONDS)
        place = geometry.anchor[self._rows].sum(axis=1) + geometry.location[self._rows]
        is_placed = np.isfinite(height) & (height > 0.0) & np.isfinite(place)
        return np.where(is_placed, height, self._range_step), is_placed

    def _flags(self, bounds: SignalBounds) -> AnyArray:
        counts = self._block.counts[self._rows].astype(np.int64)
        cut_off = bounds.found & (
            (bounds.top < PER_SAMPLE) | (bounds.bottom > PER_SAMPLE * (counts - 2))
        )
        bits = {
            MetricsFlag.NO_SIGNAL: ~bounds.found,
            MetricsFlag.CUT_OFF: cut_off,
            MetricsFlag.NO_HEIGHT: ~self._is_placed,
            MetricsFlag.NOISE_MEASURED: ~self._recorded,
            MetricsFlag.SYMMETRIC_GROUND: ~np.isfinite(self._decay),
        }
        flags = np.zeros(len(self._rows), np.uint8)
        for bit, is_set in bits.items():
            flags |= np.where(is_set, np.uint8(bit), np.uint8(0))
        return flags

    def _decays(self) -> FloatArray:
        """Decay (n,) of the outgoing pulses, s; NaN where it is unknown."""
        outgoing = self._block.outgoing
        if outgoing is None:
            return np.full(len(self._rows), np.nan)
        return outgoing_decays(take_rows(outgoing, self._rows))

    def _of_signals(
        self,
        found: IntArray,
        values: Float32Array,
        smooth: Float32Array,
        bounds: SignalBounds,
        height: FloatArray,
    ) -> dict[str, AnyArray]:
        """The columns of the waveforms with a signal, of which all arguments are."""
        sample_ns = self._interval * _NANOSECONDS
        decay = np.nan_to_num(self._decay[found])
        returns = ground_returns(
            values, bounds.ground, decay / self._interval, max(self._scale, 1.0)
        )
        cosine = np.minimum(height / self._range_step, 1.0)
        canopy = canopies(
            values, bounds.top, bounds.ground, returns, height, cosine, self._settings
        )
        whole = moments(values, bounds.top // PER_SAMPLE, bounds.bottom // PER_SAMPLE)
        ground = bounds.ground / PER_SAMPLE
        per_place = height / PER_SAMPLE
        rise = (bounds.first_mode - bounds.top) * per_place
        first = smooth[np.arange(len(found)), bounds.first_mode // PER_SAMPLE]
        heights = bounds.ground[:, np.newaxis] - energy_places(smooth, bounds)
        relative = np.ascontiguousarray(heights.T) * per_place
        columns = {
            "energy": whole.energy * sample_ns,
            "centroid": (ground - whole.centroid) * height,
            "variance": whole.variance * height**2,
            "skewness": -whole.skewness,
            "kurtosis": whole.kurtosis,
            "front_slope": np.where(rise > 0.0, first / np.where(rise > 0.0, rise, 1.0), np.nan),
            "pulse_decay": decay * _NANOSECONDS,
            "ground_width": returns.width * sample_ns,
            "ground_energy": returns.energy * sample_ns,
            "canopy_energy": canopy.energy * sample_ns,
            "cover": canopy.cover,
            "gap": canopy.gap,
            "pai": canopy.plant_area,
            "fhd": canopy.diversity,
            **{f"rh_{percent}": relative[percent] for percent in PERCENTS.tolist()},
        }
        for level, at in enumerate(self._settings.profile_heights.tolist()):
            if level > 0:
                columns[gap_name(at)] = canopy.gap_profile[:, level]
                columns[area_name(at)] = canopy.area_profile[:, level]
        return {**columns, **self._places(found, bounds)}

    def _places(self, found: IntArray, bounds: SignalBounds) -> dict[str, AnyArray]:
        rows = self._rows[found]
        geometry = take_rows(self._block.geometry, rows)
        ground = self._at(geometry, bounds.ground)
        places = {
            "x": ground[:, 0],
            "y": ground[:, 1],
            "ground_z": ground[:, 2],
            "top_z": self._at(geometry, bounds.top)[:, 2],
            "bottom_z": self._at(geometry, bounds.bottom)[:, 2],
        }
        return {
            name: np.where(self._is_placed[found], place, np.nan) for name, place in places.items()
        }

    def _at(self, geometry: PulseGeometry, place: IntArray) -> FloatArray:
        """Coordinates (n, 3) of places on the pulses."""
        time = place * (self._interval * _PICOSECONDS / PER_SAMPLE)
        lead = geometry.location - time
        xyz: FloatArray = geometry.anchor + lead[:, np.newaxis] * geometry.direction
        return xyz
