"""Waveforms of LVIS L1B files."""

from __future__ import annotations

import re
from pathlib import Path

import h5py
import laspy
import numpy as np

from fullwaveform.data.arrays import (
    BoolArray,
    Float32Array,
    FloatArray,
    IntArray,
    UInt16Array,
    UInt64Array,
)
from fullwaveform.data.blocks import RecordedNoise
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.hdf5.datasets import check_rows, numeric_dataset
from fullwaveform.io.hdf5.places import known_degrees
from fullwaveform.io.hdf5.samples import rows_of_counts
from fullwaveform.io.hdf5.shot_reader import ShotReader
from fullwaveform.io.hdf5.shot_table import ShotTable
from fullwaveform.io.limits import MAX_SAMPLES

SAMPLES = "RXWAVE"
_OUTGOING = "TXWAVE"
_NOISE = "SIGMEAN"
_NUMBER, _TIME, _ANGLE = "SHOTNUMBER", "TIME", "INCIDENTANGLE"
_AXES = ("LON", "LAT", "Z")
_LAST = re.compile(r"LON([1-9]\d{0,5})")

_MEASURED = 4096  # shots from which the interval is derived
_METRES_PER_DEGREE = 111_195.0  # on a sphere of the mean radius of the Earth
_METRES_PER_NANOSECOND = 0.1498  # two-way, in air
_INTERVALS = (1.0, 2.0)  # ns
_TOLERANCE = 0.2  # of the interval


class LvisReader(ShotReader):
    """Reads the waveforms of an LVIS L1B file of data structure 1.04, 1.05, 2.0.3 or 2.0.4.

    The number of samples follows from the names of the datasets of the lowest sample, the sampling
    interval from the distance between highest and lowest sample: 1 or 2 ns. Times are those of the
    file, UTC seconds of the day. Parameters and errors as `ShotReader`; no shot is marked as
    degraded.
    """

    _system_identifier = "LVIS"
    _time_type = laspy.header.GpsTimeType.WEEK_TIME  # no GPS time of LAS; the other is further off

    def _open_tables(self, file: h5py.File) -> list[ShotTable]:
        table = _Shots(file, self._path)
        check_rows(table.count, self._path)
        table.measure()
        return [table]

    def _format_notes(self) -> list[str]:
        return ["Times of LVIS are UTC seconds of the day, not GPS times."]


