"""Compressed PulseWaves files that are truncated, damaged or declare what they do not hold."""

from __future__ import annotations

import os
import struct
from collections.abc import Callable, Iterator
from dataclasses import replace
from pathlib import Path

from ..support import pulsewaves_scenes as made
from ..support.compressed_scenes import EXTRA, PULSE_ITEM, SOURCE16, Compression, write_compressed
from ..support.las_scenes import patch
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene
from ..support.range_encoder import Encoder, Number, chunk_table

Case = Callable[[Path], list[str]]

RECORD = made.HEADER_END + 96  # first byte of the record on the compression
CHUNK_SIZE, ITEMS = RECORD + 12, RECORD + 16
SAMPLES = [5, 5, 90, 40, 6, 5]


def six_pulses() -> Scene:
    """Pulses of one returning segment, whose number of samples is stored."""
    pulses = [Pulse([[(0, SAMPLES)]], time=1_000_000 * n, flags=n % 2) for n in range(6)]
    return Scene([Descriptor(1, [Sampling(count_bits=8)])], pulses)


def extract(path: Path) -> list[str]:
    return ["extract", str(path), "-o", str(path.parent / "out.csv")]


def written(folder: Path, **options: object) -> Path:
    return write_compressed(six_pulses(), folder / "scan.plz", Compression(**options))  # type: ignore[arg-type]


def start_of(path: Path) -> int:
    """First byte of the pulses: the position of the chunk table."""
    (start,) = struct.unpack_from("<q", path.read_bytes(), made.PULSES_START)
    return int(start)


def table_of(path: Path) -> int:
    (table,) = struct.unpack_from("<q", path.read_bytes(), start_of(path))
    return int(table)


def cut(missing: int, *, waves: bool = False, **options: object) -> Case:
    def case(folder: Path) -> list[str]:
        path = written(folder, **options)
        victim = path.with_suffix(".wvz") if waves else path
        os.truncate(victim, victim.stat().st_size - missing)
        return extract(path)

    return case


def patched(position: int, layout: str, value: float, *, waves: bool = False) -> Case:
    def case(folder: Path) -> list[str]:
        path = written(folder)
        patch(path.with_suffix(".wvz") if waves else path, position, layout, value)
        return extract(path)

    return case


def moved_table(value: int, *, table: str = "start") -> Case:
    """Another position of the chunk table."""

    def case(folder: Path) -> list[str]:
        path = written(folder, table=table)
        at_end = path.stat().st_size - 8
        patch(path, start_of(path) if table == "start" else at_end, "<q", value)
        return extract(path)

    return case


def in_table(offset: int, layout: str, value: int, **options: object) -> Case:
    def case(folder: Path) -> list[str]:
        path = written(folder, **options)
        patch(path, table_of(path) + offset, layout, value)
        return extract(path)

    return case


def other_table(entries: list[int], pulses: list[int] | None, **options: object) -> Case:
    """A chunk table with other entries."""

    def case(folder: Path) -> list[str]:
        path = written(folder, **options)
        content = path.read_bytes()
        table = struct.pack("<II", 0, len(entries)) + chunk_table(entries, pulses)
        path.write_bytes(content[: table_of(path)] + table)
        return extract(path)

    return case


def in_chunk(offset: int, content: bytes) -> Case:
    """Other bytes in the first chunk."""

    def case(folder: Path) -> list[str]:
        path = written(folder, sizes=6)
        begin = start_of(path) + 8 + offset
        whole = path.read_bytes()
        path.write_bytes(whole[:begin] + content + whole[begin + len(content) :])
        return extract(path)

    return case


def with_stream(stream: bytes, **fields: int) -> Case:
    """Pulses that all have this stream of samples."""

    def case(folder: Path) -> list[str]:
        descriptor = Descriptor(1, [Sampling(**({"count_bits": 8} | fields))])  # type: ignore[arg-type]
        pulses = [replace(one, offset=60, waves=[[]]) for one in six_pulses().pulses]
        path = write_compressed(Scene([descriptor], pulses), folder / "scan.plz")
        path.with_suffix(".wvz").write_bytes(path.with_suffix(".wvz").read_bytes()[:60] + stream)
        return extract(path)

    return case


def number(value: int, prediction: int = 0) -> bytes:
    out = Encoder()
    Number(32).encode(out, value, prediction)
    return out.stream()


