"""Samples of PulseWaves files: where the segments of each pulse are, and their values.

The numbers of segments and of samples may be stored between the samples, so the position of each
number follows from the numbers before it. All pulses of a descriptor take each step together.
"""

from __future__ import annotations

import struct
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import BoolArray, IntArray, RecordArray, UInt16Array
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, SamplingDescriptor

WAVES_SIGNATURE = b"PulseWavesWaves"
WAVES_HEADER_SIZE = 60  # bytes; offsets of pulses count from the start of this header

_HEADER = struct.Struct("<16sI")

Segments = RecordArray  # of type SEGMENT

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
    """The ``.wvs`` file with the samples; must be closed.

    Raises
    ------
    FileNotFoundError
        If the file does not exist.
    WaveformFileError
        If it does not hold uncompressed samples.
    """

    def __init__(self, path: Path) -> None:
        self.path = path
        with path.open("rb") as stream:
            start = stream.read(WAVES_HEADER_SIZE)
        if not start.startswith(WAVES_SIGNATURE):
            raise WaveformFileError(
                f"{path} is not a PulseWaves sample file; must start with "
                f"{WAVES_SIGNATURE.decode()}"
            )
        if len(start) < WAVES_HEADER_SIZE:
            raise WaveformFileError(
                f"{path}: truncated: {len(start)} bytes, the header has {WAVES_HEADER_SIZE}"
            )
        compression = _HEADER.unpack_from(start)[1]
        if compression != 0:
            raise WaveformFileError(
                f"{path}: unsupported compression type {compression} of the samples; must be 0 "
                "(none)"
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
        """Read a number of `bits` bits at each of the offsets (n,), which are inside the file."""
        size = bits // 8
        raw = self._bytes.rows(starts, size)
        values: IntArray = raw.view(f"<{'i' if signed else 'u'}{size}")[:, 0].astype(np.int64)
        return values

    def read(self, starts: IntArray, counts: IntArray, sample_bytes: IntArray) -> UInt16Array:
        """Read samples.

        Parameters
        ----------
        starts
            (n,), byte of the first sample of each row; all samples are inside the file.
        counts
            (n,), samples of each row.
        sample_bytes
            (n,), bytes per sample, 1 or 2.

        Returns
        -------
        Samples (n, longest row), zero after the end of shorter rows.
        """
        samples = np.zeros((len(starts), int(counts.max(initial=0))), dtype=np.uint16)
        # Rows of equal layout are copied together; files usually have few layouts.
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
    """The sample file of a ``.pls`` file: same name, ending .wvs or .WVS.

    Raises
    ------
    FileNotFoundError
        If there is none.
    """
    for candidate in (path.with_suffix(".wvs"), path.with_suffix(".WVS")):
        if candidate.is_file():
            return candidate
    raise FileNotFoundError(
        f"{path.with_suffix('.wvs')} does not exist; it must hold the samples of {path.name}"
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
        (n,), byte at which its samples start; any value.

    Returns
    -------
    The non-empty segments of the pulses whose samples are all inside the file, sampling by sampling
    and segment by segment; and which pulses these are (n,).
    """
    cursor = _Cursors(waves, offsets)
    cursor.skip(np.full(len(offsets), descriptor.extra_bytes))
    found = [np.empty(0, dtype=SEGMENT)]
    for code, sampling in enumerate(descriptor.samplings, start=first_code):
        found += cursor.sampling(sampling, code)
    segments = np.concatenate(found)
    segments = segments[cursor.inside[segments["pulse"]]]
    segments["pulse"] = numbers[segments["pulse"]]
    return segments, cursor.inside


class _Cursors:
    """Read positions in the samples of many pulses, which advance together."""

    def __init__(self, waves: WaveData, offsets: IntArray) -> None:
        self._waves = waves
        self.inside: BoolArray = (offsets >= WAVES_HEADER_SIZE) & (offsets <= waves.size)
        self._offsets = np.where(self.inside, offsets, 0)

    def skip(self, sizes: IntArray) -> None:
        """Advance by the sizes (n,) in bytes; pulses that leave the file are no longer inside."""
        self._offsets = self._offsets + sizes
        self.inside &= self._offsets <= self._waves.size

    def sampling(self, sampling: SamplingDescriptor, code: int) -> list[Segments]:
        """Read the segments of a sampling, by number; `pulse` is a row of this object."""
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
        found = np.zeros(len(rows), dtype=SEGMENT)
        found["pulse"], found["sampling"] = rows, code
        found["start"], found["count"] = self._offsets[rows], counts[rows]
        found["duration"] = durations[rows] * sampling.duration_scale + sampling.duration_offset
        self.skip(np.where(active, counts * sampling.sample_bytes, 0))
        return found

    def _numbers(
        self, bits: int, active: BoolArray, fixed: int, *, signed: bool = False
    ) -> IntArray:
        """Read a number for the active pulses; `fixed` if it has no bits."""
        if bits == 0:
            return np.full(len(active), fixed, dtype=np.int64)
        starts = self._offsets
        self.skip(np.where(active, bits // 8, 0))
        rows = np.flatnonzero(active & self.inside)
        values = np.zeros(len(active), dtype=np.int64)
        values[rows] = self._waves.numbers(starts[rows], bits, signed=signed)
        return values