class _Shots(ShotTable):
    """The shots of a file; waveforms are the rows of a matrix."""

    def __init__(self, file: h5py.File, path: Path) -> None:
        self._file, self._path = file, path
        shape = numeric_dataset(file, SAMPLES, path, (None, None)).shape
        super().__init__(int(shape[0]))
        self._width = int(shape[1])
        self._last = _last_sample(file, self._width, path)
        self._interval = np.nan
        for name in (_OUTGOING, _NUMBER, _TIME, _ANGLE, *self._names(0), *self._names(self._last)):
            self._opened(name)

    def _names(self, sample: int) -> tuple[str, ...]:
        return tuple(f"{axis}{sample}" for axis in _AXES)

    def _opened(self, name: str) -> h5py.Dataset:
        if name == SAMPLES:
            return numeric_dataset(self._file, name, self._path, (self.count, self._width))
        if name == _OUTGOING:
            dataset = numeric_dataset(self._file, name, self._path, (self.count, None))
            if dataset.shape[1] > MAX_SAMPLES:
                raise WaveformFileError(
                    f"{self._path}: outgoing pulses of {dataset.shape[1]} samples; at most "
                    f"{MAX_SAMPLES} are allowed"
                )
            return dataset
        return numeric_dataset(self._file, name, self._path, (self.count,))

    def measure(self) -> None:
        """Derive the sampling interval from the first shots with places."""
        first, last = self.ends(np.arange(min(self.count, _MEASURED)))
        step = first - last
        step[:, 0] *= _METRES_PER_DEGREE * np.cos(np.deg2rad(first[:, 1]))
        step[:, 1] *= _METRES_PER_DEGREE
        length = np.linalg.norm(step, axis=1) / self._last / _METRES_PER_NANOSECOND
        length = length[np.isfinite(length)]
        if self.count > 0 and len(length) == 0:
            raise WaveformFileError(
                f"{self._path}: no shot has valid places of its highest and lowest samples, from "
                "which the sampling interval follows"
            )
        found = float(np.median(length)) if len(length) else _INTERVALS[0]
        fitting = [one for one in _INTERVALS if abs(found - one) <= _TOLERANCE * one]
        if not fitting:
            raise WaveformFileError(
                f"{self._path}: the highest and lowest samples are {found:.4g} ns per sample "
                "apart; must be 1 or 2 ns"
            )
        self._interval = fitting[0] * 1e-9

    @property
    def sampling_interval(self) -> float:
        """Time between two samples, s."""
        return self._interval

    def counts(self, part: slice) -> IntArray:
        """Samples of each of a run of shots: equal for all."""
        return np.full(part.stop - part.start, self._width, np.int64)

    def gps_times(self, part: slice) -> FloatArray:
        """UTC seconds of the day of a run of shots."""
        return self.column(_TIME, part).astype(np.float64)

    def waves(self, shots: IntArray) -> tuple[UInt16Array, BoolArray]:
        """Samples of ascending shots, and which of them can be used."""
        return self._rows(SAMPLES, shots)

    def noise(self, shots: IntArray) -> RecordedNoise | None:
        """The mean noise level of each shot; the file does not state the rms."""
        if _NOISE not in self._file:
            return None
        mean = self.values(_NOISE, shots).astype(np.float64)
        return RecordedNoise(mean, np.full(len(shots), np.nan))

    def outgoing(self, shots: IntArray) -> tuple[UInt16Array, IntArray]:
        """Samples of the outgoing pulses of ascending shots, and their numbers."""
        if self.dataset(_OUTGOING).shape[1] == 0:
            return np.zeros((len(shots), 0), np.uint16), np.zeros(len(shots), np.int64)
        samples, usable = self._rows(_OUTGOING, shots)
        return samples, np.where(usable, samples.shape[1], 0)

    def _rows(self, name: str, shots: IntArray) -> tuple[UInt16Array, BoolArray]:
        values = self.values(name, shots)
        return rows_of_counts(values.ravel(), np.full(len(shots), values.shape[1], np.int64))

    def ends(self, shots: IntArray) -> tuple[FloatArray, FloatArray]:
        """Longitude, latitude and height (n, 3) of the first and of the last samples."""
        first, last = (
            known_degrees(*(self.values(name, shots).astype(np.float64) for name in names))
            for names in (self._names(0), self._names(self._last))
        )
        return first, last

    def shot_numbers(self, shots: IntArray) -> UInt64Array:
        """Numbers of ascending shots."""
        return self.values(_NUMBER, shots).astype(np.uint64)

    def scan_angles(self, shots: IntArray) -> Float32Array:
        """Degrees off nadir."""
        return self.values(_ANGLE, shots).astype(np.float32)


def _last_sample(file: h5py.File, width: int, path: Path) -> int:
    """Number of the lowest sample, from the names of the datasets."""
    found = [int(match[1]) for name in file if (match := _LAST.fullmatch(name))]
    if len(found) != 1:
        listed = ", ".join(f"LON{number}" for number in sorted(found)) or "none"
        raise WaveformFileError(
            f"{path}: datasets with the longitude of the lowest sample: {listed}; expected one"
        )
    if not 1 <= found[0] < MAX_SAMPLES or width != found[0] + 1:
        raise WaveformFileError(
            f"{path}: waveforms of {width} samples; expected {found[0] + 1}, as the lowest sample "
            f"has the number {found[0]}"
        )
    return found[0]
