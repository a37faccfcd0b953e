"""Scores of waveforms and the choice of examples, on blocks of known waveforms."""

from __future__ import annotations

import os
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

from fullwaveform import Scanner
from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.levels import ChannelLevels
from fullwaveform.core.driver import Mode
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import take_rows
from fullwaveform.extraction.extractor import ExtractionSettings, Extractor
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan
from fullwaveform.view.example_kinds import BlockScores, ExampleKind, ReceiverTop, block_scores
from fullwaveform.view.examples import ChosenExamples, ExampleSelection, numbers_of_shots

from ..support.command_line import run
from ..support.las_scenes import Point, Scene
from ..support.waveform_blocks import block
from . import page_scenes as scenes

NONE = np.empty(0, np.int64)


def waveforms(count: int) -> WaveformBlock:
    return block(np.zeros((count, 4)))


def scored(most: list[float], tops: tuple[ReceiverTop, ...] = ()) -> BlockScores:
    values = np.array(most)
    return BlockScores(
        {
            kind: values if kind is ExampleKind.MOST else np.full(len(most), np.nan)
            for kind in ExampleKind
            if kind is not ExampleKind.SATURATED
        },
        tops,
    )


def chosen(all_waveforms: WaveformBlock, scores: list[float], size: int) -> ChosenExamples:
    selection = ExampleSelection()
    for first in range(0, len(scores), size):
        rows = np.arange(first, min(first + size, len(scores)))
        part = take_rows(all_waveforms, rows)
        selection.add(part, scored([scores[row] for row in rows]))
    return selection.chosen()[ExampleKind.MOST]


@pytest.mark.parametrize("size", [1, 7, 100])
def test_best_are_chosen_and_the_first_of_equal_ones(size: int) -> None:
    scores = [float(number % 3) for number in range(100)]
    scores[50] = np.nan
    found = chosen(waveforms(100), scores, size)
    assert found.total == 99
    expected = [number for number in range(100) if number % 3 == 2 and number != 50][:30]
    assert [one.waveform for one in found.examples] == expected
    assert [one.shot_number for one in found.examples] == expected


def test_example_has_all_waveforms_of_its_shot() -> None:
    shots = replace(waveforms(6), shot_times=np.array([0.0, 1.0, 1.0, 1.0, 2.0, 2.0]))
    found = chosen(shots, [0.0, 1.0, 2.0, 5.0, 4.0, 3.0], 6)
    best, second = found.examples[:2]
    assert (best.waveform, best.shot_number) == (3, 1)
    assert best.shot.block.waveform_numbers.tolist() == [1, 2, 3]
    assert best.shot.rows.tolist() == [2]
    assert (second.waveform, second.shot_number, second.shot.rows.tolist()) == (4, 2, [0])


def top(largest: int, rows: list[int], receiver: tuple[int, int] = (1, 0)) -> ReceiverTop:
    return ReceiverTop(receiver, largest, np.array(rows), np.full(len(rows), 3))


def saturated(*blocks: list[ReceiverTop]) -> ChosenExamples:
    selection = ExampleSelection()
    for number, tops in enumerate(blocks):
        numbered = replace(waveforms(10), waveform_numbers=10 * number + np.arange(10))
        selection.add(numbered, scored([np.nan] * 10, tuple(tops)))
    return selection.chosen()[ExampleKind.SATURATED]


def test_only_the_largest_sample_of_all_blocks_is_the_limit() -> None:
    found = saturated([top(200, [1, 2])], [top(255, [3])], [top(254, [4, 5])], [top(255, [6])])
    assert [one.waveform for one in found.examples] == [13, 36]
    assert found.total == 2


def test_a_single_flat_waveform_is_saturated_at_full_scale_only() -> None:
    assert saturated([top(255, [3])]).total == 1
    assert saturated([top(254, [3])]).total == 0
    assert saturated([top(254, [3, 4])]).total == 2


