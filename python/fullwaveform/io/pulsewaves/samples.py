"""Samples of PulseWaves files: where the segments of each pulse lie, and what is in them.

The waves of a pulse have no fixed size: numbers of segments and of samples may stand between the
samples. So the place of each number follows from those before it; all pulses of a descriptor take
each such step together.
"""

from __future__ import annotations

import struct
from pathlib import Path

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import BoolArray, IntArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, SamplingDescriptor

WAVES_SIGNATURE = b"PulseWavesWaves"
WAVES_HEADER_SIZE = 60  # bytes; offsets of pulses count from the start of this header

_HEADER = struct.Struct("<16sI")

Segments = npt.NDArray[np.void]  # of type SEGMENT

SEGMENT = np.dtype(
    [
        ("pulse", np.int64),  # running number in the file
        ("start", np.int64),  # byte of the first sample in the file of samples
        ("count", np.int64),  # samples
        ("duration", np.float64),  # from the anchor to the first sample, sampling units
        ("sampling", np.int64),  # code in the table of samplings
    ]
)


class WaveData:
    """The bytes of a ``.wvs`` file, never loaded as a whole; to be closed.

    Raises
    ------
    FileNotFoundError
        If there is no such file.
    WaveformFileError
        If it is not a file of uncompressed samples.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        with path.open("rb") as stream:
            start = stream.read(WAVES_HEADER_SIZE)
        if not start.startswith(WAVES_SIGNATURE):
            raise WaveformFileError(
                f"{path} is not a file of samples: it does not start with "
                f"{WAVES_SIGNATURE.decode()}"
            )
        if len(start) < WAVES_HEADER_SIZE:
            raise WaveformFileError(
                f"{path} has {len(start)} bytes; its header alone takes {WAVES_HEADER_SIZE}"
            )
        compression = _HEADER.unpack_from(start)[1]
        if compression != 0:
            raise WaveformFileError(
                f"{path}: the samples are compressed, type {compression}; only type 0, none, can "
                "be read"
            )
        self._bytes = FileBytes(path)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    @property
    def size(self) -> int:
        """Bytes of the file."""
        return self._bytes.size

    def numbers(self, starts: IntArray, bits: int, *, signed: bool = False) -> IntArray:
        """Read a number of `bits` bits at each of the places (n,), which lie inside the file."""
        size = bits // 8
        raw = self._bytes.rows(starts, size)
        values: IntArray = raw.view(f"<{'i' if signed else 'u'}{size}")[:, 0].astype(np.int64)
        return values

    def gather(
        self, starts: IntArray, counts: IntArray, sample_bytes: IntArray
    ) -> npt.NDArray[np.uint16]:
        """Gather samples.

        Parameters
        ----------
        starts
            (n,), byte of the first sample of each row; all samples lie inside the file.
        counts
            (n,), samples of each row.
        sample_bytes
            (n,), bytes per sample, 1 or 2.

        Returns
        -------
        Samples (n, longest row), zero behind the end of shorter rows.
        """
        samples = np.zeros((len(starts), int(counts.max(initial=0))), dtype=np.uint16)
        # Rows of equal layout are copied as a whole; few layouts are usual, many are possible.
        layout = 2 * counts + (sample_bytes == 2)
        order = np.argsort(layout, kind="stable")
        for rows in np.split(order, np.flatnonzero(np.diff(layout[order])) + 1):
            count = int(counts[rows[0]]) if len(rows) else 0
            if count == 0:
                continue
            width = int(sample_bytes[rows[0]])
            raw = self._bytes.rows(starts[rows], count * width)
            samples[rows, :count] = raw if width == 1 else raw.view("<u2")
        return samples


def find_waves(path: Path) -> Path:
    """Find the file of samples of a ``.pls`` file: same name, ending .wvs or .WVS.

    Raises
    ------
    FileNotFoundError
        If there is none.
    """
    for candidate in (path.with_suffix(".wvs"), path.with_suffix(".WVS")):
        if candidate.is_file():
            return candidate
    raise FileNotFoundError(
        f"{path.with_suffix('.wvs')} does not exist; it should hold the samples of {path.name}"
    )


def locate_segments(
    waves: WaveData,
    descriptor: PulseDescriptor,
    first_code: int,
    numbers: IntArray,
    offsets: IntArray,
) -> tuple[Segments, BoolArray]:
    """Find the segments of pulses that share a descriptor.

    Parameters
    ----------
    waves, descriptor
        The samples and how they are stored.
    first_code
        Code of the descriptor's first sampling.
    numbers
        (n,), running number of each pulse.
    offsets
        (n,), where its waves should start, bytes; any value.

    Returns
    -------
    The segments of the pulses whose waves lie wholly inside the file, those without samples left
    out, sampling by sampling and segment by segment; and which pulses these are (n,).
    """
    walk = _Walk(waves, offsets)
    walk.skip(np.full(len(offsets), descriptor.extra_bytes))
    found = [np.empty(0, dtype=SEGMENT)]
    for code, sampling in enumerate(descriptor.samplings, start=first_code):
        found += walk.sampling(sampling, code)
    segments = np.concatenate(found)
    segments = segments[walk.inside[segments["pulse"]]]
    segments["pulse"] = numbers[segments["pulse"]]
    return segments, walk.inside


class _Walk:
    """Goes through the waves of many pulses at once; each has its own place in the file."""

    def __init__(self, waves: WaveData, offsets: IntArray) -> None:
        self._waves = waves
        self.inside: BoolArray = (offsets >= WAVES_HEADER_SIZE) & (offsets <= waves.size)
        self._places = np.where(self.inside, offsets, 0)

    def skip(self, sizes: IntArray) -> None:
        """Go on by so many bytes (n,); pulses that would leave the file are outside from now on."""
        self._places = self._places + sizes
        self.inside &= self._places <= self._waves.size

    def sampling(self, sampling: SamplingDescriptor, code: int) -> list[Segments]:
        """Go through a sampling: the segments by their number; `pulse` is a row here."""
        segments = self._numbers(sampling.segment_bits, self.inside, sampling.segments)
        found = []
        number = 0
        while (active := self.inside & (segments > number)).any():
            found.append(self._segment(sampling, code, active))
            number += 1
        return found

    def _segment(self, sampling: SamplingDescriptor, code: int, active: BoolArray) -> Segments:
        durations = self._numbers(sampling.duration_bits, active, 0, signed=True)
        counts = self._numbers(sampling.count_bits, active, sampling.samples)
        rows = np.flatnonzero(active & (counts > 0))
        part = np.zeros(len(rows), dtype=SEGMENT)
        part["pulse"], part["sampling"] = rows, code
        part["start"], part["count"] = self._places[rows], counts[rows]
        part["duration"] = durations[rows] * sampling.duration_scale + sampling.duration_offset
        self.skip(np.where(active, counts * sampling.sample_bytes, 0))
        return part

    def _numbers(
        self, bits: int, active: BoolArray, fixed: int, *, signed: bool = False
    ) -> IntArray:
        """Read a number of the active pulses; without bits it is the fixed one."""
        if bits == 0:
            return np.full(len(active), fixed, dtype=np.int64)
        starts = self._places
        self.skip(np.where(active, bits // 8, 0))
        rows = np.flatnonzero(active & self.inside)
        values = np.zeros(len(active), dtype=np.int64)
        values[rows] = self._waves.numbers(starts[rows], bits, signed=signed)
        return values
