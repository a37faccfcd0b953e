"""Metrics of LVIS files with a known canopy above a known ground, in all data structures."""

from __future__ import annotations

from pathlib import Path

import h5py
import numpy as np
import pytest

import fullwaveform
from fullwaveform import MetricsSettings
from fullwaveform.waveform_metrics.columns import MetricsFlag

from ..support.hdf5_scenes import LVIS_STRUCTURES, LvisScene, changed

GROUND, CANOPY = 300, 240  # samples
WIDTH = 6.0  # standard deviation of both, samples
BASELINE = 100.0
TOP = 1500.0  # m, of the first sample


def waveform(length: int) -> np.ndarray:
    """Counts with three quarters of the energy at the ground; the noise alternates by one count."""
    x = np.arange(length)
    ground = 300.0 * np.exp(-0.5 * ((x - GROUND) / WIDTH) ** 2)
    canopy = 100.0 * np.exp(-0.5 * ((x - CANOPY) / WIDTH) ** 2)
    return np.rint(BASELINE + (-1.0) ** x + ground + canopy)


def canopy_above_ground(structure: str, path: Path) -> Path:
    last, _, interval = LVIS_STRUCTURES[structure]
    scene = LvisScene(np.array([waveform(last + 1)] * 2), [50.0, 51.0], interval)

    def with_mean_noise(file: h5py.File) -> None:
        file["SIGMEAN"][...] = BASELINE

    return changed(scene.write(path), with_mean_noise)


@pytest.mark.parametrize("structure", sorted(LVIS_STRUCTURES))
def test_heights_and_cover(structure: str, tmp_path: Path) -> None:
    path = canopy_above_ground(structure, tmp_path / "lvis.h5")
    interval = LVIS_STRUCTURES[structure][2]  # ns
    metres = 0.1498 * interval  # light in air, between two samples
    found = fullwaveform.metrics(path, settings=MetricsSettings(smoothing=0.0)).columns
    # From below, 25 % and 50 % of the energy are 1/3 and 2/3 of the ground: -0.4307 and 0.4307
    # standard deviations; 90 % and 95 % are 60 % and 80 % of the canopy: 0.2533 and 0.8416.
    for name, samples in (("rh_25", -2.584), ("rh_50", 2.584), ("rh_90", 61.52), ("rh_95", 65.05)):
        assert found[name] == pytest.approx([samples * metres] * 2, abs=0.4 * metres), name
    # Z is of single precision: 0.06 mm at 1500 m.
    assert found["ground_z"] == pytest.approx([TOP - GROUND * metres] * 2, abs=0.1 * metres)
    energy = 400.0 * WIDTH * np.sqrt(2.0 * np.pi) * interval  # counts ns
    assert found["energy"] == pytest.approx([energy] * 2, rel=0.02)
    assert found["mode_count"].tolist() == [2, 2]
    assert found["noise_mean"].tolist() == [BASELINE] * 2
    assert found["noise_rms"] == pytest.approx([1.0, 1.0], rel=0.05)
    assert found["shot_number"].tolist() == [1, 2]
    assert (found["flags"] & MetricsFlag.NO_SIGNAL == 0).all()


def test_cover_of_the_canopy(tmp_path: Path) -> None:
    path = canopy_above_ground("2.0.3 facility", tmp_path / "lvis.h5")
    found = fullwaveform.metrics(path, settings=MetricsSettings(smoothing=4.0)).columns
    # The leaves reflect 1.5 times as much as the ground: 100 / (100 + 1.5 x 300).
    assert found["cover"] == pytest.approx([2.0 / 11.0] * 2, rel=0.02)
    assert found["pai"] == pytest.approx([-2.0 * np.log(9.0 / 11.0)] * 2, rel=0.02)