def test_each_receiver_has_its_limit() -> None:
    found = saturated([top(255, [1, 2], (1, 1)), top(99, [3, 4], (0, 2))], [top(255, [5], (0, 2))])
    assert [one.waveform for one in found.examples] == [1, 2, 15]


def test_scores_of_known_waveforms() -> None:
    """Two receivers with noise of 1 and 4 counts."""
    samples = [scenes.samples_of(shot) for shot in (33, 33, 20, 5, 40)]
    two = block(samples, flags=[1, 0, 1, 1, 1])
    levels = tuple(
        ChannelLevels(flag, 0, 100, 10.0, 0.0, rms) for flag, rms in ((1, 1.0), (0, 4.0))
    )
    settings = ExtractionSettings(
        Scanner.default(), Mode.DECOMPOSITION, calibration=Calibration(levels)
    )
    extractor = Extractor(settings)
    found = block_scores(extractor, two, extractor.extract(two))
    most = found.scores[ExampleKind.MOST]
    assert most[:3].tolist() == [1.0, 1.0, 3.0]
    assert np.isnan(most[3])
    weakest = -found.scores[ExampleKind.WEAKEST]
    assert weakest[:3] == pytest.approx([133.0, 133.0 / 4.0, 100.0], rel=0.01)
    random = found.scores[ExampleKind.TYPICAL]
    assert np.isnan(random[3])
    assert len(set(random[[0, 1, 2, 4]].tolist())) == 4
    assert found.scores[ExampleKind.WORST][[0, 2]] == pytest.approx(0.3, abs=0.15)
    tops = {one.receiver: one for one in found.tops}
    assert (tops[1, 0].largest, tops[1, 0].rows.tolist()) == (1023, [4])
    assert tops[1, 0].clipped.tolist() == [3]
    assert tops[0, 0].rows.tolist() == []  # a maximum of one sample


def test_constant_samples_are_not_saturated() -> None:
    flat = block(np.full((3, 64), 10))
    level = ChannelLevels(1, 0, 3, 10.0, 0.0, 0.5)
    settings = ExtractionSettings(Scanner.default(), calibration=Calibration((level,)))
    extractor = Extractor(settings)
    found = block_scores(extractor, flat, extractor.extract(flat))
    assert [len(one.rows) for one in found.tops] == [0]


def test_unreadable_packets_have_no_number(tmp_path: Path) -> None:
    """The packets lie in reverse order, and the file ends before that of the first point."""
    packets = [(1, scenes.samples_of(shot).tolist()) for shot in (36, 35, 34, 33)]
    points = [Point(3 - number, gps_time=100.0 + number) for number in range(4)]
    scan = Scene([(1, 16, scenes.SAMPLES, 1000)], packets, points).write(tmp_path / "scan.las")
    os.truncate(scan.with_suffix(".wdp"), 60 + 3 * 2 * scenes.SAMPLES)
    page = scenes.written_page(scan, tmp_path / "page.html")
    found = {(one.waveform, int(one.attributes["data-shot"])) for one in page.figures["typical"]}
    assert found == {(0, 0), (1, 1), (2, 2)}
    # The command plot counts them in the same way.
    call = ["plot", scan, "--shot", "2", "-o", tmp_path / "shot.svg"]
    assert run(*call).stdout.startswith("waveform 2, ")
    assert "GPS time 103.000000 s" in (tmp_path / "shot.svg").read_text(encoding="utf-8")
    (last,) = (one for one in page.figures["typical"] if one.waveform == 2)
    assert "GPS time 103.000000 s" in last.text


def test_numbers_of_shots_are_those_of_the_file(tmp_path: Path) -> None:
    """Two waveforms in each shot of a simulated scan of two channels."""
    las = write_scan(simulate_scan(ScanSettings(shots=40)), tmp_path / "scan.las").las
    for size in (5, 1000):
        with open_waveforms(las, waveforms_per_block=size) as reader:
            found = numbers_of_shots(reader, [7, 70, 0, 7, 31])
        assert found == {0: 0, 7: 3, 31: 15, 70: 35}
