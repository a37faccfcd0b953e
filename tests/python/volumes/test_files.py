"""Zarr folders and GeoTIFF files of volumes: places, metadata, and what they replace."""

from __future__ import annotations

import sys
from pathlib import Path

import laspy
import numpy as np
import pyproj
import pytest
import rasterio
import zarr

from fullwaveform.io.atomic import protected_inputs
from fullwaveform.volumes.quantities import QUANTITIES
from fullwaveform.volumes.volume import VolumeSettings, write_volume

from .scenes import Scan, three_lines

SETTINGS = VolumeSettings(1.0)


def projected() -> laspy.LasHeader:
    header = laspy.LasHeader(version="1.4", point_format=6)
    header.add_crs(pyproj.CRS("EPSG:32632"))
    return header


def write(path: Path, header: laspy.LasHeader | None = None, **options: object) -> None:
    write_volume(Scan([three_lines()], header), path, SETTINGS, **options)  # type: ignore[arg-type]


def test_zarr_has_units_and_reference_system(tmp_path: Path) -> None:
    write(tmp_path / "a.zarr", projected())
    volume = zarr.open_group(tmp_path / "a.zarr", mode="r")
    assert pyproj.CRS.from_wkt(volume["spatial_ref"].attrs["crs_wkt"]) == pyproj.CRS("EPSG:32632")
    for name, quantity in QUANTITIES.items():
        assert volume[name].attrs["units"] == quantity.unit
        assert volume[name].attrs["grid_mapping"] == "spatial_ref"
    assert volume.attrs["voxel_size"] == 1.0
    assert volume.attrs["voxel_size_unit"] == "metre"
    assert volume.attrs["input"] == "scan.las"
    assert volume.attrs["total_counts"] == 185.0


@pytest.mark.parametrize("name", QUANTITIES)
def test_geotiff_has_the_values_of_the_zarr_volume(tmp_path: Path, name: str) -> None:
    write(tmp_path / "a.zarr")
    write(tmp_path / "a.tif", projected(), quantity=name)
    expected = zarr.open_group(tmp_path / "a.zarr", mode="r")[name][:]
    with rasterio.open(tmp_path / "a.tif") as file:
        np.testing.assert_array_equal(file.read(), expected)
        assert file.dtypes == (expected.dtype.name,) * 6
        assert file.crs.to_epsg() == 32632
        # The highest row is y = 7 to 8, the first column x = 2 to 3.
        assert file.index(2.1, 7.9) == (0, 0)
        assert file.index(8.9, 5.1) == (2, 6)
        assert file.bounds == (2.0, 5.0, 9.0, 8.0)
        assert file.descriptions[3].endswith(", z 3 to 4")
        assert set(file.units) == {QUANTITIES[name].unit}
        assert file.tags()["voxel_size"] == "1.0"
    assert sorted(path.name for path in tmp_path.iterdir()) == ["a.tif", "a.zarr"]


def test_default_of_a_geotiff_is_the_sum(tmp_path: Path) -> None:
    write(tmp_path / "a.tif")
    with rasterio.open(tmp_path / "a.tif") as file:
        assert file.read().sum() == 185.0
        assert file.crs is None


@pytest.mark.parametrize("name", ["a.zarr", "a.tif"])
def test_volume_is_replaced_only_when_asked(tmp_path: Path, name: str) -> None:
    write(tmp_path / name)
    before = (tmp_path / name).stat().st_ino
    with pytest.raises(FileExistsError, match="already exists; use --overwrite"):
        write(tmp_path / name)
    assert (tmp_path / name).stat().st_ino == before
    write(tmp_path / name, overwrite=True)
    assert (tmp_path / name).stat().st_ino != before
    assert [path.name for path in tmp_path.iterdir()] == [name]


def test_other_folders_are_not_replaced(tmp_path: Path) -> None:
    """An empty one, one with another file, one of another program, and a file."""
    (tmp_path / "empty.zarr").mkdir()
    write(tmp_path / "mine.zarr")
    (tmp_path / "mine.zarr" / "notes.txt").write_text("mine", encoding="ascii")
    zarr.open_group(tmp_path / "other.zarr", mode="w").attrs["title"] = "other"
    (tmp_path / "file.zarr").write_text("mine", encoding="ascii")
    before = sorted(tmp_path.rglob("*"))
    for name in ("empty.zarr", "mine.zarr", "other.zarr"):
        with pytest.raises(FileExistsError, match="exists and is not a Zarr volume"):
            write(tmp_path / name, overwrite=True)
    with pytest.raises(FileExistsError):
        write(tmp_path / "file.zarr", overwrite=True)
    assert sorted(tmp_path.rglob("*")) == before


def test_a_volume_that_holds_the_input_is_not_replaced(tmp_path: Path) -> None:
    write(tmp_path / "a.zarr")
    source = tmp_path / "a.zarr" / "zarr.json"
    with (
        protected_inputs(source),
        pytest.raises(FileExistsError, match=f"contains the input file {source}"),
    ):
        write(tmp_path / "a.zarr", overwrite=True)


@pytest.mark.parametrize("name", ["a.zarr", "a.tif"])
def test_interrupted_run_leaves_the_former_volume(tmp_path: Path, name: str) -> None:
    class Interrupted(Scan):
        def blocks(self):  # type: ignore[no-untyped-def]
            yield from super().blocks()
            if len(self.passes) == 2:
                raise KeyboardInterrupt

    write(tmp_path / name)
    before = (tmp_path / name).stat().st_ino
    with pytest.raises(KeyboardInterrupt):
        write_volume(Interrupted([three_lines()]), tmp_path / name, SETTINGS, overwrite=True)  # type: ignore[arg-type]
    assert [path.name for path in tmp_path.iterdir()] == [name]
    assert (tmp_path / name).stat().st_ino == before


@pytest.mark.parametrize(("name", "package"), [("a.zarr", "zarr"), ("a.tif", "rasterio")])
def test_missing_package_is_named_with_its_extra(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, name: str, package: str
) -> None:
    monkeypatch.setitem(sys.modules, package, None)
    with pytest.raises(ValueError, match=rf"{package} is not installed.*'fullwaveform\[volumes\]'"):
        write(tmp_path / name)


def test_packages_that_lack_a_library_of_the_system(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    package = tmp_path / "rasterio.py"
    package.write_text('raise ImportError("libexpat.so.1: cannot open shared object file")')
    monkeypatch.delitem(sys.modules, "rasterio", raising=False)
    monkeypatch.syspath_prepend(tmp_path)
    message = r"rasterio is installed but cannot be loaded: libexpat\.so\.1: cannot open"
    with pytest.raises(ValueError, match=message):
        write(tmp_path / "a.tif")


def test_missing_folder(tmp_path: Path) -> None:
    for name in ("a.zarr", "a.tif"):
        with pytest.raises(OSError, match=f"cannot write {tmp_path}/gone/{name}: "):
            write(tmp_path / "gone" / name)


def test_coordinates_in_degrees_are_refused(tmp_path: Path) -> None:
    header = laspy.LasHeader(version="1.4", point_format=6)
    header.add_crs(pyproj.CRS("EPSG:4979"))
    with pytest.raises(ValueError, match=r"scan\.las has coordinates in degrees"):
        write(tmp_path / "a.zarr", header)
