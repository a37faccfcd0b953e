"""LAS files that are truncated or have invalid counts, offsets and sizes."""

from __future__ import annotations

import os
import struct
from collections.abc import Callable, Iterator
from pathlib import Path

from ..support.las_scenes import Point, Scene, compressed, four_shots, patch

Case = Callable[[Path], list[str]]

POINT = 57  # bytes of point format 4
HEADER_SIZE, POINTS_START, RECORDS = 94, 96, 100
FORMAT, POINT_SIZE, COUNT_13 = 104, 105, 107
SCALES, OFFSETS = 131, 155
NAMES = {
    "dots and spaces": "a. b..c ",
    "accented letters": "Größe-é-数",
    "a line feed": "a\nb",
    "bytes that are not UTF-8": os.fsdecode(b"\xff\xfe"),
    "the form of an option": "-o",
    "terminal colour codes": "\x1b[31m[red]x",
}
PACKETS_START, EXTENDED_START, EXTENDED_COUNT, COUNT_14 = 227, 235, 243, 247


def extract(path: Path, *options: str) -> list[str]:
    return ["extract", str(path), "-o", str(path.parent / "out.csv"), *options]


def good(folder: Path, **options: object) -> Path:
    return four_shots(**options).write(folder / "scan.las")


def cut(to: int, *, packets: bool = False, **options: object) -> Case:
    """The file or its packets end after `to` bytes; negative: this many bytes are missing."""

    def case(folder: Path) -> list[str]:
        path = good(folder, **options)
        victim = path.with_suffix(".wdp") if packets else path
        size = victim.stat().st_size
        os.truncate(victim, to if to >= 0 else size + to)
        return extract(path)

    return case


def patched(position: int, layout: str, *values: float, version: str = "1.3") -> Case:
    """A few bytes in or after the header are changed."""

    def case(folder: Path) -> list[str]:
        options = {} if version == "1.3" else {"version": "1.4", "point_format": 9}
        path = good(folder, **options)
        patch(path, position, layout, *values)
        return extract(path)

    return case


def point_patched(field: int, layout: str, value: float, rows: range = range(4)) -> Case:
    """A field of the point records is changed."""

    def case(folder: Path) -> list[str]:
        path = good(folder)
        (start,) = struct.unpack_from("<I", path.read_bytes(), POINTS_START)
        for row in rows:
            patch(path, start + row * POINT + field, layout, value)
        return extract(path)

    return case


def descriptor_patched(field: int, layout: str, value: float) -> Case:
    """A field of the only waveform descriptor is changed; the record header has 54 bytes."""

    def case(folder: Path) -> list[str]:
        path = good(folder)
        (header,) = struct.unpack_from("<H", path.read_bytes(), HEADER_SIZE)
        patch(path, header + field, layout, value)
        return extract(path)

    return case


def scene(made: Callable[[], Scene]) -> Case:
    return lambda folder: extract(made().write(folder / "scan.las"))


def named(stem: str, *, packets: bool) -> Case:
    """A file with an unusual name that is truncated or whose packets are missing."""

    def case(folder: Path) -> list[str]:
        path = good(folder)
        if not packets:
            path.with_suffix(".wdp").unlink()
        else:
            os.truncate(path, 100)
        return extract(path.rename(folder / f"{stem}.las"))

    return case


def missing_packets(folder: Path) -> list[str]:
    path = good(folder)
    path.with_suffix(".wdp").unlink()
    return extract(path)


def packets_are_a_folder(folder: Path) -> list[str]:
    path = good(folder)
    path.with_suffix(".wdp").unlink()
    path.with_suffix(".wdp").mkdir()
    return extract(path)


def packets_link_to_themselves(folder: Path) -> list[str]:
    path = good(folder)
    path.with_suffix(".wdp").unlink()
    path.with_suffix(".wdp").symlink_to(path.with_suffix(".wdp"))
    return extract(path)


def extended_record_that_is_its_own_successor(folder: Path) -> list[str]:
    """A length that overflows points back to the record itself."""
    path = good(folder, version="1.4", point_format=9, inside=True)
    (start,) = struct.unpack_from("<Q", path.read_bytes(), EXTENDED_START)
    patch(path, EXTENDED_COUNT, "<I", 2**32 - 1)
    patch(path, start + 20, "<Q", 2**64 - 60)
    return extract(path)


def no_descriptor(folder: Path) -> list[str]:
    points = [Point(0, gps_time=1.0)]
    return extract(Scene([], [(1, [1, 2, 3, 4])], points).write(folder / "scan.las"))


def another_descriptor(folder: Path) -> list[str]:
    made = Scene([(2, 8, 4, 1000)], [(1, [1, 2, 3, 4])], [Point(0)])
    return extract(made.write(folder / "scan.las"))


def laz_cut(to: int) -> Case:
    def case(folder: Path) -> list[str]:
        path = compressed(good(folder), folder / "packed.laz")
        os.truncate(path, path.stat().st_size + to)
        return extract(path)

    return case


