"""Unreadable waveforms, channels that a file does not have, echoes without coordinates."""

from __future__ import annotations

import json
import os
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.opening import open_waveforms

from ..support import las_scenes, pulsewaves_scenes
from ..support.command_line import assert_error, assert_usage, names, run
from ..support.row_scenes import as_container


def cut_las(folder: Path) -> Path:
    """Four packets of four bytes after a header of 60; the third is truncated by a byte."""
    path = las_scenes.four_shots().write(folder / "scan.las")
    os.truncate(path.with_suffix(".wdp"), 60 + 11)
    return path


def cut_pulses(folder: Path) -> Path:
    """Three waveforms of four bytes after a header of 60; the last is truncated by two bytes."""
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


@pytest.mark.parametrize(("make", "messages"), CASES)
def test_verbose_lists_each_unreadable_waveform(
    make: Callable[[Path], Path], messages: list[str], tmp_path: Path
) -> None:
    source = make(tmp_path)
    options = ["--skip-unreadable", "--verbose"]
    for call in (
        ["extract", source, "-o", tmp_path / "e.csv", "--allow-empty"],
        ["convert", source, tmp_path / "e.h5"],
    ):
        listed = run(*call, *options)
        assert listed.exit_code == 0, listed.output
        assert [line for line in listed.stderr.splitlines() if line in messages] == messages
        silent = run(*call, "--skip-unreadable", "--overwrite")
        assert not set(silent.stderr.splitlines()) & set(messages)


def test_info_lists_unreadable_waveforms(tmp_path: Path) -> None:
    listed = run("info", cut_las(tmp_path), "--verbose", "--json")
    assert listed.stderr.splitlines() == CASES[0][1]
    assert json.loads(listed.stdout)["rejected"] == {"samples outside the file": 2}


def test_messages_come_block_by_block_and_not_while_counting_blocks(tmp_path: Path) -> None:
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


def test_quiet_and_verbose_are_exclusive(tmp_path: Path) -> None:
    source = cut_las(tmp_path)
    for call in (["convert", source, tmp_path / "e.h5"], ["info", source]):
        assert_usage(run(*call, "-q", "-v"), "cannot be combined with --verbose")
    assert not (tmp_path / "e.h5").exists()


def calls(source: Path, target: Path) -> list[list[str | Path]]:
    """Every command with the option --channel."""
    return [
        ["extract", source, "-o", target / "e.csv"],
        ["info", source],
        ["plot", source, "--waveform", "0", "-o", target / "p.png"],
        ["report", source, "--waveform", "0"],
        ["convert", source, target / "c.h5"],
        ["cluster", source, "-o", target / "parts", "--scheduler", "local"],
    ]


@pytest.mark.parametrize("index", range(6))
def test_unknown_channels_are_refused(index: int, tmp_path: Path) -> None:
    source, target = las_scenes.four_shots().write(tmp_path / "scan.las"), tmp_path / "out"
    target.mkdir()
    call = calls(source, target)[index]
    refused = run(*call, "--channel", "7=high", "--channel", "1=low", "--channel", "9=0")
    assert_usage(refused, f"no packet descriptor or channel 7, 9 in {source}; available: 1")
    assert list(target.iterdir()) == []


@pytest.mark.parametrize(
    ("make", "available"),
    [
        (lambda folder: pulsewaves_scenes.two_channels().write(folder / "scan.pls"), "0, 1"),
        (archive, "0"),
    ],
)
def test_channels_of_other_formats(
    make: Callable[[Path], Path], available: str, tmp_path: Path
) -> None:
    source = make(tmp_path)
    refused = run("info", source, "--channel", "3=high")
    assert_usage(refused, f"no packet descriptor or channel 3 in {source}; available: {available}")
    known = run("info", source, "--channel", "0=high", "--json")
    assert 0 in [entry["flag"] for entry in json.loads(known.stdout)["channels"]]


