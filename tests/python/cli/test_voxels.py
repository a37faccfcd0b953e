"""The command voxels: options, messages and what it prints."""

from __future__ import annotations

from pathlib import Path

import pytest
import rasterio
import zarr

from ..support.command_line import assert_error, assert_usage, run
from ..support.hdf5_scenes import GediScene, two_beams


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("scan") / "scan.las"
    assert run("simulate", path, "--shots", "50").exit_code == 0
    return path


@pytest.mark.parametrize("size", ["0", "-1", "nan", "inf", "wide"])
def test_invalid_size(scan: Path, tmp_path: Path, size: str) -> None:
    result = run("voxels", scan, "-o", tmp_path / "a.zarr", f"--size={size}")
    assert_usage(result, f"'{size}' must be a finite number above 0")


def test_too_small_size(scan: Path, tmp_path: Path) -> None:
    result = run("voxels", scan, "-o", tmp_path / "a.zarr", "--size", "0.001")
    assert_error(result, "voxels of size 0.001 would be ", "at most 10,000,000,000")
    assert list(tmp_path.iterdir()) == []


def test_invalid_choices(scan: Path, tmp_path: Path) -> None:
    def call(name: str, *options: str) -> object:
        return run("voxels", scan, "-o", tmp_path / name, "--size", "1", *options)

    assert_usage(call("a.zarr", "--quantity", "sum"), "only for a GeoTIFF; a Zarr volume has all")
    assert_usage(call("a.tif", "--quantity", "all"), "invalid quantity 'all'; expected one of sum,")
    assert_usage(call("a.tif", "--only", "middle"), "'middle' must be low or high")
    assert_usage(call("a.nc"), "must end in .zarr or .tif or .tiff")


def test_summary_and_choice_of_the_channel(scan: Path, tmp_path: Path) -> None:
    low = tmp_path / "low.zarr"
    result = run("voxels", scan, "-o", low, "--size", "1", "--channel", "2=high", "--only", "low")
    assert result.exit_code == 0, result.output
    first, second = result.stdout.splitlines()[:2]
    assert first.startswith("50 waveforms of 50 pulses in ")
    assert first.endswith(f" voxels of size 1: {low}")
    assert second == "50 left out: waveform of the other channel"
    attributes = zarr.open_group(low, mode="r").attrs
    assert (attributes["channel"], attributes["waveforms"]) == ("low", 50)


def test_quantity_of_a_geotiff(scan: Path, tmp_path: Path) -> None:
    path = tmp_path / "a.tif"
    assert run("voxels", scan, "-o", path, "--size", "2", "--quantity", "pulses").exit_code == 0
    with rasterio.open(path) as file:
        assert file.tags()["quantity"] == "pulses"
        # No voxel is crossed by more pulses than there are, and each pulse crosses at least one.
        assert file.read().sum(dtype=int) >= 50
        assert file.read().max() <= 50


def test_existing_files_of_other_kinds_stay(scan: Path, tmp_path: Path) -> None:
    path = tmp_path / "a.tif"
    path.write_bytes(b"something else")
    result = run("voxels", scan, "-o", path, "--size", "2", "--overwrite")
    assert_usage(result, "exists and is not a GeoTIFF volume")
    assert path.read_bytes() == b"something else"


def test_existing_folder_is_refused_before_anything_is_read(scan: Path, tmp_path: Path) -> None:
    volume = tmp_path / "a.zarr"
    call = ("voxels", scan, "-o", volume, "--size", "2")
    assert run(*call).exit_code == 0
    assert_usage(run(*call), "already exists; use --overwrite")
    assert run(*call, "--overwrite").exit_code == 0
    (volume / "notes.txt").write_text("mine", encoding="ascii")
    assert_usage(run(*call, "--overwrite"), "exists and is not a Zarr volume")
    assert (volume / "notes.txt").read_text(encoding="ascii") == "mine"


def test_degrees_need_a_projected_system(tmp_path: Path) -> None:
    scene: GediScene = two_beams()
    source = scene.write(tmp_path / "a.h5")
    result = run("voxels", source, "-o", tmp_path / "a.zarr", "--size", "1")
    assert_error(result, "coordinates in degrees", "--crs EPSG:N")
    options = ("--size", "1", "--crs", "EPSG:32723")
    result = run("voxels", source, "-o", tmp_path / "a.zarr", *options)
    assert result.exit_code == 0, result.output
