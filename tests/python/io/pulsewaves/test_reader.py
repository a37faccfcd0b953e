"""PulseWaves files, read block by block."""

from __future__ import annotations

import struct
from collections import defaultdict
from dataclasses import replace
from pathlib import Path

import laspy
import numpy as np
import pytest

from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.pulsewaves import selection
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...extraction.test_extraction import places_of
from ...support.command_line import run
from ...support.flight_lines import flight_line
from ...support.las_scenes import rows
from ...support.pulsewaves_scenes import (
    MIN_TIME,
    Descriptor,
    Pulse,
    Sampling,
    Scene,
    read,
    three_pulses,
    two_channels,
)


def test_all_values_of_one_waveform(tmp_path: Path) -> None:
    pulse = Pulse(
        [[(500, [1, 2, 3, 4])]], time=2_500_000, anchor=(100, 200, 300), target=(1100, -300, -29700)
    )
    sampling = Sampling(duration_bits=16, unit=2.0)
    scene = Scene(
        [Descriptor(1, [sampling], unit=2.0)],
        [pulse],
        time_offset=100.0,
        offsets=(1000.0, 2000.0, 50.0),
        patches={20: ("<I", 403)},
    )
    (block,), tally = read(scene.write(tmp_path / "one.pls"))
    assert block.samples.tolist() == [[1, 2, 3, 4]]
    assert block.samples.dtype == np.uint16
    assert block.counts.tolist() == [4]
    assert block.counts.dtype == np.uint16
    assert block.shot_times.tolist() == [102.5]
    assert block.sbl_times[0] == pytest.approx(1e-6, rel=1e-12)  # 500 units of 2 ns
    assert block.channel_flags.tolist() == [1]
    assert block.sampling_intervals.tolist() == [2e-9]
    # The anchor is at (1001, 2002, 53), a unit is (0.01, -0.005, -0.3) m long.
    assert block.geometry.anchor[0] == pytest.approx([1006.0, 1999.5, -97.0], abs=1e-9)
    assert block.geometry.location.tolist() == [0.0]
    assert block.geometry.direction[0] == pytest.approx([-5e-6, 2.5e-6, 1.5e-4], rel=1e-12)
    assert block.attributes.gps_time.tolist() == [102.5]
    assert block.attributes.point_source_id.tolist() == [403]
    assert block.attributes.scan_angle.tolist() == [0.0]
    assert block.waveform_numbers.tolist() == [0]
    assert (tally.points, tally.waveforms, tally.points_without_waveform) == (1, 1, 0)
    assert (tally.notes, dict(tally.rejected)) == ([], {})


def test_coordinates_of_a_sample(tmp_path: Path) -> None:
    pulse = Pulse([[(1000, [1, 2, 3, 4])]], anchor=(0, 0, 50000), target=(300, 0, 35000))
    scene = Scene([Descriptor(1, [Sampling(duration_bits=16)])], [pulse])
    (block,), _ = read(scene.write(tmp_path / "place.pls"))
    # 1000 units lead to the target (3, 0, 350) m; three samples more by (0.003, 0, -0.15) m each.
    (place,) = places_of(block, [0], [3.0])
    assert place == pytest.approx([3.009, 0.0, 349.55], abs=1e-9)


def test_segments_and_channels_of_a_pulse(tmp_path: Path) -> None:
    path = two_channels().write(tmp_path / "two.pls")
    (block,), tally = read(path, channel_flags={0: 0, 3: 9})
    assert rows([block]) == [[1, 2, 3], [4], [5, 6], [7, 8], [9, 10, 11, 12]]
    assert block.counts.tolist() == [3, 1, 2, 2, 4]
    assert block.samples[1].tolist() == [4, 0, 0, 0]
    assert block.shot_times == pytest.approx([1e-5, 1e-5, 1e-5, 3e-5, 3e-5], rel=1e-12)
    assert len(np.unique(block.shot_times)) == 2
    assert block.sbl_times == pytest.approx([1e-7, 2e-7, 1.1e-7, -3e-9, 1.2e-7], rel=1e-12)
    assert block.channel_flags.tolist() == [1, 1, 0, 1, 0]
    assert block.waveform_numbers.tolist() == [0, 1, 2, 3, 4]
    assert (tally.points, tally.points_without_waveform, tally.waveforms) == (3, 1, 5)
    assert tally.notes == []


def test_note_on_channels_with_the_same_flag(tmp_path: Path) -> None:
    path = two_channels().write(tmp_path / "two.pls")
    assert read(path)[1].notes == ["Channels 0 and 1 of the file all have channel flag 1."]


