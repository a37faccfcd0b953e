"""Small compressed PulseWaves files; see `pulsewaves_scenes`."""

from __future__ import annotations

import itertools
import struct
from collections.abc import Sequence
from dataclasses import dataclass, field, replace
from pathlib import Path

from .pulsewaves_scenes import PULSES_START, Descriptor, Pulse, Scene, Segment
from .range_encoder import (
    ByAppearance,
    Encoder,
    Last,
    Models,
    Number,
    Symbol,
    chunk_table,
    differences,
    signed32,
)

PULSE_ITEM, SOURCE16, SOURCE32, EXTRA = 1001, 1002, 1003, 1000
_FIELDS = struct.Struct("<qq3i3iHHBBBB")


def samples_stream(descriptor: Descriptor, waves: Sequence[Sequence[Segment]]) -> bytes:
    """The stream of a pulse's samples."""
    out, numbers = Encoder(), Number(32)
    last_duration = last_count = 0
    for sampling, segments in zip(descriptor.samplings, waves, strict=True):
        if sampling.segment_bits:
            numbers.encode(out, len(segments), 1)
        for duration, samples in segments:
            if sampling.duration_bits:
                numbers.encode(out, duration, last_duration)
                last_duration = duration
            if sampling.count_bits:
                numbers.encode(out, len(samples), last_count)
                last_count = len(samples)
            coder, context = Number(sampling.bits, 2), 0 if sampling.kind == 2 else 1
            for sample, before in differences(list(samples)):
                coder.encode(out, sample, before, context)
    return out.stream()


@dataclass
class _Times:
    start: Symbol = field(default_factory=lambda: Symbol(3))
    multiples: Symbol = field(default_factory=lambda: Symbol(256))
    numbers: Number = field(default_factory=lambda: Number(32, 9))
    usual: int = 0
    extremes: int = 0

    def encode(self, out: Encoder, time: int, before: int) -> None:
        step = time - before
        small = -(1 << 31) <= step < 1 << 31
        if self.usual == 0:
            self.start.encode(out, 0 if step == 0 else 1 if small else 2)
            if step != 0 and small:
                self.numbers.encode(out, step, 0, 0)
                self.usual, self.extremes = step, 0
            elif step != 0:
                out.bits64(time % (1 << 64))
            return
        factor = round(step / self.usual)
        if not small:
            self.multiples.encode(out, 255)
            out.bits64(time % (1 << 64))
        elif step == self.usual:
            self.multiples.encode(out, 254)
            self.extremes = 0
        elif factor == 1:
            self.multiples.encode(out, 1)
            self.numbers.encode(out, step, self.usual, 1)
            self.extremes = 0
        else:
            self._multiple(out, step, max(-10, min(factor, 243)))

    def _multiple(self, out: Encoder, step: int, factor: int) -> None:
        self.multiples.encode(out, factor if factor >= 0 else 243 - factor)
        context = {0: 7, 243: 4, -10: 6}.get(factor, 5 if factor < 0 else 2 if factor < 10 else 3)
        self.numbers.encode(out, step, signed32(factor * self.usual), context)
        if factor in (0, 243, -10):
            self.extremes += 1
            if self.extremes > 3:
                self.usual, self.extremes = step, 0


