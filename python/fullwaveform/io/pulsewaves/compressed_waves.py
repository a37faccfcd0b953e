"""Samples of compressed PulseWaves files: each pulse has a stream that is decoded as a whole.

What was decoded to find the segments is kept until their samples are read, as far as memory allows.
"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

from fullwaveform.core.byte_rows import copy_rows
from fullwaveform.core.pulsewaves_decoding import DecodedWaveforms, PulseState, decode_waveforms
from fullwaveform.data.arrays import BoolArray, IntArray, UInt8Array, UInt16Array
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.limits import OUTSIDE
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, SamplingTable
from fullwaveform.io.pulsewaves.waves import (
    SEGMENT,
    WAVES_HEADER_SIZE,
    PulseSpans,
    Segments,
    WaveSource,
)

DAMAGED = "compressed samples damaged"
TOO_MANY = "too many samples in a compressed pulse"

_READ_SIZE = 1 << 24  # bytes decoded at once
_MAX_STREAM = 1 << 25  # bytes; more than the samples of a pulse that is not too long take
_TAIL = 1 << 16  # bytes read for a pulse whose end is not known, unless it is the first one
_KEPT_SAMPLES = 1 << 25  # 64 MiB
_KEPT_GROUPS = 64
_INDEX_BITS = 22  # of the number of a sample in its pulse; larger pulses are not decoded
_MAX_OFFSET = 1 << (62 - _INDEX_BITS)


@dataclass(frozen=True, slots=True)
class _Group:
    """Decoded pulses of one descriptor."""

    descriptor: PulseDescriptor
    offsets: IntArray  # (m,) of the pulses, ascending
    first_segments: IntArray  # (m + 1,) index of the first segment of each
    decoded: DecodedWaveforms

    def find(self, offsets: IntArray) -> IntArray:
        """Index of the pulse at each offset (n,), -1 if it is not here."""
        index = np.minimum(np.searchsorted(self.offsets, offsets), len(self.offsets) - 1)
        found: IntArray = np.where(self.offsets[index] == offsets, index, -1)
        return found


class CompressedWaves(WaveSource):
    """The samples of a ``.wvz`` file; must be closed.

    A segment starts at the offset of its pulse times 2^22 plus the number of its first sample in
    the pulse.
    """

    def __init__(self, path: Path) -> None:
        self._bytes = FileBytes(path)
        self._groups: list[_Group] = []

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()
        self.forget()

    def forget(self) -> None:
        """See `WaveSource`."""
        self._groups.clear()

    def of_descriptor(
        self, descriptor: PulseDescriptor, first_code: int, spans: PulseSpans
    ) -> tuple[Segments, dict[str, BoolArray]]:
        """See `WaveSource`."""
        size = min(self._bytes.size, _MAX_OFFSET)
        inside = (spans.offsets >= WAVES_HEADER_SIZE) & (spans.offsets < size)
        states = np.full(len(spans), PulseState.TRUNCATED, dtype=np.uint8)
        is_last = spans.ends >= size
        parts = [np.empty(0, dtype=SEGMENT)]
        for group, rows, index in self._decoded(descriptor, spans, np.flatnonzero(inside)):
            states[rows] = group.decoded.states[index]
            parts.append(_segments(group, index, spans.numbers[rows], first_code))
        truncated = states == PulseState.TRUNCATED
        return np.concatenate(parts), {
            OUTSIDE: truncated & (is_last | ~inside),
            DAMAGED: (states == PulseState.DAMAGED) | (truncated & inside & ~is_last),
            TOO_MANY: states == PulseState.TOO_LONG,
        }

    def read(self, segments: Segments, table: SamplingTable) -> UInt16Array:
        """See `WaveSource`."""
        counts = segments["count"]
        samples = np.zeros((len(segments), int(counts.max(initial=0))), dtype=np.uint16)
        offsets = segments["start"] >> _INDEX_BITS
        in_pulse = segments["start"] & ((1 << _INDEX_BITS) - 1)
        spans = PulseSpans(segments["pulse"], offsets, np.full(len(segments), self._bytes.size))
        owners = np.searchsorted(table.first_codes, segments["sampling"], side="right") - 1
        for owner in np.unique(owners[counts > 0]):
            chosen = np.flatnonzero((owners == owner) & (counts > 0))
            for group, rows, index in self._decoded(table.descriptors[owner], spans, chosen):
                starts = group.decoded.sample_starts[index] + in_pulse[rows]
                _copy_runs(group.decoded.samples, starts, counts[rows], rows, samples)
        return samples

    def _decoded(
        self, descriptor: PulseDescriptor, spans: PulseSpans, rows: IntArray
    ) -> Iterator[tuple[_Group, IntArray, IntArray]]:
        """Decode the pulses of the given rows of `spans`, unless that has been done.

        Yields groups of decoded pulses with the rows that they contain and the index in the group
        for each of these rows.
        """
        for group in self._groups.copy():
            if group.descriptor is descriptor:
                index = group.find(spans.offsets[rows])
                if (index >= 0).any():
                    yield group, rows[index >= 0], index[index >= 0]
                    rows = rows[index < 0]
        while len(rows) > 0:
            group = self._decode(descriptor, spans.of(rows))
            index = group.find(spans.offsets[rows])
            yield group, rows[index >= 0], index[index >= 0]
            rows = rows[index < 0]

    def _decode(self, descriptor: PulseDescriptor, spans: PulseSpans) -> _Group:
        """Decode at least the first of these pulses in the file, and others near it."""
        order = np.lexsort((spans.ends, spans.offsets))
        offsets, first = np.unique(spans.offsets[order], return_index=True)
        ends = np.minimum(spans.ends[order][first], self._bytes.size)
        near = offsets < offsets[0] + _READ_SIZE
        offsets, ends = offsets[near], ends[near]
        tails = np.minimum(ends, offsets + _TAIL)
        tails[0] = min(ends[0], offsets[0] + _MAX_STREAM)
        begin, stop = int(offsets[0]), int(tails.max())
        decoded = decode_waveforms(
            self._read(begin, stop),
            offsets - begin,
            ends - begin,
            descriptor.extra_bytes,
            _layout(descriptor),
        )
        # A pulse whose bytes were not all read is decoded again, as the first one of a group.
        done = len(decoded.states)
        cut = (decoded.states == PulseState.TRUNCATED) & (ends[:done] > stop)
        cut[0] = False
        done = int(np.argmax(cut)) if cut.any() else done
        first_segments = np.searchsorted(decoded.pulse, np.arange(done + 1))
        group = _Group(descriptor, offsets[:done], first_segments, decoded)
        self._keep(group)
        return group

    def _read(self, begin: int, stop: int) -> UInt8Array:
        raw: UInt8Array = self._bytes.rows(np.array([begin]), stop - begin)[0]
        return raw

    def _keep(self, group: _Group) -> None:
        self._groups.append(group)
        while len(self._groups) > 1 and (
            len(self._groups) > _KEPT_GROUPS
            or sum(len(kept.decoded.samples) for kept in self._groups) > _KEPT_SAMPLES
        ):
            del self._groups[0]


def _copy_runs(
    source: UInt16Array, starts: IntArray, counts: IntArray, rows: IntArray, target: UInt16Array
) -> None:
    """Copy runs of samples (n,), of at least 1 sample each, to the starts of rows of `target`."""
    for count in np.flatnonzero(np.bincount(counts)).tolist():
        equal = counts == count
        if count == target.shape[1]:  # nearly all, where segments have a fixed length
            places = starts[equal] * source.itemsize
            copy_rows(source.view(np.uint8), places, rows[equal], target.view(np.uint8))
        else:
            target[rows[equal], :count] = sliding_window_view(source, count)[starts[equal]]


def _segments(group: _Group, index: IntArray, numbers: IntArray, first_code: int) -> Segments:
    """The non-empty segments of the pulses `index` (n,) of a group, whose numbers are given."""
    counts = group.first_segments[index + 1] - group.first_segments[index]
    pulse = np.repeat(np.arange(len(index)), counts)
    within = np.arange(len(pulse)) - np.repeat(np.cumsum(counts) - counts, counts)
    rows = group.first_segments[index][pulse] + within
    decoded = group.decoded
    segments = np.zeros(len(rows), dtype=SEGMENT)
    segments["pulse"] = numbers[pulse]
    in_pulse = decoded.start[rows] - decoded.sample_starts[index][pulse]
    segments["start"] = (group.offsets[index][pulse] << _INDEX_BITS) + in_pulse
    segments["count"] = decoded.count[rows]
    sampling = decoded.sampling[rows]
    segments["sampling"] = first_code + sampling
    scales = np.array([one.duration_scale for one in group.descriptor.samplings])
    offsets = np.array([one.duration_offset for one in group.descriptor.samplings])
    if len(rows) > 0:
        segments["duration"] = decoded.duration[rows] * scales[sampling] + offsets[sampling]
    return segments[segments["count"] > 0]


def _layout(descriptor: PulseDescriptor) -> IntArray:
    """The samplings as the decoder takes them."""
    rows = [
        (
            one.segment_bits,
            one.duration_bits,
            one.count_bits,
            one.segments,
            one.samples,
            one.sample_bits,
        )
        for one in descriptor.samplings
    ]
    return np.array(rows, dtype=np.int64).reshape(-1, 6)