def test_channel_flags(tmp_path: Path) -> None:
    path = two_channels().write(tmp_path / "two.pls")

    def flags(channel_flags: object) -> list[int]:
        ((block,), _) = read(path, channel_flags=channel_flags)
        return block.channel_flags.tolist()

    assert flags(0) == [0, 0, 0, 0, 0]
    assert flags({1: 5}) == [5, 5, 1, 5, 1]
    assert flags(defaultdict(int, {1: 1})) == [1, 1, 0, 1, 0]
    with pytest.raises(ValueError, match="flag 256 of channel 1; both must be 0 to 255"):
        flags({1: 256})


def with_outgoing(path: Path, **options: int) -> list[WaveformBlock]:
    with PulseWavesReader(path, **options) as reader:
        assert reader.has_outgoing
        reader.with_outgoing = True
        return list(reader.blocks())


def test_outgoing_pulses(tmp_path: Path) -> None:
    path = two_channels().write(tmp_path / "out.pls")
    # The second pulse has no returning samples; the first has three waveforms, the third two.
    first, second = with_outgoing(path, waveforms_per_block=2)
    assert first.outgoing is not None
    assert second.outgoing is not None
    assert first.outgoing.samples.tolist() == [[50, 51]] * 3
    assert first.outgoing.counts.tolist() == [2, 2, 2]
    assert first.outgoing.sampling_intervals.tolist() == [1e-9] * 3
    assert first.outgoing.durations.tolist() == [0.0] * 3
    assert second.outgoing.samples.tolist() == [[55], [55]]
    assert (len(first.outgoing), len(second.outgoing)) == (3, 2)


def test_outgoing_pulses_are_read_on_request(tmp_path: Path) -> None:
    (block,), _ = read(two_channels().write(tmp_path / "out.pls"))
    assert block.outgoing is None
    with PulseWavesReader(three_pulses().write(tmp_path / "none.pls")) as reader:
        assert not reader.has_outgoing


def test_first_outgoing_segment_and_its_duration(tmp_path: Path) -> None:
    sent = Sampling(kind=1, duration_bits=16, scale=0.5, offset=-7.0, segments=2, samples=2)
    returned = Sampling(samples=2)
    pulses = [Pulse([[(3, [9, 8]), (4, [7, 6])], [(0, [1, 2])]])]
    scene = Scene([Descriptor(1, [sent, returned])], pulses)
    (block,) = with_outgoing(scene.write(tmp_path / "twice.pls"))
    assert block.outgoing is not None
    assert block.outgoing.samples.tolist() == [[9, 8]]
    assert block.outgoing.durations == pytest.approx([-5.5e-9], rel=1e-12)


def test_pulses_without_an_outgoing_sampling(tmp_path: Path) -> None:
    both = Descriptor(1, [Sampling(kind=1, samples=2), Sampling(samples=2)])
    only_returning = Descriptor(2, [Sampling(samples=2)])
    pulses = [Pulse([[(0, [3, 4])]], descriptor=2), Pulse([[(0, [9, 8])], [(0, [1, 2])]])]
    (block,) = with_outgoing(Scene([both, only_returning], pulses).write(tmp_path / "some.pls"))
    assert block.outgoing is not None
    assert block.outgoing.counts.tolist() == [0, 2]
    assert block.outgoing.samples.tolist() == [[0, 0], [9, 8]]


def test_outgoing_pulse_with_a_different_sampling_unit(tmp_path: Path) -> None:
    descriptor = Descriptor(1, [Sampling(kind=1, unit=0.1), Sampling()])
    scene = Scene([descriptor], [Pulse([[(0, [1, 2, 3, 4])], [(0, [5, 6, 7, 8])]])])
    (block,) = with_outgoing(scene.write(tmp_path / "fine.pls"))
    assert block.outgoing is not None
    assert block.outgoing.sampling_intervals.tolist() == [1e-10]
    assert block.sampling_intervals.tolist() == [1e-9]


@pytest.mark.parametrize(
    ("limit", "sizes"), [(1, [3, 2]), (2, [3, 2]), (3, [3, 2]), (4, [3, 2]), (5, [5])]
)
def test_pulses_are_not_split_between_blocks(tmp_path: Path, limit: int, sizes: list[int]) -> None:
    blocks, tally = read(two_channels().write(tmp_path / "cut.pls"), waveforms_per_block=limit)
    assert [len(block) for block in blocks] == sizes
    assert rows(blocks) == [[1, 2, 3], [4], [5, 6], [7, 8], [9, 10, 11, 12]]
    assert np.concatenate([block.waveform_numbers for block in blocks]).tolist() == [0, 1, 2, 3, 4]
    assert (tally.points, tally.waveforms) == (3, 5)