class _Pulses:
    """Encodes the pulses of a chunk after its first one."""

    def __init__(self) -> None:
        self.descriptor_context = self.mask = 0
        self.contexts = {name: ByAppearance() for name in ("descriptor", "flags", "class")}
        self.changed, self.descriptors = Models(64), Models(256)
        self.flags, self.classes = Models(256), Models(256)
        self.intensities = Number(8, 128)
        self.firsts, self.lasts = Number(16, 512), Number(16, 512)
        self.times = _Times()
        self.offsets, self.last_offset = Number(32, 128), Last()
        self.anchors = [Number(32, 4) for _ in range(3)]
        self.targets = [Number(32) for _ in range(3)]
        self.last_anchor = [Last() for _ in range(3)]

    def encode(self, out: Encoder, record: bytes, before: bytes) -> None:
        new, old = _FIELDS.unpack(record), _FIELDS.unpack(before)
        context = self._changes(out, new[8:], old[8:])
        self.times.encode(out, new[0], old[0])
        self._offset(out, new[1] - old[1])
        steps = [signed32(a - b) for a, b in zip(new[2:5], old[2:5], strict=True)]
        for coder, last, step in zip(self.anchors, self.last_anchor, steps, strict=True):
            coder.encode(out, step, last.get(context), context)
            last.set(context, step)
        for coder, value, target, step in zip(self.targets, new[5:8], old[5:8], steps, strict=True):
            coder.encode(out, value, signed32(target + step))

    def _changes(self, out: Encoder, new: Sequence[int], old: Sequence[int]) -> int:
        first, last, descriptor, flags, intensity, kind = new
        place = int(self.mask != 0)
        expected = max(-32768, min(old[1] - old[0] + first, 32767)) % 65536
        change = 32 * (first != old[0]) + 8 * (descriptor != old[2]) + 4 * (flags != old[3])
        change += 2 * (intensity != old[4]) + (kind != old[5])
        if change or last != old[1]:
            change += 16 * (last != expected)
        row = self.mask | self.descriptor_context
        self.changed[row].encode(out, change)
        if change & 8:
            self.descriptors[row].encode(out, descriptor)
            self.descriptor_context = self.contexts["descriptor"].of(descriptor)
            row = self.mask | self.descriptor_context
        ranges = row
        if change & 4:
            self.flags[self.contexts["flags"].of(row << 8 | old[3])].encode(out, flags)
            self.mask, ranges, place = 128, row | 256, place | 2
        if change & 2:
            self.intensities.encode(out, intensity, old[4], self.descriptor_context)
        if change & 1:
            self.classes[self.contexts["class"].of(row << 8 | old[5])].encode(out, kind)
        if change & 32:
            self.firsts.encode(out, first, old[0], ranges)
        if change & 16:
            held = max(-32768, min(old[1] - old[0] + first, 32767))
            self.lasts.encode(out, last, held, ranges)
        return place

    def _offset(self, out: Encoder, step: int) -> None:
        prediction = self.last_offset.get(self.descriptor_context)
        if -(1 << 31) < step < 1 << 31:
            self.offsets.encode(out, step, prediction, self.descriptor_context)
            self.last_offset.set(self.descriptor_context, step)
        else:
            self.offsets.encode(out, -(1 << 31), prediction, self.descriptor_context)
            out.bits64(step % (1 << 64))


class _Sources:
    def __init__(self, size: int) -> None:
        self.remembered = list(range(8 * size))
        self.choice, self.news, self.next = Symbol(8 * size + 2), Number(8 * size), 0

    def encode(self, out: Encoder, record: bytes, before: bytes) -> None:
        new, old = int.from_bytes(record, "little"), int.from_bytes(before, "little")
        if new == old:
            self.choice.encode(out, 0)
        elif new in self.remembered:
            self.choice.encode(out, 2 + self.remembered.index(new))
        else:
            self.choice.encode(out, 1)
            self.news.encode(out, new, old)
            self.remembered[self.next] = old
            self.next = (self.next + 1) % len(self.remembered)


class _Extra:
    def __init__(self, size: int) -> None:
        self.models = [Symbol(256) for _ in range(size)]

    def encode(self, out: Encoder, record: bytes, before: bytes) -> None:
        for model, new, old in zip(self.models, record, before, strict=True):
            model.encode(out, (new - old) % 256)


