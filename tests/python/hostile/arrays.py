"""Scan containers and NumPy archives that are corrupt or have invalid content."""

from __future__ import annotations

import io
import os
import struct
import zipfile
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import h5py
import numpy as np

from ..support.command_line import run
from ..support.las_scenes import four_shots, patch
from . import scanners

Case = Callable[[Path], list[str]]

FIELDS = "waveforms/StandardCartesianChart3D"


def extract(path: Path) -> list[str]:
    return ["extract", str(path), "-o", str(path.parent / "out.csv")]


def container(folder: Path) -> Path:
    scan = four_shots().write(folder / "scan.las")
    path, scanner = folder / "scan.h5", folder / "scanner.toml"
    scanner.write_bytes(scanners.text(scanners.GOOD | scanners.WAVE))
    assert run("convert", scan, path, "--scanner", scanner, "-q").exit_code == 0
    return path


def changed(change: Callable[[h5py.File], object]) -> Case:
    def case(folder: Path) -> list[str]:
        path = container(folder)
        with h5py.File(path, "r+") as file:
            change(file)
        return extract(path)

    return case


def replaced(name: str, values: object) -> Case:
    """Replace a dataset of the waveforms."""

    def change(file: h5py.File) -> None:
        del file[FIELDS][name]
        file[FIELDS][name] = values

    return changed(change)


def without(name: str) -> Case:
    return changed(lambda file: file.pop(name))


def attribute(where: str, name: str, value: object) -> Case:
    def change(file: h5py.File) -> None:
        file[where].attrs[name] = value

    return changed(change)


def container_cut(part: float) -> Case:
    def case(folder: Path) -> list[str]:
        path = container(folder)
        os.truncate(path, int(path.stat().st_size * part))
        return extract(path)

    return case


def linked_to_itself(folder: Path) -> list[str]:
    def change(file: h5py.File) -> None:
        del file[FIELDS]["ShotTime"]
        file[FIELDS]["ShotTime"] = h5py.SoftLink(f"/{FIELDS}/ShotTime")

    return changed(change)(folder)


def linked_outside(folder: Path) -> list[str]:
    def change(file: h5py.File) -> None:
        del file[FIELDS]["ShotTime"]
        file[FIELDS]["ShotTime"] = h5py.ExternalLink("elsewhere.h5", "/times")

    return changed(change)(folder)


def archive(**arrays: Any) -> Case:
    def case(folder: Path) -> list[str]:
        path = folder / "scan.npz"
        values = {"samples": np.full((3, 20), 5, np.uint16), "sampling_interval": 1e-9}
        np.savez(path, **{name: v for name, v in (values | arrays).items() if v is not None})
        return extract(path)

    return case


def archive_cut(missing: int) -> Case:
    def case(folder: Path) -> list[str]:
        call = archive()(folder)
        os.truncate(folder / "scan.npz", (folder / "scan.npz").stat().st_size - missing)
        return call

    return case


def entry(content: bytes) -> Case:
    """An archive whose samples are these bytes."""

    def case(folder: Path) -> list[str]:
        with zipfile.ZipFile(folder / "scan.npz", "w", zipfile.ZIP_DEFLATED) as file:
            file.writestr("samples.npy", content)
        return extract(folder / "scan.npz")

    return case


def npy(header: str, content: bytes = b"") -> bytes:
    text = header.encode("latin1")
    return b"\x93NUMPY\x01\x00" + struct.pack("<H", len(text)) + text + content


def objects() -> bytes:
    stream = io.BytesIO()
    np.save(stream, np.array([{"a": 1}], dtype=object), allow_pickle=True)
    return stream.getvalue()


def damaged_inside(folder: Path) -> list[str]:
    call = archive()(folder)
    patch(folder / "scan.npz", 200, "<4B", 1, 2, 3, 4)
    return call


NAN = float("nan")


