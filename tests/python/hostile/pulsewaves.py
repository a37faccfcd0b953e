"""PulseWaves files that are truncated or have invalid counts, offsets and sizes."""

from __future__ import annotations

import os
import struct
from collections.abc import Callable, Iterator
from pathlib import Path

from ..support import pulsewaves_scenes as made
from ..support.las_scenes import patch
from ..support.pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene, three_pulses

Case = Callable[[Path], list[str]]

RECORD_HEADER = 96  # bytes
SAMPLING = made.HEADER_END + RECORD_HEADER + 92  # first byte of the sampling


def extract(path: Path) -> list[str]:
    return ["extract", str(path), "-o", str(path.parent / "out.csv")]


def cut(to: int, *, waves: bool = False) -> Case:
    def case(folder: Path) -> list[str]:
        path = three_pulses().write(folder / "scan.pls")
        victim = path.with_suffix(".wvs") if waves else path
        os.truncate(victim, to if to >= 0 else victim.stat().st_size + to)
        return extract(path)

    return case


def patched(position: int, layout: str, *values: float, waves: bool = False) -> Case:
    def case(folder: Path) -> list[str]:
        path = three_pulses().write(folder / "scan.pls")
        patch(path.with_suffix(".wvs") if waves else path, position, layout, *values)
        return extract(path)

    return case


def pulse_patched(field: int, layout: str, value: float) -> Case:
    def case(folder: Path) -> list[str]:
        path = three_pulses().write(folder / "scan.pls")
        (start,) = struct.unpack_from("<q", path.read_bytes(), made.PULSES_START)
        for pulse in range(3):
            patch(path, start + 48 * pulse + field, layout, value)
        return extract(path)

    return case


def scene(build: Callable[[], Scene]) -> Case:
    return lambda folder: extract(build().write(folder / "scan.pls"))


def sampled(**fields: float) -> Case:
    """A single pulse of four samples with another description of its sampling."""
    sampling = Sampling(**fields)  # type: ignore[arg-type]

    def build() -> Scene:
        waves = [[(0, [1, 2, 3, 4])]]
        return Scene([Descriptor(1, [sampling])], [Pulse(waves)])

    return scene(build)


def without_waves(folder: Path) -> list[str]:
    path = three_pulses().write(folder / "scan.pls")
    path.with_suffix(".wvs").unlink()
    return extract(path)


def waves_given(folder: Path) -> list[str]:
    return extract(three_pulses().write(folder / "scan.pls").with_suffix(".wvs"))


def composition_that_names_itself(folder: Path) -> list[str]:
    """The list of appended records never ends."""
    path = three_pulses().write(folder / "scan.pls")
    patch(path, made.APPENDED, "<i", -1)
    return extract(path)


def cases() -> Iterator[tuple[str, Case]]:
    for size in (0, 8, 15, 16, 100, 172, 174, 184, 220, 351, 352, 400, 447, 448, 500, 540):
        yield f"truncated after byte {size}", cut(size)
    for missing in (-1, -48, -49, -143, -144):
        yield f"{-missing} bytes missing", cut(missing)
    for size in (0, 8, 15, 16, 20, 59, 60):
        yield f"samples truncated after byte {size}", cut(size, waves=True)
    for missing in (-1, -4, -5):
        yield f"{-missing} bytes of the samples missing", cut(missing, waves=True)
    yield "no samples", without_waves
    yield "the sample file as input", waves_given

    for major in (1, 255):
        yield f"declares version {major}", patched(made.MAJOR, "<B", major)
    for size in (0, 351, 353, 65535):
        yield f"header of {size} bytes", patched(made.HEADER_SIZE, "<H", size)
    for start in (-1, 0, 2**40, 2**63 - 1):
        yield f"pulses start at byte {start}", patched(made.PULSES_START, "<q", start)
    for count in (-1, 4, 2**40, 2**63 - 1):
        yield f"declares {count} pulses", patched(made.PULSE_COUNT, "<q", count)
    for kind in (1, 2**32 - 1):
        yield f"pulse format {kind}", patched(made.PULSE_FORMAT, "<I", kind)
    for size in (0, 47, 2**32 - 1):
        yield f"pulses of {size} bytes", patched(made.PULSE_SIZE, "<I", size)
    yield "compressed pulses", patched(made.COMPRESSION, "<I", 1)
    for count in (0, 2, 2**32 - 1):
        yield f"declares {count} records", patched(made.RECORDS, "<I", count)
    for count in (2, 2**31 - 1):
        yield f"declares {count} appended records", patched(made.APPENDED, "<i", count)
    yield "appended records without an end", composition_that_names_itself
    for value in (0.0, float("nan"), float("inf")):
        yield f"scale {value}", patched(made.SCALES, "<d", value)
    yield "offset is NaN", patched(made.OFFSETS, "<d", float("nan"))
    for value in (float("nan"), float("inf")):
        yield f"scale of the times {value}", patched(made.TIME_SCALE, "<d", value)
    for kind in (1, 2):
        yield (
            f"samples of compression type {kind}",
            patched(made.WAVES_COMPRESSION, "<I", kind, waves=True),
        )
    yield "samples without their signature", patched(0, "<B", 0, waves=True)

    yield "pulses name descriptor 9", pulse_patched(44, "<B", 9)
    for offset in (-1, 0, 59, 10**6, 2**63 - 1):
        yield f"waves at byte {offset}", pulse_patched(8, "<q", offset)
    yield "anchor and target are the same", pulse_patched(36, "<i", 0)

    for bits in (0, 1, 12, 32, 65535):
        yield f"{bits} bits per sample", patched(SAMPLING + 28, "<H", bits)
    yield "compressed sampling", sampled(compression=1)
    yield "samplings of 65535 segments", sampled(segments=65535)
    yield "4,000,000,000 samples", sampled(samples=4_000_000_000)
    for unit in (0.0, -1.0, float("nan"), float("inf")):
        yield f"unit of {unit} ns", sampled(unit=unit)
    yield "duration of 7 bits", patched(SAMPLING + 11, "<B", 7)
    yield "number of segments in 3 bits", patched(SAMPLING + 20, "<B", 3)
    yield "number of samples in 64 bits", patched(SAMPLING + 21, "<B", 64)
    yield "descriptor of 65535 samplings", patched(SAMPLING - 92 + 14, "<H", 65535)
