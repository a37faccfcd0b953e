"""LAS files with waveforms, read block by block."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.io.las.reader import LasWaveformReader

from ...support.las_scenes import (
    FOUR,
    Point,
    Scene,
    data_folder,
    four_shots,
    read,
    rows,
    shuffled,
)


def test_all_values_of_one_waveform(tmp_path: Path) -> None:
    fields: dict[str, float] = {
        "scan_angle_rank": -7,
        "scan_direction_flag": 1,
        "edge_of_flight_line": 1,
        "user_data": 9,
        "point_source_id": 403,
    }
    point = Point(0, 12.5, (1.5, -2.25, 300.125), 1500.0, (0.25, -0.5, 0.125), fields)
    other = Point(1, 13.5)
    scene = Scene([(1, 8, 4, 2000)], FOUR[:2], [point, other])
    (block,), tally = read(scene.write(tmp_path / "one.las"))
    assert block.samples.tolist() == [[1, 2, 3, 4], [5, 6, 7, 8]]
    assert block.samples.dtype == np.uint16
    assert block.counts.tolist() == [4, 4]
    assert block.shot_times.tolist() == [12.5, 13.5]
    assert block.sbl_times.tolist() == [0, 0]
    assert block.channel_flags.tolist() == [1, 1]
    assert block.sampling_intervals.tolist() == [2e-9, 2e-9]
    assert block.geometry.anchor[0] == pytest.approx([1.5, -2.25, 300.125], abs=1e-9)
    assert block.geometry.location.tolist() == [1500.0, 0.0]
    assert block.geometry.direction[0].tolist() == [0.25, -0.5, 0.125]
    assert block.attributes.gps_time.tolist() == [12.5, 13.5]
    assert block.attributes.scan_angle.tolist() == [-7.0, 0.0]
    assert block.attributes.scan_direction_flag.tolist() == [1, 0]
    assert block.attributes.edge_of_flight_line.tolist() == [1, 0]
    assert block.attributes.user_data.tolist() == [9, 0]
    assert block.attributes.point_source_id.tolist() == [403, 0]
    assert block.waveform_numbers.tolist() == [0, 1]
    assert (tally.points, tally.waveforms, tally.notes) == (2, 2, [])


@pytest.mark.parametrize(
    ("point_format", "version"),
    [(4, "1.3"), (5, "1.3"), (4, "1.4"), (9, "1.4"), (10, "1.4"), (9, "1.5"), (10, "1.5")],
)
def test_every_point_format_with_waveforms_is_read(
    tmp_path: Path, point_format: int, version: str
) -> None:
    scene = four_shots(point_format=point_format, version=version)
    name, stored = ("scan_angle_rank", 12) if point_format < 6 else ("scan_angle", 2000)
    scene.points[0].fields.update({name: stored, "edge_of_flight_line": 1})
    (block,), _ = read(scene.write(tmp_path / "a.las"))
    assert rows([block]) == [list(samples) for _, samples in FOUR]
    assert block.attributes.scan_angle[0] == pytest.approx(12.0)  # 2000 * 0.006 degrees
    assert block.attributes.edge_of_flight_line.tolist() == [1, 0, 0, 0]


@pytest.mark.parametrize(("point_format", "version"), [(4, "1.3"), (9, "1.4")])
def test_packets_in_the_file_and_in_a_companion_are_equal(
    tmp_path: Path, point_format: int, version: str
) -> None:
    options = {"point_format": point_format, "version": version}
    inside = four_shots(inside=True, **options).write(tmp_path / "inside.las")
    companion = four_shots(**options).write(tmp_path / "companion.las")
    assert not inside.with_suffix(".wdp").exists()
    assert (
        rows(read(inside)[0]) == rows(read(companion)[0]) == [list(samples) for _, samples in FOUR]
    )


def test_header_has_extended_records_except_the_packets(tmp_path: Path) -> None:
    scene = four_shots(point_format=9, version="1.4", inside=True, extended_descriptors=True)
    with LasWaveformReader(scene.write(tmp_path / "a.las")) as reader:
        assert [record.record_id for record in reader.header.evlrs] == [100]
        assert reader.descriptors[1].gain == 0.5
        assert reader.descriptors[1].offset == -1.0
        assert rows(list(reader.blocks())) == [list(samples) for _, samples in FOUR]


def test_packet_file_may_have_upper_case_ending_and_dots(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "strip.07.las")
    path.with_suffix(".wdp").rename(tmp_path / "strip.07.WDP")
    assert len(rows(read(path)[0])) == 4


def test_points_that_share_a_packet_count_as_one_waveform(tmp_path: Path) -> None:
    points = [
        Point(0, 1.0, (0.0, 0.0, 5.0)),
        Point(None, 1.0),
        Point(1, 2.0),
        Point(0, 1.0, (0.0, 0.0, 4.0)),
        Point(1, 2.0),
        Point(1, 2.0),
    ]
    path = Scene([(1, 8, 4, 1000)], FOUR[:2], points).write(tmp_path / "a.las")
    for size in (1, 2, 100):
        blocks, tally = read(path, waveforms_per_block=size)
        assert rows(blocks) == [[1, 2, 3, 4], [5, 6, 7, 8]]
        assert blocks[0].geometry.anchor[0].tolist() == [0.0, 0.0, 5.0]
        assert tally.points == 6
        assert tally.points_without_waveform == 1
        assert tally.points_sharing_waveform == 3
        assert tally.waveforms == 2
        assert not tally.rejected


def test_packet_shared_by_distant_points_is_read_once(tmp_path: Path) -> None:
    points = [Point(0, 1.0), Point(1, 2.0), Point(2, 3.0), Point(0, 4.0)]
    path = Scene([(1, 8, 4, 1000)], FOUR[:3], points).write(tmp_path / "a.las")
    blocks, tally = read(path, waveforms_per_block=1)
    assert rows(blocks) == [list(samples) for _, samples in FOUR[:3]]
    assert tally.points_sharing_waveform == 1


def test_shots_are_never_split_between_blocks(tmp_path: Path) -> None:
    # Shots of 1, 3, 2, 5 and 1 waveforms.
    times = [1.0] + [2.0] * 3 + [3.0] * 2 + [4.0] * 5 + [5.0]
    packets = [(1, [number, number]) for number in range(12)]
    points = [Point(number, time) for number, time in enumerate(times)]
    path = Scene([(1, 8, 2, 1000)], packets, points).write(tmp_path / "a.las")
    for size, expected in [
        (1, [1, 3, 2, 5, 1]),
        (2, [1, 3, 2, 5, 1]),
        (4, [4, 2, 5, 1]),
        (6, [6, 6]),
        (7, [6, 6]),
        (12, [12]),
        (50, [12]),
    ]:
        blocks, _ = read(path, waveforms_per_block=size)
        assert [len(block) for block in blocks] == expected
        assert rows(blocks) == [[number, number] for number in range(12)]
        numbers = np.concatenate([block.waveform_numbers for block in blocks])
        assert numbers.tolist() == list(range(12))


def test_block_is_filled_across_chunks_of_the_file(tmp_path: Path) -> None:
    packets = [(1, [number, 0]) for number in range(7)]
    # Two points share the first packet: chunks of four points have fewer than four waveforms.
    held = [(0, 1.0), (0, 1.0), (1, 2.0), (2, 3.0), (3, 3.0), (4, 4.0), (5, 5.0), (6, 6.0)]
    points = [Point(packet, time) for packet, time in held]
    path = Scene([(1, 8, 2, 1000)], packets, points).write(tmp_path / "a.las")
    blocks, _ = read(path, waveforms_per_block=4)
    assert [[row[0] for row in rows([block])] for block in blocks] == [[0, 1, 2, 3], [4, 5, 6]]


def test_shuffled_points_give_the_same_waveforms_in_whole_shots(tmp_path: Path) -> None:
    times = [1.0, 1.0, 2.0, 3.0, 3.0, 3.0, 4.0, 4.0]
    packets = [(1, [number, 100 - number]) for number in range(8)]
    points = [Point(number, time) for number, time in enumerate(times)]
    path = Scene([(1, 8, 2, 1000)], packets, points).write(tmp_path / "a.las")
    mixed = shuffled(path, tmp_path / "mixed.las", [5, 0, 7, 2, 3, 1, 6, 4])
    for size in (1, 3, 100):
        blocks, tally = read(mixed, waveforms_per_block=size)
        assert sorted(rows(blocks)) == [[number, 100 - number] for number in range(8)]
        seen = [time for block in blocks for time in np.unique(block.shot_times)]
        assert seen == [1.0, 2.0, 3.0, 4.0]
        assert len(tally.notes) == 1
        assert "not in order of GPS time" in tally.notes[0]
    # Within a shot the order of the file holds: 5, then 3, then 4.
    third = [row[0] for row in rows(blocks)][3:6]
    assert third == [5, 3, 4]


def test_without_times_each_waveform_is_a_shot(tmp_path: Path) -> None:
    points = [Point(0, 0.0), Point(0, 0.0), Point(1, 0.0), Point(2, 0.0), Point(3, 0.0)]
    path = Scene([(1, 8, 4, 1000)], FOUR, points).write(tmp_path / "a.las")
    blocks, tally = read(path, waveforms_per_block=3)
    assert [len(block) for block in blocks] == [3, 1]
    times = np.concatenate([block.shot_times for block in blocks])
    assert times.tolist() == [-4503599627370496.0 + number for number in range(4)]
    assert np.all(np.diff(times) == 1.0)
    assert all((block.attributes.gps_time == 0).all() for block in blocks)
    assert tally.points_sharing_waveform == 1
    assert "same GPS time" in tally.notes[0]


def test_points_of_equal_time_sharing_a_packet_keep_the_time(tmp_path: Path) -> None:
    path = Scene([(1, 8, 4, 1000)], FOUR[:1], [Point(0, 7.5)] * 3).write(tmp_path / "a.las")
    (block,), tally = read(path)
    assert block.shot_times.tolist() == [7.5]
    assert tally.notes == []


def test_samples_of_16_bits_are_read(tmp_path: Path) -> None:
    packets = [(1, [0, 258, 65535]), (1, [1, 4095, 256])]
    points = [Point(0, 1.0), Point(1, 2.0)]
    path = Scene([(1, 16, 3, 1000)], packets, points).write(tmp_path / "a.las")
    blocks, _ = read(path)
    assert path.with_suffix(".wdp").read_bytes()[60:66] == b"\x00\x00\x02\x01\xff\xff"
    assert rows(blocks) == [[0, 258, 65535], [1, 4095, 256]]


def test_descriptors_may_differ_in_one_block(tmp_path: Path) -> None:
    descriptors = [(1, 8, 2, 1000), (2, 16, 3, 2000), (9, 8, 0, 0), (255, 8, 5, 500)]
    packets = [(1, [1, 2]), (2, [300, 301, 302]), (255, [5, 6, 7, 8, 9]), (1, [3, 4])]
    points = [Point(0, 1.0), Point(1, 1.0), Point(2, 2.0), Point(3, 3.0)]
    path = Scene(descriptors, packets, points).write(tmp_path / "a.las")
    (block,), _ = read(path, channel_flags={2: 0})
    assert block.samples.tolist() == [
        [1, 2, 0, 0, 0],
        [300, 301, 302, 0, 0],
        [5, 6, 7, 8, 9],
        [3, 4, 0, 0, 0],
    ]
    assert block.counts.tolist() == [2, 3, 5, 2]
    assert block.sampling_intervals.tolist() == [1e-9, 2e-9, 5e-10, 1e-9]
    assert block.channel_flags.tolist() == [1, 0, 1, 1]
    assert read(path, waveforms_per_block=1)[0][0].samples.shape == (2, 3)
    assert read(path, channel_flags=0)[0][0].channel_flags.tolist() == [0, 0, 0, 0]


def test_points_without_packets_give_no_block_and_no_error(tmp_path: Path) -> None:
    path = Scene([(1, 8, 4, 1000)], [], [Point(None), Point(None)]).write(tmp_path / "a.las")
    blocks, tally = read(path)
    assert blocks == []
    assert tally.points_without_waveform == 2


def test_second_read_and_progress_start_anew(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    with LasWaveformReader(path, waveforms_per_block=2) as reader:
        assert reader.path == path
        assert (reader.point_count, reader.points_done) == (4, 0)
        first = rows(list(reader.blocks()))
        assert reader.points_done == 4
        assert rows(list(reader.blocks())) == first
        assert reader.tally.waveforms == 4
    with pytest.raises(ValueError, match="closed"):
        list(reader.blocks())


def test_legacy_counts_of_zero_are_ignored(tmp_path: Path) -> None:
    path = four_shots(version="1.4").write(tmp_path / "a.las")
    assert path.read_bytes()[107:111] == b"\0\0\0\0"
    assert len(rows(read(path)[0])) == 4


def test_real_strip_of_a_topographic_scanner(tmp_path: Path) -> None:
    path = data_folder() / "las" / "topo_2ns.las"
    if not path.exists():
        pytest.skip(f"no {path.name} in the folder of real waveforms")
    blocks, tally = read(path, waveforms_per_block=500)
    assert (tally.points, tally.waveforms, tally.points_sharing_waveform) == (2250, 1778, 472)
    assert (tally.points_without_waveform, dict(tally.rejected), tally.notes) == (0, {}, [])
    arrays = np.load(data_folder() / "arrays" / "topo_2ns.npz")
    samples = np.concatenate([block.samples for block in blocks])
    np.testing.assert_array_equal(samples, arrays["samples"])
    times = np.concatenate([block.shot_times for block in blocks])
    np.testing.assert_array_equal(times, arrays["shot_time"])

    anchor = np.concatenate([block.geometry.anchor for block in blocks])
    location = np.concatenate([block.geometry.location for block in blocks])
    direction = np.concatenate([block.geometry.direction for block in blocks])
    shot, ref_time = arrays["ref_shot"], arrays["ref_time_s"] * 1e12
    place = anchor[shot] + (location[shot] - ref_time)[:, None] * direction[shot]
    several = np.bincount(shot)[shot] > 1
    assert np.count_nonzero(several) > 800  # 472 returns share a packet with another
    assert np.abs(place - arrays["ref_xyz"]).max() < 0.002

    order = np.random.default_rng(7).permutation(2250)
    mixed, mixed_tally = read(shuffled(path, tmp_path / "mixed.las", order.tolist()))
    np.testing.assert_array_equal(np.concatenate([block.samples for block in mixed]), samples)
    assert mixed_tally.points_sharing_waveform == 472