def cases() -> Iterator[tuple[str, Case]]:
    for part in (0.0, 0.001, 0.01, 0.1, 0.5, 0.9, 0.999):
        yield f"container truncated to {part:g} of its size", container_cut(part)
    for name in (FIELDS, "waveforms"):
        yield f"container without {name}", without(name)
    for name in ("Waveforms", "SampleCount", "ShotTime", "SBL_Time", "ChannelFlag"):
        yield f"container without {name}", without(f"{FIELDS}/{name}")
    yield "container without anchor", without("space/anchor")
    yield "container of another format", attribute("/", "format", "something else")
    yield "container of version 99", attribute("/", "format_version", 99)
    yield "container with text as version", attribute("/", "format_version", "one")
    yield "samples as floating-point numbers", replaced("Waveforms", np.zeros((4, 4)))
    yield "samples of one dimension", replaced("Waveforms", np.zeros(4, np.uint16))
    yield "samples of three rows", replaced("Waveforms", np.zeros((3, 4), np.uint16))
    yield "samples as text", replaced("Waveforms", "samples")
    yield "counts above the width", replaced("SampleCount", np.full(4, 5, np.uint16))
    yield "counts of three rows", replaced("SampleCount", np.full(3, 4, np.uint16))
    yield "counts as text", replaced("SampleCount", "four")
    yield "counts of 0", replaced("SampleCount", np.zeros(4, np.uint16))
    yield "times are NaN", replaced("ShotTime", np.full(4, NAN))
    yield "times as text", replaced("ShotTime", ["a", "b", "c", "d"])
    yield "shots that are not consecutive", replaced("ShotTime", [1.0, 2.0, 1.0, 2.0])
    for value in (0.0, -1.0, NAN, float("inf")):
        yield f"interval of {value} s", replaced("SampleInterval", np.full(4, value))
    yield "channel 256", replaced("ChannelFlag", np.full(4, 256))
    yield "a dataset that links to itself", linked_to_itself
    yield "a dataset in a missing file", linked_outside
    yield "an exponential sum as text", attribute(f"{FIELDS}/Waveforms", "a_real", "sum")
    yield "amplitude unit as text", attribute("scanner", "ampl_unit", "0.01")
    yield "amplitude unit of 0", attribute("scanner", "ampl_unit", 0.0)
    yield "scanner without its type", changed(lambda f: f["scanner"].attrs.pop("Scanner Type"))
    yield "after-pulse of -1", attribute("scanner/after_pulse", "offset", -1)

    for missing in (1, 10, 22, 100, 500):
        yield f"archive, {missing} bytes missing", archive_cut(missing)
    yield "archive with changed bytes", damaged_inside
    yield "archive without samples", archive(samples=None)
    yield "archive without an interval", archive(sampling_interval=None)
    for interval in (0.0, -1e-9, NAN):
        yield f"archive, interval of {interval} s", archive(sampling_interval=interval)
    yield "archive, samples of one dimension", archive(samples=np.zeros(20, np.uint16))
    yield "archive, samples below 0", archive(samples=np.full((3, 20), -1))
    yield "archive, samples above 65535", archive(samples=np.full((3, 20), 65536))
    yield "archive, samples as floating-point numbers", archive(samples=np.full((3, 20), 0.5))
    yield "archive, complex samples", archive(samples=np.zeros((3, 20), np.complex128))
    yield "archive, samples as text", archive(samples=np.full((3, 20), "a"))
    yield "archive, 70000 samples", archive(samples=np.zeros((1, 70_000), np.uint16))
    yield "archive, count above the width", archive(counts=[20, 21, 20])
    yield "archive, count below 0", archive(counts=[20, -1, 20])
    yield "archive, two counts", archive(counts=[20, 20])
    yield "archive, shots not consecutive", archive(shot_times=[1.0, 2.0, 1.0])
    yield "archive, flag 300", archive(channel_flags=[1, 300, 1])
    yield (
        "archive, anchors of two coordinates",
        archive(anchor=np.zeros((3, 2)), direction=np.zeros((3, 2)), location=np.zeros(3)),
    )
    yield "archive, Python objects", entry(objects())
    yield "archive, not an array", entry(b"samples")
    yield "archive, empty entry", entry(b"")
    huge = "{'descr': '<u2', 'fortran_order': False, 'shape': (1000000000000, 1000), }\n"
    yield "archive, declares 2 PB", entry(npy(huge))
    negative = "{'descr': '<u2', 'fortran_order': False, 'shape': (-1, 20), }\n"
    yield "archive, negative shape", entry(npy(negative))
    code = "{'descr': '<u2', 'fortran_order': False, 'shape': __import__('os').getpid(), }\n"
    yield "archive, code in the header", entry(npy(code))
    bomb = "{'descr': '<u2', 'fortran_order': False, 'shape': (50000000, 80), }\n"
    yield "archive, declares 8 GB", entry(npy(bomb, bytes(10_000)))