def test_note_on_ignored_channels_of_files_with_their_own(tmp_path: Path) -> None:
    las = las_scenes.four_shots().write(tmp_path / "scan.las")
    archive(tmp_path)
    with np.load(tmp_path / "a.npz") as arrays:
        np.savez(tmp_path / "flags.npz", **arrays, channel_flags=[0, 1, 1])
    for source in (as_container(las, tmp_path / "scan.h5"), tmp_path / "flags.npz"):
        listed = run("info", source, "--channel", "3=high", "--json")
        assert listed.exit_code == 0, listed.output
        note = "The file stores the channel of each waveform; the given channels were ignored."
        assert note in json.loads(listed.stdout)["notes"]
        assert note not in json.loads(run("info", source, "--json").stdout)["notes"]


@pytest.mark.parametrize("ending", ["las", "laz"])
def test_las_without_any_coordinates_is_refused(ending: str, tmp_path: Path) -> None:
    samples = np.full((2, 60), 5, np.uint16)
    samples[:, 30:33] = 40, 80, 40
    source, output = tmp_path / "a.npz", tmp_path / f"e.{ending}"
    np.savez(source, samples=samples, shot_times=[1.0, 2.0], sampling_interval=1e-9)
    call = ["extract", source, "--threshold", "10", "-o"]
    message = f"{output} would be empty: none of the 2 echoes has coordinates"
    assert_error(run(*call, output), message, "write a table (.csv, .parquet, .h5)")
    assert names(tmp_path) == ["a.npz"]
    assert run(*call, tmp_path / "e.csv").exit_code == 0


def test_declared_channel_that_no_waveform_has_is_refused(tmp_path: Path) -> None:
    scene = las_scenes.four_shots()
    scene.descriptors = [*scene.descriptors, (2, 8, 0, 1000)]
    source = scene.write(tmp_path / "scan.las")
    (tmp_path / "out").mkdir()
    for call in calls(source, tmp_path / "out"):
        assert_usage(
            run(*call, "--channel", "2=high"),
            f"no waveform in {source} is of packet descriptor or channel 2, which the file "
            "declares; in use: 1",
        )
    assert run("info", source, "--channel", "1=high", "--json").exit_code == 0


def two_gains(path: Path, *options: str) -> list[str]:
    """Notes on two shots with packets of two descriptors of 1 and 0.25 V per count."""
    packets = [(1, [1, 2, 3, 4]), (2, [1, 2, 3, 4])] * 2
    points = [las_scenes.Point(number, gps_time=100.0 + number // 2) for number in range(4)]
    scene = las_scenes.Scene([(1, 8, 4, 1000), (2, 8, 4, 1000)], packets, points)
    scene.gains = {1: 1.0, 2: 0.25}
    result = run("info", scene.write(path), "--json", *options)
    assert result.exit_code == 0, result.output
    return list(json.loads(result.stdout)["notes"])


def test_note_on_two_channels_of_different_gain(tmp_path: Path) -> None:
    (note,) = two_gains(tmp_path / "scan.las")
    assert note == (
        "Descriptors 1 and 2 hold waveforms of the same shots, with 0.25 V per count in 2 and 1 in "
        "1; if they are the low-power and the high-power channel, give --channel 1=high."
    )
    assert two_gains(tmp_path / "scan.las", "--channel", "1=high") == []


def test_no_note_on_descriptors_of_different_shots_or_equal_gain(tmp_path: Path) -> None:
    packets = [(1, [1, 2, 3, 4]), (2, [1, 2, 3, 4])]
    for times, gains in (((1.0, 2.0), {1: 1.0, 2: 2.0}), ((1.0, 1.0), {1: 2.0, 2: 2.0})):
        points = [las_scenes.Point(number, gps_time=time) for number, time in enumerate(times)]
        points.append(las_scenes.Point(None, gps_time=3.0))
        scene = las_scenes.Scene([(1, 8, 4, 1000), (2, 8, 4, 1000)], packets, points)
        scene.gains = gains
        result = run("info", scene.write(tmp_path / "scan.las"), "--json")
        assert json.loads(result.stdout)["notes"] == []
