"""A real GEDI L1B file against the official products of the same shots, if available."""

from __future__ import annotations

import zipfile
from pathlib import Path

import h5py
import numpy as np
import pytest
from scipy.optimize import linear_sum_assignment

from fullwaveform import extract
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import Columns
from fullwaveform.io.opening import open_waveforms

from ...support.las_scenes import data_folder

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
def waveforms(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return unpacked("GEDI01_B", tmp_path_factory.mktemp("l1b"))


@pytest.fixture(scope="module")
def blocks(waveforms: Path) -> list[WaveformBlock]:
    with open_waveforms(waveforms) as reader:
        return list(reader.blocks())


@pytest.fixture(scope="module")
def official(
    blocks: list[WaveformBlock], tmp_path_factory: pytest.TempPathFactory
) -> dict[str, np.ndarray]:
    """Columns of the L2A product for the 300 shots of the waveforms; it has one shot more."""
    names = {
        "shot_number": "shot_number",
        "lowest": "geolocation/elev_lowestmode_a1",
        "highest": "geolocation/elev_highestreturn_a1",
        "zcross": "rx_processing_a1/zcross",
        "toploc": "rx_processing_a1/toploc",
        "modes": "geolocation/elevs_allmodes_a1",
        "positions": "rx_processing_a1/rx_modelocs",
    }
    with h5py.File(unpacked("GEDI02_A", tmp_path_factory.mktemp("l2a"))) as file:
        beams = [file[name] for name in file if name.startswith("BEAM")]
        found = {key: np.concatenate([b[path][:] for b in beams]) for key, path in names.items()}
    known = np.isin(found["shot_number"], np.concatenate([b.shot_numbers for b in blocks]))  # type: ignore[misc]
    return {name: values[known] for name, values in found.items()}


def test_file_has_300_shots_of_seven_beams(blocks: list[WaveformBlock]) -> None:
    assert sum(map(len, blocks)) == 300
    names = [str(block.beams[0]) for block in blocks]  # type: ignore[index]
    assert names == [
        "BEAM0001", "BEAM0010", "BEAM0011", "BEAM0101", "BEAM0110", "BEAM1000", "BEAM1011",
    ]  # fmt: skip


@pytest.mark.parametrize(("position", "height"), [("zcross", "lowest"), ("toploc", "highest")])
def test_heights_agree_with_the_official_product_within_a_millimetre(
    blocks: list[WaveformBlock], official: dict[str, np.ndarray], position: str, height: str
) -> None:
    numbers = np.concatenate([block.shot_numbers for block in blocks])  # type: ignore[misc]
    assert np.array_equal(numbers, official["shot_number"])
    first = np.concatenate([block.geometry.anchor[:, 2] for block in blocks])
    step = np.concatenate([-1000.0 * block.geometry.direction[:, 2] for block in blocks])
    found = first + official[position] * step
    # The product stores the heights in single precision, to 0.06 mm.
    assert np.abs(found - official[height]).max() < 1e-3


def test_all_shots_are_usable_and_places_are_in_degrees(blocks: list[WaveformBlock]) -> None:
    anchors = np.concatenate([block.geometry.anchor for block in blocks])
    assert np.isfinite(anchors).all()
    assert (anchors[:, 0] > -44.15).all()
    assert (anchors[:, 0] < -44.10).all()
    assert (anchors[:, 1] > -13.76).all()
    assert (anchors[:, 1] < -13.71).all()


def test_light_needs_half_a_nanosecond_for_each_sample(blocks: list[WaveformBlock]) -> None:
    """Two-way in air: 0.1499 m of height and of distance on the ground together."""
    for block in blocks:
        step = 1000.0 * block.geometry.direction
        metres = step * [111_000.0 * np.cos(np.deg2rad(13.7)), 111_000.0, 1.0]
        np.testing.assert_allclose(np.linalg.norm(metres, axis=1), 0.14986, atol=2e-5)


@pytest.mark.parametrize("workers", [2, 5])
def test_echoes_are_the_same_for_any_number_of_workers(waveforms: Path, workers: int) -> None:
    one = extract(waveforms, workers=1)
    other = extract(waveforms, workers=workers)
    assert len(one) > 300
    for name, column in one.peaks.items():
        nan = column.dtype.kind == "f"
        assert np.array_equal(column, other.peaks[name], equal_nan=nan), name


def pairs_with_modes(found: Columns, official: dict[str, np.ndarray]) -> int:
    """Echoes and modes of a shot that lie within 1 m, one to one."""
    pairs = 0
    for shot, modes, positions in zip(
        official["shot_number"], official["modes"], official["positions"], strict=True
    ):
        heights = found["z"][found["shot_number"] == shot]
        near = np.abs(heights[:, np.newaxis] - modes[positions > 0]) <= 1.0
        pairs += int(near[linear_sum_assignment(near, maximize=True)].sum())
    return pairs


@pytest.mark.parametrize(
    ("options", "pairs", "others"),
    [
        ({}, 301, 0),
        ({"mode": "decomposition"}, 301, 0),
        ({"mode": "decomposition", "smoothing": 4e-9}, 302, 10),
        ({"mode": "decomposition", "smoothing": 8e-9}, 300, 0),
        ({"smoothing": 0.0}, 285, 156),
        ({"mode": "decomposition", "smoothing": 0.0}, 292, 95),
    ],
)
def test_echoes_are_the_official_modes(
    waveforms: Path,
    official: dict[str, np.ndarray],
    options: dict[str, object],
    pairs: int,
    others: int,
) -> None:
    """The table of the page on archives; 306 modes."""
    assert np.count_nonzero(official["positions"] > 0) == 306
    found = extract(waveforms, **options).peaks  # type: ignore[arg-type]
    paired = pairs_with_modes(found, official)
    assert paired >= pairs
    assert found.rows - paired <= others


@pytest.mark.parametrize(("max_width", "pairs", "others"), [(None, 302, 728), (80e-9, 296, 648)])
def test_pulse_fit_splits_broad_modes(
    waveforms: Path,
    official: dict[str, np.ndarray],
    max_width: float | None,
    pairs: int,
    others: int,
) -> None:
    """The figures of the page on archives; its pulse is the outgoing one."""
    found = extract(waveforms, mode="pulse-fit", max_width=max_width).peaks
    paired = pairs_with_modes(found, official)
    assert paired >= pairs
    assert found.rows - paired <= others
