"""Waveforms of GEDI L1B files, beam by beam."""

from __future__ import annotations

import re
from pathlib import Path

import h5py
import numpy as np

from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, UInt16Array, UInt64Array
from fullwaveform.data.blocks import RecordedNoise
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.hdf5.datasets import check_rows, numeric_dataset
from fullwaveform.io.hdf5.places import known_degrees
from fullwaveform.io.hdf5.samples import gathered
from fullwaveform.io.hdf5.shot_reader import ShotReader
from fullwaveform.io.hdf5.shot_table import ShotTable, rows_in_parts

BEAM = re.compile(r"BEAM[01]{4}")
SAMPLES = "rxwaveform"

STALE = "stale return"
DEGRADED = "degraded pointing or orbit"

_INTERVAL = 1e-9  # s
_EPOCH = "ancillary/master_time_epoch"
_USUAL_EPOCH = 1198800018.0  # s of GPS time: 1 January 2018
_ADJUSTMENT = 1e9  # s, of GPS times in LAS files
_OF_SHOTS = (
    "rx_sample_start_index",
    "rx_sample_count",
    "tx_sample_start_index",
    "tx_sample_count",
    "shot_number",
    "delta_time",
    "stale_return_flag",
    "geolocation/degrade",
    *(
        f"geolocation/{axis}_{end}"
        for axis in ("longitude", "latitude", "elevation")
        for end in ("bin0", "lastbin")
    ),
)
_INSTRUMENT = tuple(
    f"geolocation/{axis}_instrument" for axis in ("longitude", "latitude", "altitude")
)
_NOISE = ("noise_mean_corrected", "noise_stddev_corrected")
_OF_SAMPLES = (SAMPLES, "txwaveform")


class GediReader(ShotReader):
    """Reads the waveforms of a GEDI L1B file, version 1 or 2, also a subset with some of the beams.

    Samples, which the product corrects and smooths, are rounded to whole counts. The number in the
    name of a beam is that of its receiver (`WaveformBlock.descriptors`): each beam has a threshold
    of its own. Parameters and errors as `ShotReader`.
    """

    _system_identifier = "GEDI"
    # The outgoing pulse has a full width at half maximum of 15.3 ns; so does the filter of L2A
    # (rx_smoothing_width_locs and _zcross).
    _smoothing = 6.5e-9  # s

    def _open_tables(self, file: h5py.File) -> list[ShotTable]:
        names = sorted(name for name in file if BEAM.fullmatch(name))
        tables = [_Beam(file[name], self._path) for name in names]
        check_rows(sum(table.count for table in tables), self._path)
        return list(tables)

    def _format_notes(self) -> list[str]:
        return ["Samples of GEDI are fractions of counts; they were rounded to whole counts."]


