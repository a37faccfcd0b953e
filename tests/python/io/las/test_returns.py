"""The discrete returns of a block of LAS waveforms."""

from __future__ import annotations

from pathlib import Path

import laspy
import numpy as np
import pytest
from tests.python.support.las_scenes import FOUR, Point, Scene, data_folder, read

from fullwaveform.data.returns import DiscreteReturns
from fullwaveform.io.las.reader import LasWaveformReader

DESCRIPTORS = [(1, 8, 4, 1000)]


def returns_of(path: Path, **options: object) -> list[DiscreteReturns]:
    blocks, _ = read(path, **options)
    found = [block.returns for block in blocks]
    assert all(returns is not None for returns in found)
    return [returns for returns in found if returns is not None]


def two_returns_then_one() -> Scene:
    points = [
        Point(0, 100.0, location=2500.0, fields={"return_number": 2, "classification": 5}),
        Point(0, 100.0, location=500.0, fields={"return_number": 1, "classification": 2}),
        Point(1, 101.0, location=1500.0, fields={"return_number": 1, "intensity": 77}),
    ]
    return Scene(DESCRIPTORS, FOUR[:2], points)


def test_points_of_a_packet_are_its_returns_in_order_of_time(tmp_path: Path) -> None:
    (returns,) = returns_of(two_returns_then_one().write(tmp_path / "scan.las"))
    assert returns.rows.tolist() == [0, 0, 1]
    assert returns.times.tolist() == [500.0, 2500.0, 1500.0]
    assert returns.return_number.tolist() == [1, 2, 1]
    assert returns.classification.tolist() == [2, 5, 0]
    assert returns.intensity.tolist() == [0, 0, 77]
    assert returns.extra is None


def test_pulses_out_of_order_are_sorted_among_others(tmp_path: Path) -> None:
    # Waveform, time in ps and return number; the two equal times keep the order of the file.
    recorded = [(0, 500, 1), (0, 1500, 2)]
    recorded += [(1, 2500, 1), (1, 500, 2), (1, 500, 3), (1, 1500, 4)]
    recorded += [(2, 1000, 1)]
    recorded += [(3, 3000, 1), (3, 1000, 2)]
    points = [
        Point(waveform, 100.0 + waveform, location=float(time), fields={"return_number": number})
        for waveform, time, number in recorded
    ]
    (returns,) = returns_of(Scene(DESCRIPTORS, FOUR, points).write(tmp_path / "scan.las"))
    assert returns.rows.tolist() == [0, 0, 1, 1, 1, 1, 2, 3, 3]
    assert returns.times.tolist() == [500, 1500, 500, 500, 1500, 2500, 1000, 1000, 3000]
    assert returns.return_number.tolist() == [1, 2, 2, 3, 4, 1, 1, 2, 1]


def test_points_placed_in_a_later_waveform_are_sorted_by_waveform(tmp_path: Path) -> None:
    # The waveforms of the shot begin at 30 m and at 29 m and cover 0.45 m each.
    points = [
        Point(0, 100.0, fields={"return_number": 1}),
        Point(None, 100.0, xyz=(10.0, 20.0, 28.85), fields={"return_number": 4}),
        Point(None, 100.0, xyz=(10.0, 20.0, 29.7), fields={"return_number": 2}),
        Point(1, 100.0, xyz=(10.0, 20.0, 29.0), fields={"return_number": 3}),
        Point(2, 101.0, fields={"return_number": 1}),
    ]
    (returns,) = returns_of(Scene(DESCRIPTORS, FOUR[:3], points).write(tmp_path / "scan.las"))
    assert returns.rows.tolist() == [0, 0, 1, 1, 2]
    assert returns.return_number.tolist() == [1, 2, 3, 4, 1]
    assert returns.times == pytest.approx([0.0, 2000.0, 0.0, 1000.0, 0.0], abs=0.01)


def test_withheld_points_are_not_returns(tmp_path: Path) -> None:
    scene = two_returns_then_one()
    scene.points[1].fields["withheld"] = 1
    (returns,) = returns_of(scene.write(tmp_path / "scan.las"))
    assert returns.times.tolist() == [2500.0, 1500.0]


