"""The picture of the README is what its commands make, and shows what its words say."""

from __future__ import annotations

import re
import shlex
from pathlib import Path

import numpy as np
import pytest

import fullwaveform as fw
from fullwaveform.simulation import read_truth

from ..support.command_line import run
from ..support.pictures import assert_same_picture

ROOT = Path(__file__).resolve().parents[3]
README = (ROOT / "README.md").read_text(encoding="utf-8")
SECTION = README[README.index("## One waveform") : README.index("## On a file")]


def commands() -> list[list[str]]:
    (block,) = re.findall(r"```sh\n(.*?)```", SECTION, flags=re.DOTALL)
    lines = block.replace("\\\n", " ").splitlines()
    return [shlex.split(line)[1:] for line in lines]


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """Where the commands were run."""
    folder = tmp_path_factory.mktemp("readme")
    with pytest.MonkeyPatch.context() as patch:
        patch.chdir(folder)
        results = [run(*call) for _ in range(2) for call in commands()]
    assert [result.exit_code for result in results] == [0, 0, 0, 0, 0, 0]
    assert results[-1].stdout.startswith(
        "waveform 2448, three-point: 2 echoes; decomposition: 4 echoes; deconvolution: 3 echoes; "
        "pulse-fit: 3 echoes\n"
    )
    return folder


def test_documented_commands_write_the_picture(folder: Path) -> None:
    assert_same_picture(folder / "waveform.png", "waveform.png")


def test_truth_agrees_with_the_description(folder: Path) -> None:
    truth = read_truth(folder / "scan_truth.csv")
    of_shot = truth.shot == 2448 // 2  # two channels per shot
    words = re.search(r"echoes at ([\d.]+), ([\d.]+) and ([\d.]+) samples", SECTION)
    assert words is not None
    printed = [float(number) for number in words.groups()]
    np.testing.assert_allclose(truth.position_samples[of_shot], printed, atol=0.05)


@pytest.mark.parametrize("mode", [fw.Mode.DECONVOLUTION, fw.Mode.PULSE_FIT])
def test_two_methods_find_each_surface_once(folder: Path, mode: fw.Mode) -> None:
    truth = read_truth(folder / "scan_truth.csv")
    positions = truth.position_samples[truth.shot == 2448 // 2]
    found = fw.extract(folder / "scan.las", mode=mode, scanner=folder / "scanner.toml").peaks
    mine = np.sort(found["position"][found["waveform_number"] == 2448])
    np.testing.assert_allclose(mine, positions, atol=0.2)
