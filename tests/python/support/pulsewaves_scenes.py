"""Small PulseWaves files, written field by field."""

from __future__ import annotations

import struct
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import PulseGeometry, ReadTally, WaveformBlock
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

# Bytes of the header of pulses.
SOURCE, GUID, MAJOR, HEADER_SIZE = 20, 24, 172, 174
PULSES_START, PULSE_COUNT, PULSE_FORMAT, ATTRIBUTES = 176, 184, 192, 196
PULSE_SIZE, COMPRESSION, RECORDS, APPENDED = 200, 204, 216, 220
TIME_SCALE, TIME_OFFSET, MIN_TIME, SCALES, OFFSETS = 224, 232, 240, 256, 280
HEADER_END = 352

WAVES_COMPRESSION = 16  # byte of the header of samples

Segment = tuple[int, Sequence[int]]  # duration as stored, samples


@dataclass
class Sampling:
    """A sampling of a descriptor; a number without bits is stored here, not with the pulses."""

    kind: int = 2
    channel: int = 1
    duration_bits: int = 0
    scale: float = 1.0
    offset: float = 0.0
    segment_bits: int = 0
    count_bits: int = 0
    segments: int = 1
    samples: int = 4
    bits: int = 8
    table: int = 0
    unit: float = 1.0
    compression: int = 0

    def record(self) -> bytes:
        start = struct.pack("<IIBBBB", 104, 0, self.kind, self.channel, 0, self.duration_bits)
        start += struct.pack("<ffBB", self.scale, self.offset, self.segment_bits, self.count_bits)
        start += struct.pack("<HIHH", self.segments, self.samples, self.bits, self.table)
        return start + struct.pack("<fI64s", self.unit, self.compression, b"text")

    def waves(self, segments: Sequence[Segment]) -> bytes:
        unsigned = {8: "<B", 16: "<H", 32: "<I"}
        signed = {8: "<b", 16: "<h", 32: "<i"}
        out = b""
        if self.segment_bits:
            out += struct.pack(unsigned[self.segment_bits], len(segments))
        for duration, samples in segments:
            if self.duration_bits:
                out += struct.pack(signed[self.duration_bits], duration)
            if self.count_bits:
                out += struct.pack(unsigned[self.count_bits], len(samples))
            out += struct.pack(f"<{len(samples)}{'B' if self.bits == 8 else 'H'}", *samples)
        return out


@dataclass
class Descriptor:
    """A pulse descriptor."""

    index: int
    samplings: Sequence[Sampling]
    extra: bytes = b""  # before each pulse's samples
    unit: float = 1.0
    compression: int = 0
    centre: int = 0  # time from the optical centre to the anchor

    def record(self) -> bytes:
        start = struct.pack("<IIiHH", 92, 0, self.centre, len(self.extra), len(self.samplings))
        start += struct.pack("<fII64s", self.unit, self.compression, 0, b"text")
        return start + b"".join(sampling.record() for sampling in self.samplings)


@dataclass
class Pulse:
    """A pulse: for each sampling of its descriptor the segments."""

    waves: Sequence[Sequence[Segment]]
    time: int = 0
    descriptor: int = 1
    anchor: tuple[int, int, int] = (0, 0, 0)
    target: tuple[int, int, int] = (0, 0, -15000)
    offset: int | None = None  # of the samples; by default the actual one
    returning: tuple[int, int] = (0, 0)  # first and last sample
    flags: int = 0
    intensity: int = 0
    classification: int = 0
    extra: bytes = b""  # attributes beyond the standard fields; by default those of the scene


@dataclass
class Scene:
    """Content of a file; variable records are (user, id, data)."""

    descriptors: Sequence[Descriptor]
    pulses: Sequence[Pulse]
    records: Sequence[tuple[bytes, int, bytes]] = ()
    appended: Sequence[tuple[bytes, int, bytes]] = ()
    time_scale: float = 1e-6
    time_offset: float = 0.0
    scales: tuple[float, float, float] = (0.01, 0.01, 0.01)
    offsets: tuple[float, float, float] = (0.0, 0.0, 0.0)
    pulse_extra: bytes = b""  # attributes beyond the standard fields of each pulse
    patches: dict[int, tuple[str, float]] = field(default_factory=dict)  # byte -> layout, value

    def write(self, path: Path) -> Path:
        """Write the pulses and the companion file with their samples; returns `path`."""
        own = [(b"PulseWaves_Spec", 200000 + d.index, d.record()) for d in self.descriptors]
        records = [*self.records, *own]
        record_bytes = b"".join(_record_header(*one) + one[2] for one in records)
        waves, pulses = self._pulses_and_waves()
        content = bytearray(self._header(len(records), len(record_bytes)) + record_bytes + pulses)
        content += b"".join(one[2] + _record_header(*one) for one in self.appended)
        for position, (layout, value) in self.patches.items():
            struct.pack_into(layout, content, position, value)
        path.write_bytes(content)
        path.with_suffix(".wvs").write_bytes(waves)
        return path

    def _pulses_and_waves(self) -> tuple[bytes, bytes]:
        by_index = {one.index: one for one in self.descriptors}
        waves = bytearray(struct.pack("<16sI40s", b"PulseWavesWaves", 0, b""))
        pulses = bytearray()
        for pulse in self.pulses:
            offset = len(waves) if pulse.offset is None else pulse.offset
            fields = (pulse.time, offset, *pulse.anchor, *pulse.target, *pulse.returning)
            kinds = (pulse.descriptor, pulse.flags, pulse.intensity, pulse.classification)
            pulses += struct.pack("<qq3i3ihhBBBB", *fields, *kinds)
            pulses += pulse.extra or self.pulse_extra
            descriptor = by_index.get(pulse.descriptor)
            if descriptor is not None:
                waves += descriptor.extra
                for sampling, segments in zip(descriptor.samplings, pulse.waves, strict=True):
                    waves += sampling.waves(segments)
        return bytes(waves), bytes(pulses)

    def _header(self, records: int, size_of_records: int) -> bytes:
        start = HEADER_END + size_of_records
        header = struct.pack("<16sII16s64s64s", b"PulseWavesPulse", 0, 0, b"", b"", b"")
        header += struct.pack("<HHBBH", 0, 0, 0, 3, HEADER_END)
        extra = self.pulses[0].extra if self.pulses else b""
        size = 48 + len(extra or self.pulse_extra)
        header += struct.pack("<qqIII", start, len(self.pulses), 0, 0, size)
        header += struct.pack("<IqIi", 0, 0, records, len(self.appended))
        header += struct.pack("<dd2q", self.time_scale, self.time_offset, 0, 0)
        return header + struct.pack("<3d3d6d", *self.scales, *self.offsets, *[0.0] * 6)