def chunk(records: Sequence[bytes], items: Sequence[tuple[int, int]]) -> bytes:
    """A chunk of pulses."""
    if len(records) == 1:
        return records[0]
    out = Encoder()
    coders = [
        _Pulses() if kind == PULSE_ITEM else _Extra(size) if kind == EXTRA else _Sources(size)
        for kind, size in items
    ]
    for before, record in itertools.pairwise(records):
        begin = 0
        for coder, (_, size) in zip(coders, items, strict=True):
            coder.encode(out, record[begin : begin + size], before[begin : begin + size])
            begin += size
    return records[0] + out.stream()


@dataclass
class Compression:
    """How a scene is compressed."""

    sizes: Sequence[int] | int = 2  # pulses of each chunk; different ones if a sequence
    items: Sequence[tuple[int, int]] = ((PULSE_ITEM, 48),)
    pulses: bool = True  # whether the pulses are compressed
    samples: bool = True
    table: str = "start"  # where its position is: "start", "end"; "" = no table
    fields: tuple[int, ...] = (1, 0, 0, 0, 0, 0)  # of the record, before the chunk size

    def record(self) -> bytes:
        size = self.sizes if isinstance(self.sizes, int) else 0xFFFFFFFF
        start = struct.pack("<HHBBHIIH", *self.fields, size, len(self.items))
        return start + b"".join(struct.pack("<HHH", *item, 1) for item in self.items)


def write_compressed(scene: Scene, path: Path, how: Compression | None = None) -> Path:
    """Write the pulses to `path` and the samples next to it, compressed as asked for."""
    how = how or Compression()
    suffixes = ".wvz" if how.samples else ".wvs"
    scene, waves = _with_offsets(scene) if how.samples else (scene, b"")
    records = [(b"PulseWaves_Spec", 5, how.record())] if how.pulses else []
    replace(scene, records=[*scene.records, *records]).write(path)
    if how.samples:
        path.with_suffix(".wvs").unlink()
        path.with_suffix(suffixes).write_bytes(waves)
    if how.pulses:
        path.write_bytes(_with_chunks(path.read_bytes(), scene, how))
    return path


def _with_offsets(scene: Scene) -> tuple[Scene, bytes]:
    """The scene with offsets into the compressed samples, which are returned, too."""
    by_index = {one.index: one for one in scene.descriptors}
    waves = struct.pack("<16sI40s", b"PulseWavesWaves", 1, b"")
    pulses: list[Pulse] = []
    for pulse in scene.pulses:
        pulses.append(replace(pulse, offset=len(waves) if pulse.offset is None else pulse.offset))
        descriptor = by_index.get(pulse.descriptor)
        if descriptor is not None:
            waves += descriptor.extra + samples_stream(descriptor, pulse.waves)
    return replace(scene, pulses=pulses), waves


def _with_chunks(content: bytes, scene: Scene, how: Compression) -> bytes:
    (start,) = struct.unpack_from("<q", content, PULSES_START)
    size, count = sum(bytes_ for _, bytes_ in how.items), len(scene.pulses)
    plain = [content[start + size * i : start + size * (i + 1)] for i in range(count)]
    appended = content[start + size * count :]
    sizes = how.sizes if not isinstance(how.sizes, int) else [how.sizes] * -(-count // how.sizes)
    chunks, pulses = [], []
    first = 0
    for pulses_of_chunk in sizes:
        records = plain[first : first + pulses_of_chunk]
        pulses.append(len(records))
        chunks.append(chunk(records, how.items))
        first += pulses_of_chunk
    body = b"".join(chunks)
    table = struct.pack("<II", 0, len(chunks)) + chunk_table(
        [len(one) for one in chunks], None if isinstance(how.sizes, int) else pulses
    )
    position = start + 8 + len(body)
    shown = {"start": position, "end": -1, "": start}[how.table]
    ending = {"start": b"", "end": struct.pack("<q", position), "": b""}[how.table]
    if how.table == "":
        table, appended = b"", b""
    return content[:start] + struct.pack("<q", shown) + body + table + appended + ending