class _Beam(ShotTable):
    """The shots of a beam; its waveforms are one behind the other in one dataset."""

    def __init__(self, group: h5py.Group, path: Path) -> None:
        self._group, self._path = group, path
        name = group.name.lstrip("/")
        count = numeric_dataset(group, "rx_sample_start_index", path).shape[0]
        super().__init__(int(count), name, int(name.removeprefix("BEAM"), 2))
        for dataset in (*_OF_SHOTS, *_OF_SAMPLES):
            self._opened(dataset)
        self._epoch = self._time_epoch() - _ADJUSTMENT

    def _opened(self, name: str) -> h5py.Dataset:
        shape = (None,) if name in _OF_SAMPLES else (self.count,)
        return numeric_dataset(self._group, name, self._path, shape)

    def _time_epoch(self) -> float:
        if _EPOCH not in self._group:
            return _USUAL_EPOCH
        values = numeric_dataset(self._group, _EPOCH, self._path, (1,))[:]
        if not np.isfinite(values).all():
            raise WaveformFileError(
                f"{self._path}: {self.name}/{_EPOCH} is {values[0]}; must be finite"
            )
        return float(values[0])

    @property
    def sampling_interval(self) -> float:
        """Time between two samples, s: always 1 ns."""
        return _INTERVAL

    def counts(self, part: slice) -> IntArray:
        """Samples of each of a run of shots."""
        return self.column("rx_sample_count", part).astype(np.int64)

    def gps_times(self, part: slice) -> FloatArray:
        """Adjusted standard GPS times of a run of shots, s."""
        times: FloatArray = self._epoch + self.column("delta_time", part).astype(np.float64)
        return times

    def is_inside(self, part: slice) -> BoolArray:
        """Whether the waveforms of a run of shots are inside the dataset of samples."""
        return self._holds("rx", self.dataset(SAMPLES).shape[0], part)

    def _holds(self, kind: str, total: int, part: slice) -> BoolArray:
        # Compared without sums: damaged indices are as large as their type allows.
        starts = self.column(f"{kind}_sample_start_index", part)
        counts = self.column(f"{kind}_sample_count", part)
        inside: BoolArray = (starts >= 1) & (starts <= total) & (counts >= 0) & (counts <= total)
        held = np.flatnonzero(inside)
        ends = starts[held].astype(np.int64) - 1 + counts[held].astype(np.int64)
        inside[held] = ends <= total
        return inside

    def left_out(self, part: slice) -> dict[str, BoolArray]:
        """Shots that the product marks: no return was digitised, or they may lie elsewhere."""
        return {
            STALE: self.column("stale_return_flag", part) != 0,
            DEGRADED: self.column("geolocation/degrade", part) != 0,
        }

    def waves(self, shots: IntArray) -> tuple[UInt16Array, BoolArray]:
        """Samples of ascending shots, and which of them can be used."""
        starts = self.values("rx_sample_start_index", shots).astype(np.int64) - 1
        return gathered(self.dataset(SAMPLES), starts, rows_in_parts(self.counts, shots))

    def outgoing(self, shots: IntArray) -> tuple[UInt16Array, IntArray]:
        """Samples of the outgoing pulses of ascending shots, and their numbers."""
        total = self.dataset("txwaveform").shape[0]
        counts = self.values("tx_sample_count", shots).astype(np.int64)
        held = rows_in_parts(lambda part: self._holds("tx", total, part), shots)
        held &= (counts > 0) & (counts <= MAX_COUNT)
        starts = self.values("tx_sample_start_index", shots[held]).astype(np.int64) - 1
        found, usable = gathered(self.dataset("txwaveform"), starts, counts[held])
        samples = np.zeros((len(shots), found.shape[1]), np.uint16)
        samples[held] = found
        held[held] = usable
        return samples, np.where(held, counts, 0)

    def ends(self, shots: IntArray) -> tuple[FloatArray, FloatArray]:
        """Longitude, latitude and height (n, 3) of the first and of the last samples."""
        return self._places("bin0", shots), self._places("lastbin", shots)

    def _places(self, end: str, shots: IntArray) -> FloatArray:
        axes = ("longitude", "latitude", "elevation")
        found = (self.values(f"geolocation/{axis}_{end}", shots) for axis in axes)
        return known_degrees(*(axis.astype(np.float64) for axis in found))

    def origins(self, shots: IntArray) -> FloatArray | None:
        """Longitude, latitude and height (n, 3) of the instrument; None if a dataset is missing."""
        if not all(name in self._group for name in _INSTRUMENT):
            return None
        found = (self.values(name, shots).astype(np.float64) for name in _INSTRUMENT)
        return known_degrees(*found)

    def noise(self, shots: IntArray) -> RecordedNoise | None:
        """Noise that the instrument measured, before the samples were smoothed."""
        if any(name not in self._group for name in _NOISE):
            return None
        mean, rms = (self.values(name, shots).astype(np.float64) for name in _NOISE)
        return RecordedNoise(mean, rms)

    def shot_numbers(self, shots: IntArray) -> UInt64Array:
        """Numbers of ascending shots."""
        return self.values("shot_number", shots).astype(np.uint64)