def cases() -> Iterator[tuple[str, Case]]:
    for size in (0, 1, 3, 4, 24, 94, 100, 131, 226, 227, 234, 235, 280, 300, 314, 315, 330):
        yield f"truncated after byte {size}", cut(size)
    for missing in (-1, -POINT, -POINT - 1, -2 * POINT, -4 * POINT + 1, -4 * POINT):
        yield f"{-missing} bytes missing", cut(missing)
    for size in (0, 1, 20, 59, 60, 61, 63):
        yield f"packets truncated after byte {size}", cut(size, packets=True)
    for missing in (-1, -4, -5, -12):
        yield f"{-missing} bytes of the packets missing", cut(missing, packets=True)
        yield (
            f"{-missing} bytes missing, packets inside",
            cut(missing, inside=True),
        )
    new = {"version": "1.4", "point_format": 9}
    for size in (227, 235, 243, 247, 255, 374, 375, 376, 428, 429, 455):
        yield f"version 1.4, truncated after byte {size}", cut(size, **new)
    for missing in (-16, -17, -56, -76, -77, -135):
        yield (
            f"version 1.4, {-missing} bytes missing, packets inside",
            cut(missing, inside=True, **new),
        )
    yield "no packets", missing_packets
    yield "packets are a folder", packets_are_a_folder
    yield "packets link to themselves", packets_link_to_themselves

    for what, stem in NAMES.items():
        yield f"truncated, {what} in its name", named(stem, packets=True)
        yield f"no packets, {what} in its name", named(stem, packets=False)

    for version in (1, 2, 5, 9):
        yield f"declares version 1.{version}", patched(25, "<B", version)
    for kind in (0, 1, 3, 5, 6, 10, 11, 63, 127, 128 + 4, 255):
        yield f"declares point format {kind}", patched(FORMAT, "<B", kind)
    for size in (0, 1, 56, 65535):
        yield f"points of {size} bytes", patched(POINT_SIZE, "<H", size)
    for count in (5, 100_000, 2**32 - 1):
        yield f"declares {count} points", patched(COUNT_13, "<I", count)
    for count in (5, 2**40, 2**64 - 1):
        yield f"declares {count} points, version 1.4", patched(COUNT_14, "<Q", count, version="1.4")
    for size in (0, 100, 65535):
        yield f"header of {size} bytes", patched(HEADER_SIZE, "<H", size)
    for start in (0, 226, 2**31, 2**32 - 1):
        yield f"points start at byte {start}", patched(POINTS_START, "<I", start)
    for records in (0, 2, 1000, 2**32 - 1):
        yield f"declares {records} variable records", patched(RECORDS, "<I", records)
    for value in (0.0, float("nan"), float("inf"), 1e308):
        yield f"scale {value}", patched(SCALES, "<d", value)
    for value in (float("nan"), float("-inf")):
        yield f"offset {value}", patched(OFFSETS, "<d", value)
    for start in (1, 2**63, 2**64 - 1):
        yield (
            f"first extended record at byte {start}",
            patched(EXTENDED_START, "<QI", start, 1, version="1.4"),
        )
    yield "extended record follows itself", extended_record_that_is_its_own_successor
    for encoding in (0, 2, 6):
        yield f"global encoding {encoding} without packets", _encoding(encoding)

    yield "no descriptor", no_descriptor
    yield "descriptor with another number", another_descriptor
    for bits in (0, 1, 4, 12, 32, 255):
        yield f"{bits} bits per sample", descriptor_patched(54, "<B", bits)
    for kind in (1, 2, 255):
        yield f"packets of compression type {kind}", descriptor_patched(55, "<B", kind)
    for count in (0, 5, 65536, 2**32 - 1):
        yield f"packets of {count} samples", descriptor_patched(56, "<I", count)
    yield "spacing 0 ps", descriptor_patched(60, "<I", 0)
    for size in (0, 25, 65535):
        yield f"descriptor of {size} bytes", descriptor_patched(20, "<H", size)
    yield "descriptor of another user", descriptor_patched(2, "<B", ord("X"))

    yield "points name descriptor 77", point_patched(28, "<B", 77)
    for offset in (0, 59, 10**6, 2**63, 2**64 - 1):
        yield f"packets at byte {offset}", point_patched(29, "<Q", offset)
    yield "last packet beyond the end", point_patched(29, "<Q", 73, range(3, 4))
    yield "packets overlap", point_patched(29, "<Q", 61, range(1, 2))
    for size in (0, 3, 2**32 - 1):
        yield f"packets of {size} bytes", point_patched(37, "<I", size)
    yield "locations are NaN", point_patched(41, "<f", float("nan"))
    yield "direction is infinite", point_patched(45, "<f", float("inf"))
    yield "times are NaN", point_patched(20, "<d", float("nan"))
    yield "one time is infinite", point_patched(20, "<d", float("inf"), range(1))

    for missing in (-1, -20, -60):
        yield f"compressed, {-missing} bytes missing", laz_cut(missing)


def _encoding(value: int) -> Case:
    def case(folder: Path) -> list[str]:
        path = good(folder)
        path.with_suffix(".wdp").unlink()
        patch(path, 6, "<H", value)
        return extract(path)

    return case
