"""The shots of a beam, whose columns are HDF5 datasets."""

from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Callable

import h5py
import numpy as np

from fullwaveform.data.arrays import (
    AnyArray,
    BoolArray,
    Float32Array,
    FloatArray,
    IntArray,
    UInt16Array,
    UInt64Array,
)
from fullwaveform.data.blocks import RecordedNoise

_MAX_GAP = 256  # rows that are read along with those around them


class ShotTable(ABC):
    """The shots of one beam, numbered from 0; their columns are read in slices.

    The datasets of a table are open from its first use until `release`, with a cache of chunks for
    each.
    """

    def __init__(self, count: int, name: str = "", number: int = 0) -> None:
        self.count = count
        self.name = name  # of the beam
        self.number = number  # of the receiver, 0 to 255
        self._datasets: dict[str, h5py.Dataset] = {}

    @abstractmethod
    def _opened(self, name: str) -> h5py.Dataset:
        """A dataset of the file; WaveformFileError if it is not valid."""

    def dataset(self, name: str) -> h5py.Dataset:
        """A dataset, which stays open until `release`."""
        if name not in self._datasets:
            self._datasets[name] = self._opened(name)
        return self._datasets[name]

    def release(self) -> None:
        """Close the datasets."""
        self._datasets = {}

    def column(self, name: str, part: slice) -> AnyArray:
        """Values of a run of shots, in the byte order of the machine."""
        values: AnyArray = self.dataset(name)[part]
        return values.astype(values.dtype.newbyteorder("="), copy=False)

    def values(self, name: str, shots: IntArray) -> AnyArray:
        """Values of ascending shots."""
        return rows_in_parts(lambda part: self.column(name, part), shots)

    @property
    @abstractmethod
    def sampling_interval(self) -> float:
        """Time between two samples of waveforms and outgoing pulses, s."""

    @abstractmethod
    def counts(self, part: slice) -> IntArray:
        """Samples of each of a run of shots."""

    @abstractmethod
    def gps_times(self, part: slice) -> FloatArray:
        """Times of a run of shots, s."""

    def is_inside(self, part: slice) -> BoolArray:
        """Whether the file holds the samples of each of a run of shots."""
        return np.ones(part.stop - part.start, np.bool_)

    def left_out(self, part: slice) -> dict[str, BoolArray]:
        """Reason -> which shots of a run are skipped unless they are asked for."""
        return {}

    @abstractmethod
    def waves(self, shots: IntArray) -> tuple[UInt16Array, BoolArray]:
        """Samples of ascending shots, and which of them can be used, as `rows_of_counts`."""

    @abstractmethod
    def outgoing(self, shots: IntArray) -> tuple[UInt16Array, IntArray]:
        """Samples of the outgoing pulses of ascending shots, and their numbers, 0 without one."""

    @abstractmethod
    def ends(self, shots: IntArray) -> tuple[FloatArray, FloatArray]:
        """Longitude, latitude and height (n, 3) of the first and of the last samples."""

    @abstractmethod
    def shot_numbers(self, shots: IntArray) -> UInt64Array:
        """Numbers of ascending shots in the file."""

    def origins(self, shots: IntArray) -> FloatArray | None:
        """Longitude, latitude and height (n, 3) of the instrument; None where the file has none."""
        return None

    def noise(self, shots: IntArray) -> RecordedNoise | None:
        """Noise of ascending shots; None if the file does not state it."""
        return None

    def scan_angles(self, shots: IntArray) -> Float32Array:
        """Degrees off nadir; 0 where the file has none."""
        return np.zeros(len(shots), np.float32)


def rows_in_parts(read: Callable[[slice], AnyArray], shots: IntArray) -> AnyArray:
    """Values of ascending shots from a function that reads those of a run of them."""
    if len(shots) == 0:
        return read(slice(0, 0))
    parts = np.split(shots, np.flatnonzero(np.diff(shots) > _MAX_GAP) + 1)
    found = [read(slice(int(part[0]), int(part[-1]) + 1))[part - part[0]] for part in parts]
    return found[0] if len(found) == 1 else np.concatenate(found)