def test_blocks_of_long_waveforms_are_smaller(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(selection, "BLOCK_SAMPLES", 8)
    blocks, _ = read(three_pulses().write(tmp_path / "a.pls"))
    assert [block.samples.shape for block in blocks] == [(2, 4), (1, 4)]


def test_second_read_and_progress_start_anew(tmp_path: Path) -> None:
    with PulseWavesReader(three_pulses().write(tmp_path / "a.pls"), waveforms_per_block=1) as one:
        assert (one.point_count, one.points_done) == (3, 0)
        blocks = one.blocks()
        next(blocks)
        assert 1 <= one.points_done <= 2
        rest = list(blocks)
        assert (len(rest), one.points_done) == (2, 3)
        assert rows(list(one.blocks())) == [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12]]
        assert (one.tally.points, one.tally.waveforms) == (3, 3)


def test_closed_reader_is_refused(tmp_path: Path) -> None:
    with PulseWavesReader(three_pulses().write(tmp_path / "a.pls")) as reader:
        pass
    reader.close()
    with pytest.raises(ValueError, match=r"a\.pls is closed"):
        list(reader.blocks())


@pytest.mark.parametrize("times", [(0, 0, 0), (5, 5, 6), (6, 5, 6)])
def test_pulses_of_equal_time_are_separate_shots(
    tmp_path: Path, times: tuple[int, int, int]
) -> None:
    scene = three_pulses()
    for pulse, time in zip(scene.pulses, times, strict=True):
        pulse.time = time
    blocks, tally = read(scene.write(tmp_path / "same.pls"), waveforms_per_block=2)
    keys = np.concatenate([block.shot_times for block in blocks])
    assert len(np.unique(keys)) == 3
    stored = np.concatenate([block.attributes.gps_time for block in blocks])
    assert stored == pytest.approx(np.array(times) * 1e-6, rel=1e-12)
    assert tally.notes == ["Several pulses have the same time; each is treated as a separate shot."]


def test_segments_of_a_pulse_are_consecutive_without_times(tmp_path: Path) -> None:
    scene = two_channels()
    for pulse in scene.pulses:
        pulse.time = 0
    (block,), _ = read(scene.write(tmp_path / "same.pls"))
    assert np.unique(block.shot_times, return_inverse=True)[1].tolist() == [0, 0, 0, 1, 1]


def test_decreasing_times_are_valid(tmp_path: Path) -> None:
    scene = three_pulses()
    for pulse, time in zip(scene.pulses, (3_000_000, 1_000_000, 2_000_000), strict=True):
        pulse.time = time
    (block,), tally = read(scene.write(tmp_path / "falling.pls"))
    assert block.shot_times.tolist() == [3.0, 1.0, 2.0]
    assert rows([block])[0] == [1, 2, 3, 4]  # the order of the file
    assert tally.notes == []


def test_pulses_without_returning_samples_have_no_waveform(tmp_path: Path) -> None:
    scene = Scene([Descriptor(1, [Sampling(kind=1)])], [Pulse([[(0, [1, 2, 3, 4])]])])
    blocks, tally = read(scene.write(tmp_path / "out.pls"))
    assert (blocks, tally.points, tally.points_without_waveform) == ([], 1, 1)


def test_file_without_pulses(tmp_path: Path) -> None:
    blocks, tally = read(Scene([], []).write(tmp_path / "none.pls"))
    assert (blocks, tally.points, tally.notes) == ([], 0, [])


def test_sample_file_in_upper_case(tmp_path: Path) -> None:
    path = three_pulses().write(tmp_path / "a.pls")
    path.with_suffix(".wvs").rename(tmp_path / "a.WVS")
    assert len(read(path)[0][0]) == 3


def test_header_for_echoes(tmp_path: Path) -> None:
    guid = bytes(range(16))
    scene = three_pulses(
        scales=(0.001, 0.002, 0.004),
        offsets=(5.0, 6.0, 7.0),
        records=[(b"PulseWaves_Proj", 34735, struct.pack("<4H", 1, 1, 0, 0))],
        patches={20: ("<I", 77), 24: ("16s", guid)},  # type: ignore[dict-item]
    )
    with PulseWavesReader(scene.write(tmp_path / "a.pls")) as reader:
        header = reader.header
        assert reader.path == tmp_path / "a.pls"
    assert (str(header.version), header.point_format.id) == ("1.4", 9)
    assert header.scales.tolist() == [0.001, 0.002, 0.004]
    assert header.offsets.tolist() == [5.0, 6.0, 7.0]
    assert (header.file_source_id, header.uuid.bytes_le) == (77, guid)
    (record,) = header.vlrs
    assert (record.user_id, record.record_id) == ("LASF_Projection", 34735)
    assert not header.global_encoding.wkt


