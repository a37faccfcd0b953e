"""Contents of files, compared with hand-counted samples of small files."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from fullwaveform.analysis.histograms import count_median, count_quantile, value_histogram
from fullwaveform.analysis.inspection import FileContents, Level, inspect_waveforms
from fullwaveform.io.opening import open_waveforms

from ..support.las_scenes import Point, Scene

# FLAT_TOP: of the means of neighbours 10.5 is the lowest; 10.5, 11.5 and 11.5 are within a count of
# it, and their mean is the baseline, 11.167. Of their samples 10 and 11 are below it, by 1.167 and
# 0.167; the latter counts 0.667: root of 1.389 / 1.667 = 0.913. SINGLE_TOP: means 7 and 8, baseline
# 7.5, one sample below it, 5: noise rms 2.5. Values are rounded to sixteenths.
FLAT_TOP = [10, 11, 12, 11, 100, 100, 13, 14]
QUIET = [20, 20, 20, 20, 20]
SINGLE_TOP = [5, 9, 7, 100, 3]


def archive(path: Path, waveforms: list[list[int]], **arrays: Any) -> Path:
    counts = np.array([len(waveform) for waveform in waveforms], np.uint16)
    samples = np.zeros((len(waveforms), max(counts, default=1)), np.uint16)
    for row, waveform in enumerate(waveforms):
        samples[row, : len(waveform)] = waveform
    np.savez(path, samples=samples, counts=counts, **{"sampling_interval": 2e-9, **arrays})
    return path


def contents(path: Path, waveforms_per_block: int = 1) -> FileContents:
    with open_waveforms(path, waveforms_per_block=waveforms_per_block) as reader:
        return inspect_waveforms(reader)


@pytest.fixture(params=[1, 100])
def three(request: pytest.FixtureRequest, tmp_path: Path) -> FileContents:
    """Three waveforms of two shots, in blocks of one shot and in one block."""
    path = archive(
        tmp_path / "three.npz",
        [FLAT_TOP, QUIET, SINGLE_TOP],
        shot_times=np.array([7.0, 7.0, 9.5]),
        channel_flags=np.array([1, 0, 1], np.uint8),
        gps_time=np.array([7.0, 7.0, 9.5]),
        sampling_interval=np.array([1e-9, 1e-9, 2e-9]),
    )
    return contents(path, request.param)


def test_counts(three: FileContents) -> None:
    assert three.format == "NumPy archive"
    assert (three.points, three.waveforms, three.shots, three.samples) == (3, 3, 2, 18)
    assert three.sample_counts == {5: 2, 8: 1}
    assert three.median_sample_count == 5.0
    assert three.sampling_intervals == {1e-9: 2, 2e-9: 1}
    assert three.channels == {0: 1, 1: 2}
    assert three.waveforms_per_shot == {1: 1, 2: 1}
    assert (three.first_time, three.last_time) == (7.0, 9.5)
    assert (three.rejected, three.notes) == ({}, ())


def test_baseline_and_noise(three: FileContents) -> None:
    assert three.baseline == Level(median=179 / 16, low=7.5, high=20.0)
    assert three.noise_rms == Level(median=15 / 16, low=0.0, high=2.5)


def test_values_and_saturation(three: FileContents) -> None:
    assert (three.smallest, three.largest, three.bits) == (3, 100, 7)
    assert three.saturated == pytest.approx(1 / 3)  # the single 100 is no plateau
    assert {v: n for v, n in enumerate(three.value_counts.tolist()) if n} == {
        3: 1, 5: 1, 7: 1, 9: 1, 10: 1, 11: 2, 12: 1, 13: 1, 14: 1, 20: 5, 100: 3,
    }  # fmt: skip
    assert np.flatnonzero(three.maximum_counts).tolist() == [20, 100]
    assert three.maximum_counts[[20, 100]].tolist() == [1, 2]


def test_larger_value_resets_the_plateaus(tmp_path: Path) -> None:
    path = archive(tmp_path / "a.npz", [[50, 50, 0], [80, 0, 80], [0, 80, 80]])
    found = contents(path)
    assert found.largest == 80
    assert found.saturated == pytest.approx(1 / 3)


def test_waveforms_of_one_sample_have_no_level_and_no_plateau(tmp_path: Path) -> None:
    found = contents(archive(tmp_path / "a.npz", [[30], [30]]))
    assert (found.baseline, found.noise_rms) == (None, None)
    assert found.saturated == 0.0


def test_values_of_16_bits(tmp_path: Path) -> None:
    found = contents(archive(tmp_path / "a.npz", [[0, 65535, 65535]]))
    assert (found.smallest, found.largest, found.bits) == (0, 65535, 16)
    assert found.values().counts.sum() == 3
    highest = contents(archive(tmp_path / "b.npz", [[65535] * 3]))
    assert highest.baseline == Level(65535.0, 65535.0, 65535.0)


def test_points_of_a_las_file(tmp_path: Path) -> None:
    packets = [(1, FLAT_TOP), (1, [5, 9, 7, 100, 3, 4, 4, 4])]
    points = [Point(0, gps_time=1.0), Point(0, gps_time=1.0), Point(None, gps_time=2.0)]
    scene = Scene([(1, 8, 8, 2000)], packets, [*points, Point(1, gps_time=3.0)])
    found = contents(scene.write(tmp_path / "scan.las"))
    assert found.format == "LAS 1.3, point format 4"
    assert (found.points, found.waveforms, found.shots) == (4, 2, 2)
    assert (found.points_without_waveform, found.points_sharing_waveform) == (1, 1)
    assert found.sampling_intervals == {2e-9: 2}
    assert (found.first_time, found.last_time) == (1.0, 3.0)


def test_waveforms_that_cannot_be_used_are_counted(tmp_path: Path) -> None:
    packets = [(1, FLAT_TOP), (1, FLAT_TOP)]
    scene = Scene([(1, 8, 8, 2000)], packets, [Point(0), Point(1, gps_time=2.0)])
    path = scene.write(tmp_path / "scan.las")
    os.truncate(path.with_suffix(".wdp"), 60 + 8 + 3)
    found = contents(path)
    assert found.waveforms == 1
    assert sum(found.rejected.values()) == 1


def test_medians_and_quantiles_of_counted_numbers() -> None:
    counts = np.array([0, 3, 0, 1])  # 1 1 1 3
    assert count_median(counts) == 1.0
    assert count_median(np.array([0, 1, 0, 1])) == 2.0  # 1 3
    assert [count_quantile(counts, share) for share in (0.0, 0.75, 0.76, 1.0)] == [1, 1, 3, 3]


def test_few_numbers_have_a_bin_each() -> None:
    histogram = value_histogram(np.array([0, 0, 4, 0, 1]), bins=3)
    assert histogram.edges.tolist() == [2, 3, 4, 5]
    assert histogram.counts.tolist() == [4, 0, 1]


def test_many_numbers_have_bins_of_equal_ratio() -> None:
    # One each of 0 to 99, three bins: the edges are one below 1, 101**(1/3), 101**(2/3), 101.
    histogram = value_histogram(np.ones(100, np.int64), bins=3)
    assert histogram.edges.tolist() == [0, 4, 21, 100]
    assert histogram.counts.tolist() == [4, 17, 79]


def test_no_numbers_have_no_bins() -> None:
    assert len(value_histogram(np.zeros(5, np.int64), bins=3)) == 0
