"""Samples of uncompressed PulseWaves files: where segments are, and their values.

The numbers of segments and of samples may be stored between the samples, so the position of each
number follows from the numbers before it. All pulses of a descriptor take each step together.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import BoolArray, IntArray, UInt16Array
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.limits import OUTSIDE
from fullwaveform.io.pulsewaves.descriptors import (
    PulseDescriptor,
    SamplingDescriptor,
    SamplingTable,
)
from fullwaveform.io.pulsewaves.waves import (
    SEGMENT,
    WAVES_HEADER_SIZE,
    PulseSpans,
    Segments,
    WaveSource,
)

OVERLAPPING = "samples run into those of the next pulse"


class PlainWaves(WaveSource):
    """The uncompressed samples of a ``.wvs`` file; must be closed."""

    def __init__(self, path: Path) -> None:
        self._bytes = FileBytes(path)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    def of_descriptor(
        self, descriptor: PulseDescriptor, first_code: int, spans: PulseSpans
    ) -> tuple[Segments, dict[str, BoolArray]]:
        """See `WaveSource`; segments start at a byte of the file."""
        cursor = _Cursors(self, spans.offsets)
        cursor.skip(np.full(len(spans), descriptor.extra_bytes))
        found = [np.empty(0, dtype=SEGMENT)]
        for code, sampling in enumerate(descriptor.samplings, start=first_code):
            found += cursor.sampling(sampling, code)
        if descriptor.has_three_segments or descriptor.is_short:
            cursor.end_before(spans.ends)
        segments = np.concatenate(found)
        overlapping = cursor.inside & (cursor.offsets > spans.ends)
        readable = cursor.inside & ~overlapping
        segments = segments[readable[segments["pulse"]]]
        segments["pulse"] = spans.numbers[segments["pulse"]]
        return segments, {OUTSIDE: ~cursor.inside, OVERLAPPING: overlapping}

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

    def read(self, segments: Segments, table: SamplingTable) -> UInt16Array:
        """Samples of the segments (n, longest), zero after the end of shorter ones."""
        starts, counts = segments["start"], segments["count"]
        sample_bytes = table.sample_bytes[segments["sampling"]]
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


class _Cursors:
    """Read positions in the samples of many pulses, which advance together."""

    def __init__(self, waves: PlainWaves, offsets: IntArray) -> None:
        self._waves = waves
        self.inside: BoolArray = (offsets >= WAVES_HEADER_SIZE) & (offsets <= waves.size)
        self.offsets = np.where(self.inside, offsets, 0)

    def skip(self, sizes: IntArray) -> None:
        """Advance by the sizes (n,) in bytes; pulses that leave the file are no longer inside."""
        self.offsets = self.offsets + sizes
        self.inside &= self.offsets <= self._waves.size

    def end_before(self, ends: IntArray) -> None:
        """Pulses that were read beyond their ends (n,) are no longer inside."""
        self.inside &= self.offsets <= ends

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
        found["start"], found["count"] = self.offsets[rows], counts[rows]
        found["duration"] = durations[rows] * sampling.duration_scale + sampling.duration_offset
        self.skip(np.where(active, counts * sampling.sample_bytes, 0))
        return found

    def _numbers(
        self, bits: int, active: BoolArray, fixed: int, *, signed: bool = False
    ) -> IntArray:
        """Read a number for the active pulses; `fixed` if it has no bits."""
        if bits == 0:
            return np.full(len(active), fixed, dtype=np.int64)
        starts = self.offsets
        self.skip(np.where(active, bits // 8, 0))
        rows = np.flatnonzero(active & self.inside)
        values = np.zeros(len(active), dtype=np.int64)
        values[rows] = self._waves.numbers(starts[rows], bits, signed=signed)
        return values