@pytest.mark.parametrize(("offset", "standard"), [(0.0, 0), (604_801.0, 1)])
def test_type_of_gps_time(tmp_path: Path, offset: float, standard: int) -> None:
    path = three_pulses(time_offset=offset).write(tmp_path / "a.pls")
    with PulseWavesReader(path) as reader:
        assert int(reader.header.global_encoding.gps_time_type) == standard
        assert reader.header.global_encoding.wkt


# Standard GPS time: 1000061757.959336 s less 1e9 is 61757.959336 s.
@pytest.mark.parametrize(
    ("scale", "offset", "count", "span", "standard", "expected"),
    [
        (1e-6, 1e9, 61_757_959_336, (61_757_959_336, 61_759_700_210), 1, 61_757.959336),
        (1e-6, 1e9, 61_757_959_336, (0, 0), 1, 61_757.959336),
        (1e-6, 0.0, 1_000_061_757_500_000, (0, 0), 1, 61_757.5),
        (1e-6, 1e9, 0, (0, 0), 1, 0.0),
        (1e-6, 0.0, 61_757_959_336, (61_757_959_336, 61_759_700_210), 0, 61_757.959336),
        (1.0, 999_999_000.0, 990, (990, 1010), 1, 999_999_990.0),
        # 1.25e9 s is in August 2019; with the offset it would be in 2051.
        (1e-6, 1e9, 1_250_000_000_250_000, (0, 0), 1, 250_000_000.25),
        (
            1e-6,
            1e9,
            1_250_000_000_250_000,
            (1_250_000_000_250_000, 1_250_000_000_250_002),
            1,
            250_000_000.25,
        ),
        # Both are before 2043: the offset counts.
        (1e-6, 1e8, 1_250_000_000_250_000, (0, 0), 1, 350_000_000.25),
        (1.0, 1.9e9, 50, (0, 0), 1, 900_000_050.0),
        (1.0, 2.1e9, 50, (0, 0), 1, 1_100_000_050.0),
    ],
)
def test_standard_times_are_adjusted(
    tmp_path: Path,
    scale: float,
    offset: float,
    count: int,
    span: tuple[int, int],
    standard: int,
    expected: float,
) -> None:
    scene = three_pulses(
        time_scale=scale,
        time_offset=offset,
        patches={MIN_TIME: ("<q", span[0]), MIN_TIME + 8: ("<q", span[1])},
    )
    for number, pulse in enumerate(scene.pulses):
        pulse.time = count + number
    with PulseWavesReader(scene.write(tmp_path / "a.pls")) as reader:
        assert int(reader.header.global_encoding.gps_time_type) == standard
        (block,) = reader.blocks()
    times = block.attributes.gps_time
    assert times == pytest.approx(expected + np.arange(3) * scale, rel=0.0, abs=2e-7)
    assert block.shot_times.tolist() == times.tolist()


def test_an_offset_that_was_not_added_is_noted(tmp_path: Path) -> None:
    scene = three_pulses(time_offset=1e9)
    for number, pulse in enumerate(scene.pulses):
        pulse.time = 1_250_000_000_000_000 + number
    _, tally = read(scene.write(tmp_path / "a.pls"))
    assert tally.notes == [
        "The stored times are standard GPS times; the offset 1e+09 s of the header was not added."
    ]


def test_any_text_is_allowed_as_instrument(tmp_path: Path) -> None:
    """NEON's files can have the text "Auto..." in place of a name."""
    for system, expected in (
        (b"Auto...", "Auto..."),
        (b"", ""),
        (b"Scanner " + 56 * b"x", "Scanner " + 56 * "x"),
        ("Größe".encode("latin-1"), "Gr\ufffd\ufffde"),
    ):
        patches = {40: ("64s", system)}
        scene = replace(flight_line(3), patches=patches)  # type: ignore[arg-type]
        path = scene.write(tmp_path / "a.pls")
        output = tmp_path / "echoes.las"
        result = run("extract", path, "-o", output, "--threshold", "20", "--overwrite")
        assert result.exit_code == 0, result.output
        assert len(laspy.read(output)) == 1 + 2 + 3  # an echo of each segment
        container = tmp_path / "a.h5"
        assert run("convert", path, container, "--overwrite").exit_code == 0
        with open_waveforms(container) as reader:
            assert reader.header is not None
            assert reader.header.system_identifier == expected
