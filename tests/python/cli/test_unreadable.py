"""Waveforms that cannot be read, channels that are not there, echoes without a place."""

from __future__ import annotations

import json
import os
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.opening import open_waveforms

from ..support import las_scenes, pulsewaves_scenes
from ..support.command_line import assert_trouble, assert_usage, names, run
from ..support.row_scenes import as_container


def cut_las(folder: Path) -> Path:
    """Four packets of four bytes behind a header of 60, of which the third lost its last byte."""
    path = las_scenes.four_shots().write(folder / "scan.las")
    os.truncate(path.with_suffix(".wdp"), 60 + 11)
    return path


def cut_pulses(folder: Path) -> Path:
    """Three pulses of four bytes each behind a header of 60; the last one lost two bytes."""
    path = pulsewaves_scenes.three_pulses().write(folder / "scan.pls")
    waves = path.with_suffix(".wvs")
    os.truncate(waves, waves.stat().st_size - 2)
    return path


def archive(folder: Path) -> Path:
    """Three rows: a good one, one without a time, one without samples."""
    samples = np.full((3, 5), [1, 9, 200, 9, 1], np.uint16)
    np.savez(folder / "a.npz", samples=samples, counts=[5, 5, 0], shot_times=[1.0, np.nan, 2.0],
             sampling_interval=1e-9)  # fmt: skip
    return folder / "a.npz"


CASES: list[tuple[Callable[[Path], Path], list[str]]] = [
    (
        cut_las,
        [
            "descriptor 1, byte 68, GPS time 102.0 s: samples outside the file",
            "descriptor 1, byte 72, GPS time 103.0 s: samples outside the file",
        ],
    ),
    (cut_pulses, ["pulse 2: samples outside the file"]),
    (archive, ["row 1: GPS time not finite", "row 2: waveform without samples"]),
]


@pytest.mark.parametrize(("make", "sentences"), CASES)
def test_verbose_names_each_waveform_that_cannot_be_read(
    make: Callable[[Path], Path], sentences: list[str], tmp_path: Path
) -> None:
    source = make(tmp_path)
    options = ["--skip-unreadable", "--verbose"]
    for call in (
        ["extract", source, "-o", tmp_path / "e.csv"],
        ["convert", source, tmp_path / "e.h5"],
    ):
        told = run(*call, *options)
        assert told.exit_code == 0, told.output
        assert [line for line in told.stderr.splitlines() if line in sentences] == sentences
        silent = run(*call, "--skip-unreadable")
        assert not set(silent.stderr.splitlines()) & set(sentences)


def test_info_names_them_too(tmp_path: Path) -> None:
    told = run("info", cut_las(tmp_path), "--verbose", "--json")
    assert told.stderr.splitlines() == CASES[0][1]
    assert json.loads(told.stdout)["rejected"] == {"samples outside the file": 2}


def test_sentences_come_block_by_block_and_not_for_counting_blocks(tmp_path: Path) -> None:
    met: list[str] = []
    with open_waveforms(cut_las(tmp_path), waveforms_per_block=1) as reader:
        reader.on_unreadable = met.append
        assert reader.block_count() == 2
        assert met == []
        assert len(list(reader.blocks())) == 2
        assert met == CASES[0][1]
        reader.on_unreadable = None
        assert len(list(reader.blocks())) == 2
        assert reader.tally.rejected == {"samples outside the file": 2}
    assert met == CASES[0][1]


def test_quiet_and_verbose_contradict_each_other(tmp_path: Path) -> None:
    source = cut_las(tmp_path)
    for call in (["convert", source, tmp_path / "e.h5"], ["info", source]):
        assert_usage(run(*call, "-q", "-v"), "contradicts --verbose")
    assert not (tmp_path / "e.h5").exists()


def calls(source: Path, target: Path) -> list[list[str | Path]]:
    """Every verb that is told channels."""
    return [
        ["extract", source, "-o", target / "e.csv"],
        ["info", source],
        ["plot", source, "--waveform", "0", "-o", target / "p.png"],
        ["report", source, "--waveform", "0"],
        ["convert", source, target / "c.h5"],
        ["extract", source, "-o", target / "parts", "--cluster", "local"],
    ]


@pytest.mark.parametrize("verb", range(6))
def test_channels_that_the_file_does_not_have_are_refused(verb: int, tmp_path: Path) -> None:
    source, target = las_scenes.four_shots().write(tmp_path / "scan.las"), tmp_path / "out"
    target.mkdir()
    call = calls(source, target)[verb]
    refused = run(*call, "--channel", "7=high", "--channel", "1=low", "--channel", "9=0")
    assert_usage(refused, f"{source} has no packet descriptor or channel 7, 9; it has 1")
    assert list(target.iterdir()) == []


@pytest.mark.parametrize(
    ("make", "there"),
    [
        (lambda folder: pulsewaves_scenes.two_channels().write(folder / "scan.pls"), "0, 1"),
        (archive, "0"),
    ],
)
def test_channels_of_other_formats(
    make: Callable[[Path], Path], there: str, tmp_path: Path
) -> None:
    source = make(tmp_path)
    refused = run("info", source, "--channel", "3=high")
    assert_usage(refused, f"{source} has no packet descriptor or channel 3; it has {there}")
    known = run("info", source, "--channel", "0=high", "--json")
    assert 0 in [entry["flag"] for entry in json.loads(known.stdout)["channels"]]


def test_files_that_say_the_channels_themselves_tell_that_none_is_used(tmp_path: Path) -> None:
    las = las_scenes.four_shots().write(tmp_path / "scan.las")
    archive(tmp_path)
    with np.load(tmp_path / "a.npz") as arrays:
        np.savez(tmp_path / "flags.npz", **arrays, channel_flags=[0, 1, 1])
    for source in (as_container(las, tmp_path / "scan.h5"), tmp_path / "flags.npz"):
        told = run("info", source, "--channel", "3=high", "--json")
        assert told.exit_code == 0, told.output
        note = "The file stores the channel of each waveform; the given channels were ignored."
        assert note in json.loads(told.stdout)["notes"]
        assert note not in json.loads(run("info", source, "--json").stdout)["notes"]


@pytest.mark.parametrize("ending", ["las", "laz"])
def test_points_without_any_place_are_refused(ending: str, tmp_path: Path) -> None:
    samples = np.full((2, 60), 5, np.uint16)
    samples[:, 30:33] = 40, 80, 40
    source, output = tmp_path / "a.npz", tmp_path / f"e.{ending}"
    np.savez(source, samples=samples, shot_times=[1.0, 2.0], sampling_interval=1e-9)
    call = ["extract", source, "--noise", "10", "-o"]
    sentence = f"{output} would be empty: none of the 2 echoes has a place in space"
    assert_trouble(run(*call, output), sentence, "a table (.csv, .parquet, .h5)")
    assert names(tmp_path) == ["a.npz"]
    assert run(*call, tmp_path / "e.csv").exit_code == 0