def test_point_without_packet_is_placed_on_the_pulse(tmp_path: Path) -> None:
    # The first sample lies at a height of 30 m; 0.3 m further down the pulse is 2000 ps later.
    points = [
        Point(0, 100.0, fields={"return_number": 1}),
        Point(None, 100.0, xyz=(10.0, 20.0, 29.7), fields={"return_number": 2}),
        Point(None, 101.0, xyz=(10.0, 20.0, 29.7), fields={"return_number": 1}),
    ]
    (returns,) = returns_of(Scene(DESCRIPTORS, FOUR[:1], points).write(tmp_path / "scan.las"))
    assert returns.rows.tolist() == [0, 0]
    assert returns.times == pytest.approx([0.0, 2000.0], abs=0.01)


def test_point_without_packet_lies_in_the_waveform_that_covers_it(tmp_path: Path) -> None:
    # The second waveform of the shot begins at 29 m and covers 0.45 m; 27 m is outside of both.
    points = [
        Point(0, 100.0, fields={"return_number": 1}),
        Point(1, 100.0, xyz=(10.0, 20.0, 29.0), fields={"return_number": 2}),
        Point(None, 100.0, xyz=(10.0, 20.0, 28.85), fields={"return_number": 3}),
        Point(None, 100.0, xyz=(10.0, 20.0, 27.0), fields={"return_number": 4}),
        Point(2, 101.0, fields={"return_number": 1}),
    ]
    (returns,) = returns_of(Scene(DESCRIPTORS, FOUR[:3], points).write(tmp_path / "scan.las"))
    assert returns.rows.tolist() == [0, 1, 1, 2]
    assert returns.return_number.tolist() == [1, 2, 3, 1]
    assert returns.times == pytest.approx([0.0, 0.0, 1000.0, 0.0], abs=0.01)


@pytest.mark.parametrize("block", [1, 2, 3, 10])
def test_same_returns_for_every_block_size(tmp_path: Path, block: int) -> None:
    points = [
        Point(number // 3, 100.0 + number // 3, location=500.0 * (number % 3))
        for number in range(9)
    ]
    path = Scene(DESCRIPTORS, FOUR[:3], points).write(tmp_path / "scan.las")
    times = np.concatenate([found.times for found in returns_of(path, waveforms_per_block=block)])
    assert times.tolist() == [0.0, 500.0, 1000.0] * 3


@pytest.mark.parametrize("block", [1, 2, 3, 10])
def test_without_times_consecutive_points_of_a_packet_are_returns(
    tmp_path: Path, block: int
) -> None:
    # Packets 0, 0, 1, 0, 2: the fourth point is apart from the others of its packet.
    points = [Point(packet, 0.0, location=500.0) for packet in (0, 0, 1, 0, 2)]
    path = Scene(DESCRIPTORS, FOUR[:3], points).write(tmp_path / "scan.las")
    found = returns_of(path, waveforms_per_block=block)
    assert sum(len(one) for one in found) == 4


def test_extra_bytes_are_those_of_the_point(tmp_path: Path) -> None:
    scene = two_returns_then_one()
    plain = scene.write(tmp_path / "plain.las")
    las = laspy.read(plain)
    las.add_extra_dim(laspy.ExtraBytesParams("Deviation", np.uint16))
    las["Deviation"] = [11, 22, 33]
    las.write(tmp_path / "extra.las")
    (tmp_path / "extra.wdp").write_bytes((tmp_path / "plain.wdp").read_bytes())
    (returns,) = returns_of(tmp_path / "extra.las")
    assert returns.extra is not None
    assert returns.extra["Deviation"].tolist() == [22, 11, 33]


@pytest.mark.skipif(not data_folder().exists(), reason="no files of real scanners")
def test_real_file_has_2250_returns_in_1778_waveforms() -> None:
    # Counts of the file's description; every point has a packet and lies inside it.
    with LasWaveformReader(data_folder() / "las" / "topo_2ns.las") as reader:
        (block,) = reader.blocks()
    assert block.returns is not None
    assert len(block.returns) == 2250
    assert len(np.unique(block.returns.rows)) == 1778
    assert (block.returns.times >= 0).all()
    assert (block.returns.times <= 255 * 2000).all()
