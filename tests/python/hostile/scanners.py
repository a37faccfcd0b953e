"""Scanner descriptions with missing and invalid attributes."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

from ..support.las_scenes import four_shots

Case = Callable[[Path], list[str]]

GOOD = {
    "Scanner Group Velocity": "299708256.0",
    "Scanner Serial Number": '"S1"',
    "Scanner Type": '"Some scanner"',
    "Wavelength[nm]": "1064.0",
    "UnambiguousRange": "1000.0",
    "reflectance_calculation_delta": "0.1",
    "ampl_unit": "0.01",
    "reflectance_calculation_table": "[]",
}
WAVE = {"a_real": "[1.0]", "a_imag": "[0.0]", "b_real": "[-1e9]", "b_imag": "[0.0]"}


def called(folder: Path, content: bytes, *options: str) -> list[str]:
    scan = four_shots().write(folder / "scan.las")
    path = folder / "scanner.toml"
    path.write_bytes(content)
    output = str(folder / "out.csv")
    return ["extract", str(scan), "-o", output, "--scanner", str(path), *options]


def text(values: dict[str, str], more: str = "") -> bytes:
    lines = [f'"{name}" = {value}' for name, value in values.items()]
    return "\n".join([*lines, more]).encode()


def described(changes: dict[str, str], *options: str, more: str = "") -> Case:
    return lambda folder: called(folder, text(GOOD | changes, more), *options)


def without(*names: str) -> Case:
    values = {name: value for name, value in GOOD.items() if name not in names}
    return lambda folder: called(folder, text(values))


def raw(content: bytes) -> Case:
    return lambda folder: called(folder, content)


def missing(folder: Path) -> list[str]:
    call = called(folder, b"")
    (folder / "scanner.toml").unlink()
    return call


def a_folder(folder: Path) -> list[str]:
    call = missing(folder)
    (folder / "scanner.toml").mkdir()
    return call


def cases() -> Iterator[tuple[str, Case]]:
    for name in (name for name in GOOD if name != "ampl_unit"):
        yield f"without {name}", without(name)
    yield "without two attributes", without("Wavelength[nm]", "Scanner Type")
    for name, value in {
        "ampl_unit": '"0.01"',
        "Wavelength[nm]": "true",
        "Scanner Type": "880",
        "reflectance_calculation_table": "1.5",
        "UnambiguousRange": "[1000.0]",
        "Scanner Group Velocity": "nan",
        "reflectance_calculation_delta": "inf",
        "Scanner Serial Number": "1979-05-27",
    }.items():
        yield f"{name} = {value}", described({name: value})
    for name in ("ampl_unit", "Scanner Group Velocity"):
        for value in ("0.0", "-1.0"):
            yield f"{name} = {value}", described({name: value})
    yield "an unknown attribute", described({"Colour": '"red"'})
    yield "empty", raw(b"")
    yield "not TOML", raw(b"ampl_unit: 3")
    yield "bytes", raw(bytes(range(256)))
    yield "UTF-16", raw("ampl_unit = 1".encode("utf-16"))
    yield "missing", missing
    yield "a folder", a_folder
    yield "deconvolution without a system wave", described({}, "--mode", "2")
    yield "hybrid without a system wave", described({}, "--mode", "hybrid")
    for name in WAVE:
        part = {key: value for key, value in WAVE.items() if key != name}
        yield f"system wave without {name}", described(part, "--mode", "2")
    yield "system wave of unequal sums", described(WAVE | {"b_real": "[-1e9, -2e9]"})
    yield "system wave that grows", described(WAVE | {"b_real": "[1e12]"}, "--mode", "2")
    yield "system wave of zeros", described(WAVE | {"a_real": "[0.0]"}, "--mode", "2")
    yield "after-pulse without a width", described({}, more="[after_pulse]\noffset = 1")
    yield (
        "after-pulse before the pulse",
        described({}, more="[after_pulse]\noffset = -1\nwidth = 2"),
    )
    yield "offset as text", described({}, more='[deconvolution]\nposition_offset = "1"')
    yield "offset without an interval", described({}, more="[deconvolution]\nposition_offset = 1.0")
