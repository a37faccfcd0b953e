"""GEDI and LVIS files that are truncated, lack datasets, or have others than their formats."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from pathlib import Path

import h5py
import numpy as np

from ..support.hdf5_scenes import changed, lvis_scene, two_beams

Case = Callable[[Path], list[str]]
Change = Callable[[h5py.File], object]
Maker = Callable[[Path], Path]

BEAM = "BEAM0101"
NAN = float("nan")
OF_SHOTS = (
    "rx_sample_start_index",
    "rx_sample_count",
    "tx_sample_start_index",
    "tx_sample_count",
    "shot_number",
    "delta_time",
    "stale_return_flag",
    "geolocation/degrade",
    "geolocation/longitude_bin0",
    "geolocation/elevation_lastbin",
)
OF_LVIS = ("TXWAVE", "SHOTNUMBER", "TIME", "INCIDENTANGLE", "LON0", "LAT0", "Z0", "LAT527", "Z527")


def gedi(folder: Path) -> Path:
    return two_beams().write(folder / "gedi.h5")


def lvis(folder: Path) -> Path:
    return lvis_scene("1.04").write(folder / "lvis.h5")


def extract(path: Path, *options: str) -> list[str]:
    return ["extract", str(path), "-o", str(path.parent / "out.csv"), *options]


def cut(make: Maker, part: float) -> Case:
    def case(folder: Path) -> list[str]:
        path = make(folder)
        os.truncate(path, int(path.stat().st_size * part))
        return extract(path)

    return case


def after(make: Maker, change: Change, *options: str) -> Case:
    return lambda folder: extract(changed(make(folder), change), *options)


def without(make: Maker, name: str) -> Case:
    return after(make, lambda file: file.pop(name))


def replaced(make: Maker, name: str, values: object, **options: object) -> Case:
    def change(file: h5py.File) -> None:
        del file[name]
        file.create_dataset(name, data=values, **options)  # type: ignore[arg-type]

    return after(make, change)


def filled(make: Maker, name: str, value: float) -> Case:
    """Every value of a dataset is this one."""

    def change(file: h5py.File) -> None:
        file[name][...] = value

    return after(make, change)


def of_variable_length(make: Maker, name: str, *, text: bool = False) -> Case:
    """Never written, so that a reader that asks for a value finds an empty heap."""

    def change(file: h5py.File) -> None:
        shape = file[name].shape
        del file[name]
        kind = h5py.string_dtype() if text else h5py.vlen_dtype(np.float32)
        file.create_dataset(name, shape, kind)

    return after(make, change)


def linked(make: Maker, name: str, link: object) -> Case:
    def change(file: h5py.File) -> None:
        del file[name]
        file[name] = link

    return after(make, change)


def outside(make: Maker, name: str) -> Case:
    """The values are in a raw file."""

    def change(file: h5py.File) -> None:
        shape, kind = file[name].shape, file[name].dtype
        del file[name]
        file.create_dataset(name, shape, kind, external=[("raw.bin", 0, 10_000_000)])

    return after(make, change)


def virtual(make: Maker, name: str) -> Case:
    def change(file: h5py.File) -> None:
        shape, kind = file[name].shape, file[name].dtype
        del file[name]
        layout = h5py.VirtualLayout(shape, kind)
        layout[:] = h5py.VirtualSource("elsewhere.h5", "values", shape=shape)
        file.create_virtual_dataset(name, layout)

    return after(make, change)


def declares(make: Maker, name: str, rows: int, *row: int) -> Case:
    """A dataset of many rows none of which is stored."""

    def change(file: h5py.File) -> None:
        kind = file[name].dtype
        del file[name]
        file.create_dataset(name, (rows, *row), kind, chunks=(1000, *row))

    return after(make, change)


def damaged(make: Maker, name: str) -> Case:
    """A compressed dataset with changed bytes."""

    def case(folder: Path) -> list[str]:
        path = make(folder)
        with h5py.File(path, "r+") as file:
            values = file[name][...]
            del file[name]
            dataset = file.create_dataset(name, data=values, chunks=True, compression="gzip")
            chunk = dataset.id.get_chunk_info(0)
        with path.open("r+b") as stream:
            stream.seek(chunk.byte_offset)
            stream.write(b"\xff" * min(chunk.size, 16))
        return extract(path)

    return case


def of_both(make: Maker, name: str) -> Iterator[tuple[str, Case]]:
    """What can be wrong with any dataset."""
    yield f"{name} of texts", of_variable_length(make, name, text=True)
    yield f"{name} of variable length", of_variable_length(make, name)
    yield f"{name} linked to itself", linked(make, name, h5py.SoftLink(f"/{name}"))
    yield f"{name} in a missing file", linked(make, name, h5py.ExternalLink("gone.h5", "/x"))
    yield f"{name} in a raw file", outside(make, name)
    yield f"{name} of another file's values", virtual(make, name)
    yield f"{name} with changed bytes", damaged(make, name)
    yield f"{name} of fixed-length texts", replaced(make, name, np.full(3, b"abc"))
    yield f"{name} of complex numbers", replaced(make, name, np.zeros(3, np.complex128))
    yield f"{name} of three dimensions", replaced(make, name, np.zeros((3, 2, 2)))
    yield f"{name}, a single number", replaced(make, name, 5.0)
    yield f"{name}, a group", after(make, lambda f: (f.pop(name), f.create_group(name)))


def gedi_cases() -> Iterator[tuple[str, Case]]:
    for part in (0.01, 0.3, 0.6, 0.9, 0.99):
        yield f"truncated to {part:g} of its size", cut(gedi, part)
    for name in (*OF_SHOTS, "txwaveform"):
        yield f"without {name}", without(gedi, f"{BEAM}/{name}")
    yield (
        "no beam with samples",
        after(gedi, lambda f: [f.pop(f"{beam}/rxwaveform") for beam in list(f)]),
    )
    yield "a beam without samples", without(gedi, f"{BEAM}/rxwaveform")
    yield from of_both(gedi, f"{BEAM}/rxwaveform")
    for name in OF_SHOTS[:6]:
        yield f"{name} of two shots", replaced(gedi, f"{BEAM}/{name}", np.ones(2, np.int64))
    for value in (0.0, 2.0**62, 1e5):
        yield f"start index {value:g}", filled(gedi, f"{BEAM}/rx_sample_start_index", value)
    for count in (0, 1, 65535):
        yield f"{count} samples", filled(gedi, f"{BEAM}/rx_sample_count", count)
    for sample in (NAN, float("inf"), -9999.0, 70_000.0):
        yield f"samples of {sample:g}", filled(gedi, f"{BEAM}/rxwaveform", sample)
    yield "times of NaN", filled(gedi, f"{BEAM}/delta_time", NAN)
    epoch = f"{BEAM}/ancillary/master_time_epoch"
    yield "epoch of NaN", filled(gedi, epoch, NAN)
    yield "two epochs", replaced(gedi, epoch, [1.0, 2.0])
    yield "1e12 shots declared", declares(gedi, f"{BEAM}/rx_sample_start_index", 10**12)
    yield "all shots degraded", after(
        gedi, lambda f: [f[f"{beam}/geolocation/degrade"].write_direct(
            np.ones(len(f[f"{beam}/shot_number"]), np.int8)) for beam in f],
    )  # fmt: skip
    yield "reference system 0", after(gedi, lambda f: None, "--crs", "EPSG:0")
    yield "reference system of a text", after(gedi, lambda f: None, "--crs", "metres")
    yield "beam linked to itself", linked(gedi, BEAM, h5py.SoftLink(f"/{BEAM}"))


def lvis_cases() -> Iterator[tuple[str, Case]]:
    for part in (0.01, 0.3, 0.6, 0.9, 0.99):
        yield f"truncated to {part:g} of its size", cut(lvis, part)
    for name in (*OF_LVIS, "RXWAVE", "LON527"):
        yield f"without {name}", without(lvis, name)
    yield from of_both(lvis, "RXWAVE")
    for name in OF_LVIS[1:5]:
        yield f"{name} of two shots", replaced(lvis, name, np.ones(2))
    yield "outgoing pulses of two shots", replaced(lvis, "TXWAVE", np.ones((2, 80)))
    yield "two lowest samples", after(lvis, lambda f: f.create_dataset("LON12", data=np.ones(3)))
    yield "lowest sample 99999", after(lvis, lambda f: f.move("LON527", "LON99999"))
    yield "a sample too few", replaced(lvis, "RXWAVE", np.ones((3, 527), np.uint16))
    yield "no samples", replaced(lvis, "RXWAVE", np.ones((3, 0), np.uint16))
    yield "samples of NaN", replaced(lvis, "RXWAVE", np.full((3, 528), NAN))
    yield "samples below 0", replaced(lvis, "RXWAVE", np.full((3, 528), -1))
    yield "times of NaN", filled(lvis, "TIME", NAN)
    for value in (NAN, 0.0, 1e30):
        yield f"lowest heights of {value:g} m", filled(lvis, "Z527", value)
    yield "longitudes of 400 degrees", filled(lvis, "LON0", 400.0)
    yield "1e12 shots declared", declares(lvis, "RXWAVE", 10**12, 528)
    yield "reference system of a text", after(lvis, lambda f: None, "--crs", "metres")


def cases() -> Iterator[tuple[str, Case]]:
    for name, case in gedi_cases():
        yield f"GEDI, {name}", case
    for name, case in lvis_cases():
        yield f"LVIS, {name}", case


if __name__ == "__main__":
    print(len(list(gedi_cases())), len(list(lvis_cases())))
