"""Metrics of a real GEDI L1B file against the official products of the same shots."""

from __future__ import annotations

import zipfile
from pathlib import Path

import h5py
import numpy as np
import pytest

import fullwaveform
from fullwaveform.data.columns import Columns

from ..support.las_scenes import data_folder

FOLDER = data_folder() / "gedi"

pytestmark = pytest.mark.skipif(
    not FOLDER.exists(), reason="no folder gedi in the folder of real data"
)


def unpacked(product: str, folder: Path) -> Path:
    (archive,) = FOLDER.glob(f"{product}_*.zip")
    with zipfile.ZipFile(archive) as file:
        (name,) = (name for name in file.namelist() if name.endswith(".h5"))
        return Path(file.extract(name, folder))


@pytest.fixture(scope="module")
def computed(tmp_path_factory: pytest.TempPathFactory) -> Columns:
    return fullwaveform.metrics(unpacked("GEDI01_B", tmp_path_factory.mktemp("l1b"))).columns


def official(
    product: str, names: tuple[str, ...], shots: np.ndarray, folder: Path
) -> dict[str, np.ndarray]:
    """Datasets of another product for the given shots, in their order."""
    with h5py.File(unpacked(product, folder)) as file:
        beams = [file[name] for name in file if name.startswith("BEAM")]
        numbers = np.concatenate([beam["shot_number"][:] for beam in beams])
        order = np.argsort(numbers)
        rows = order[np.searchsorted(numbers, shots, sorter=order)]
        assert np.array_equal(numbers[rows], shots)
        return {
            name: np.concatenate([beam[name][:] for beam in beams]).astype(float)[rows]
            for name in names
        }


def test_relative_heights_agree_with_l2a(computed: Columns, tmp_path: Path) -> None:
    names = ("rh", "elev_lowestmode", "elev_highestreturn")
    shots = official("GEDI02_A", names, computed["shot_number"], tmp_path)
    assert len(computed["rh_0"]) == 300
    for percent in (25, 50, 75, 98, 100):
        difference = computed[f"rh_{percent}"] - shots["rh"][:, percent]
        assert abs(difference.mean()) < 0.01, percent
        assert difference.std() < 0.02, percent
    # A quarter of a sample.
    np.testing.assert_allclose(computed["ground_z"], shots["elev_lowestmode"], atol=0.038)
    np.testing.assert_allclose(computed["top_z"], shots["elev_highestreturn"], atol=0.038)


def test_canopies_agree_with_l2b(computed: Columns, tmp_path: Path) -> None:
    names = ("cover", "pai", "fhd_normal", "cover_z")
    shots = official("GEDI02_B", names, computed["shot_number"], tmp_path)
    for ours, theirs in (("cover", "cover"), ("pai", "pai")):
        assert np.corrcoef(computed[ours], shots[theirs])[0, 1] > 0.998, ours
    assert np.corrcoef(1.0 - computed["gap_5m"], shots["cover_z"][:, 1])[0, 1] > 0.998
    # Where there is little canopy, its diversity depends on the lowest metre alone.
    dense = shots["cover"] > 0.1
    assert np.count_nonzero(dense) == 67
    assert np.corrcoef(computed["fhd"][dense], shots["fhd_normal"][dense])[0, 1] > 0.996
    assert np.corrcoef(computed["fhd"], shots["fhd_normal"])[0, 1] > 0.992


def test_metrics_need_neither_fill_values_nor_flags(computed: Columns) -> None:
    assert (computed["flags"] == 0).all()
    assert all(np.isfinite(computed[name]).all() for name in ("rh_0", "cover", "pai", "fhd"))