def of_items(*items: tuple[int, int]) -> Case:
    """Pulses without attributes whose record declares these items."""

    def case(folder: Path) -> list[str]:
        how = Compression(items=[(PULSE_ITEM, 48)])
        how.record = lambda: (
            struct.pack("<HHBBHIIH", 1, 0, 0, 0, 0, 0, 2, len(items))
            + b"".join(  # type: ignore[method-assign]
                struct.pack("<HHH", *item, 1) for item in items
            )
        )
        return extract(write_compressed(six_pulses(), folder / "scan.plz", how))

    return case


def without_samples(folder: Path) -> list[str]:
    path = written(folder)
    path.with_suffix(".wvz").unlink()
    return extract(path)


def samples_given(folder: Path) -> list[str]:
    return extract(written(folder).with_suffix(".wvz"))


def empty_record(size: int) -> Case:
    def case(folder: Path) -> list[str]:
        records = [(b"PulseWaves_Spec", 5, bytes([1, 0]) + bytes(size - 2))]
        scene = replace(six_pulses(), records=records)
        return extract(write_compressed(scene, folder / "scan.plz", Compression(pulses=False)))

    return case


def cases() -> Iterator[tuple[str, Case]]:
    yield "no samples", without_samples
    yield "the sample file as input", samples_given
    for size in (2, 17, 18):
        yield f"record of {size} bytes", empty_record(size)
    for kind in (2, 65535):
        yield f"compressor {kind}", patched(RECORD, "<H", kind)
    yield "coder 1", patched(RECORD + 2, "<H", 1)
    yield "chunks of 0 pulses", patched(CHUNK_SIZE, "<I", 0)
    for size in (1, 3, 2**32 - 2, 2**32 - 1):
        yield f"declares chunks of {size} pulses", patched(CHUNK_SIZE, "<I", size)
    for count in (0, 2, 65535):
        yield f"declares {count} items", patched(ITEMS, "<H", count)
    yield "item of 47 bytes", patched(ITEMS + 4, "<H", 47)
    yield "item of version 2", patched(ITEMS + 6, "<H", 2)
    yield "no pulse among the items", of_items((SOURCE16, 2))
    yield "two pulses in a record", of_items((PULSE_ITEM, 48), (PULSE_ITEM, 48))
    yield "items longer than the pulses", of_items((PULSE_ITEM, 48), (EXTRA, 9))
    yield "unknown item", of_items((PULSE_ITEM, 48), (1004, 2))

    for count in (1, 5, 7, 2**40, 2**63 - 1):
        yield f"declares {count} pulses", patched(made.PULSE_COUNT, "<q", count)
    for position in (-2, 0, 500, -(2**63)):
        yield f"chunk table at byte {position}", moved_table(position)
    yield "version 1 of the chunk table", in_table(0, "<I", 1)
    for count in (0, 2, 4, 2**32 - 1):
        yield f"chunk table of {count} chunks", in_table(4, "<I", count)
    for count in (0, 1, 2**32 - 1):
        yield f"chunk table of {count} varying chunks", in_table(4, "<I", count, sizes=[2, 4])
    yield "chunk table of zeros", in_table(8, "<I", 0)
    yield "chunk table of ones", in_table(8, "<I", 2**32 - 1)
    yield "chunks longer than the file", other_table([60, 60, 2**31], None)
    yield "chunks shorter than the file", other_table([60, 60, 1], None)
    yield "more pulses in chunks than in the file", other_table([70, 70], [4, 2**31], sizes=[2, 4])
    for missing in (20, 40, 150, 190, 330):
        yield f"{missing} bytes missing", cut(missing)
    for missing in (10, 60):
        yield f"{missing} bytes missing, no chunk table", cut(missing, table="")
        yield f"{missing} bytes missing, varying chunks", cut(missing, sizes=[2, 4])

    yield "zeros for a chunk", in_chunk(48, bytes(20))
    yield "ones for a chunk", in_chunk(48, b"\xff" * 20)
    yield "first pulse of zeros", in_chunk(0, bytes(48))

    for missing in (1, 5, 17, 40):
        yield f"last {missing} bytes of the samples missing", cut(missing, waves=True)
    yield "uncompressed samples declared", patched(16, "<I", 0, waves=True)
    yield "256 samples in 8 bits", with_stream(number(256) + bytes(50))
    yield "-1 samples", with_stream(number(-1) + bytes(50))
    yield "4,000,000,000 samples", with_stream(number(-294967296) + bytes(50), count_bits=32)
    yield (
        "65535 segments of 65535 samples",
        with_stream(bytes(100_000), segments=65535, samples=65535, count_bits=0),
    )
    yield "65536 segments in 16 bits", with_stream(number(65536, 1) + bytes(50), segment_bits=16)
    yield "samples of ones", with_stream(b"\xff" * 100)
    yield "samples that end at once", with_stream(b"")