def end_of_appended() -> tuple[bytes, int, bytes]:
    """The record that ends a list of appended ones: first in the file, last when read backwards."""
    return (b"PulseWaves_Spec", 0xFFFFFFFF, b"")


def three_pulses(**options: object) -> Scene:
    """Three pulses of one returning waveform of four samples each, one second between pulses."""
    pulses = [
        Pulse([[(0, [1, 2, 3, 4])]], time=1_000_000),
        Pulse([[(0, [5, 6, 7, 8])]], time=2_000_000),
        Pulse([[(0, [9, 10, 11, 12])]], time=3_000_000),
    ]
    return Scene([Descriptor(1, [Sampling()])], pulses, **options)  # type: ignore[arg-type]


TWO_CHANNELS = Descriptor(
    7,
    [
        Sampling(kind=1, channel=3, count_bits=8),
        Sampling(channel=1, duration_bits=32, segment_bits=8, count_bits=8),
        Sampling(channel=0, duration_bits=16, segment_bits=8, count_bits=16),
    ],
)


def two_channels() -> Scene:
    """Pulses with 3, 0 and 2 returning segments on two channels."""
    pulses = [
        Pulse(
            [[(0, [50, 51])], [(100, [1, 2, 3]), (200, [4])], [(110, [5, 6])]],
            time=10,
            descriptor=7,
        ),
        Pulse([[(0, [52, 53, 54])], [], []], time=20, descriptor=7),
        Pulse([[(0, [55])], [(-3, [7, 8])], [(120, [9, 10, 11, 12])]], time=30, descriptor=7),
    ]
    return Scene([TWO_CHANNELS], pulses)


def places(geometry: PulseGeometry, picoseconds: float) -> FloatArray:
    """Where the waveforms are (n, 3) at a time after their first samples."""
    distance = (geometry.location - picoseconds)[:, np.newaxis] * geometry.direction
    found: FloatArray = geometry.anchor + distance
    return found


def of_waveforms(block: WaveformBlock) -> Scene:
    """Waveforms of one per shot and 1 ns; times are multiples of 1/256 s, coordinates of 1 mm."""
    assert block.geometry is not None
    assert block.attributes is not None
    offsets = np.round(block.geometry.anchor[0], -3)
    anchors = np.rint(1000.0 * (places(block.geometry, 0.0) - offsets)).astype(int)
    targets = np.rint(1000.0 * (places(block.geometry, 1e6) - offsets)).astype(int)
    times = np.rint(256.0 * block.attributes.gps_time).astype(int)
    pulses = [
        Pulse(
            [[(0, samples[:count].tolist())]],
            time=int(time),
            anchor=tuple(anchor.tolist()),
            target=tuple(target.tolist()),
        )
        for samples, count, time, anchor, target in zip(
            block.samples, block.counts, times, anchors, targets, strict=True
        )
    ]
    layout = Descriptor(1, [Sampling(count_bits=16, bits=16)])
    x, y, z = offsets.tolist()
    scales = (0.001, 0.001, 0.001)
    return Scene([layout], pulses, time_scale=1 / 256, scales=scales, offsets=(x, y, z))


def read(path: Path, **options: object) -> tuple[list[WaveformBlock], ReadTally]:
    """All blocks of a file and its tally."""
    with PulseWavesReader(path, **options) as reader:  # type: ignore[arg-type]
        return list(reader.blocks()), reader.tally


def _record_header(user: bytes, record_id: int, data: bytes) -> bytes:
    return struct.pack("<16sIIq64s", user, record_id, 0, len(data), b"description")
