"""Parts of a flight line that are read as one file."""

from __future__ import annotations

import re
import shutil
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path

import numpy as np
import pytest

import fullwaveform as fw
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import Columns
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.pulsewaves.compressed_pulses import CompressedPulses

from ...support.compressed_scenes import Compression, write_compressed
from ...support.flight_lines import Writer, compressed, flight_line, in_parts, plain
from ...support.las_scenes import four_shots
from ...support.pulsewaves_scenes import (
    Descriptor,
    Pulse,
    Sampling,
    Scene,
    three_pulses,
)


def joined(blocks: Sequence[WaveformBlock]) -> list[dict[str, object]]:
    """A row for each waveform, whatever the blocks are."""
    rows = []
    for block in blocks:
        assert block.outgoing is not None
        for row, count in enumerate(block.counts):
            sent = block.outgoing.counts[row]
            rows.append(
                {
                    "samples": block.samples[row, :count].tolist(),
                    "number": int(block.waveform_numbers[row]),
                    "shot": float(block.shot_times[row]),
                    "time": float(block.attributes.gps_time[row]),
                    "start": float(block.sbl_times[row]),
                    "anchor": block.geometry.anchor[row].tolist(),
                    "direction": block.geometry.direction[row].tolist(),
                    "outgoing": block.outgoing.samples[row, :sent].tolist(),
                }
            )
    return rows


def all_rows(reader: WaveformReader) -> list[dict[str, object]]:
    reader.with_outgoing = True
    return joined(list(reader.blocks()))


@pytest.mark.parametrize("writers", [[plain], [compressed], [plain, compressed]])
@pytest.mark.parametrize("sizes", [[5, 6], [1, 3, 7], [4, 0, 7], [0, 11]])
@pytest.mark.parametrize("block", [1, 4, 100])
def test_parts_are_read_like_the_undivided_line(
    writers: list[Writer], sizes: list[int], block: int, tmp_path: Path
) -> None:
    parts = in_parts(flight_line(), sizes, tmp_path / "parts", *writers)
    whole = plain(flight_line(), tmp_path / "whole")
    with (
        fw.open(parts, waveforms_per_block=block) as found,
        fw.open(whole, waveforms_per_block=block) as expected,
    ):
        assert all_rows(found) == all_rows(expected)
        assert found.tally == expected.tally
        assert found.point_count == 11
        assert found.paths == tuple(parts)
        assert [len(each) for each in found.spread_blocks()] == [21]


def test_times_and_numbers_run_on(tmp_path: Path) -> None:
    scene = three_pulses(time_offset=10.0)
    parts = in_parts(scene, [2, 1], tmp_path, plain)
    with fw.open(parts) as reader:
        (block,) = reader.blocks()
    np.testing.assert_array_equal(block.samples[:, 0], [1, 5, 9])
    np.testing.assert_array_equal(block.waveform_numbers, [0, 1, 2])
    # 1, 2 and 3 million microseconds after the offset.
    np.testing.assert_array_equal(block.attributes.gps_time, [11.0, 12.0, 13.0])
    np.testing.assert_array_equal(block.shot_times, [11.0, 12.0, 13.0])


def test_order_is_that_of_the_list(tmp_path: Path) -> None:
    parts = in_parts(three_pulses(), [2, 1], tmp_path, plain)
    with fw.open(parts[::-1]) as reader:
        (block,) = reader.blocks()
    np.testing.assert_array_equal(block.samples[:, 0], [9, 1, 5])


def test_pulses_of_two_parts_at_one_time_are_separate_shots(tmp_path: Path) -> None:
    first = three_pulses().write(tmp_path / "a_1.pls")
    elsewhere = [replace(pulse, anchor=(50, 0, 0)) for pulse in three_pulses().pulses]
    second = replace(three_pulses(), pulses=elsewhere).write(tmp_path / "a_2.pls")
    with fw.open([first, second]) as reader:
        (block,) = reader.blocks()
        assert any("same time" in note for note in reader.tally.notes)
    assert len(np.unique(block.shot_times)) == 6
    np.testing.assert_array_equal(block.attributes.gps_time, [1.0, 2.0, 3.0, 1.0, 2.0, 3.0])


def test_standard_gps_times_are_adjusted_as_in_one_file(tmp_path: Path) -> None:
    scene = three_pulses(time_offset=1_200_000_000.0)
    with fw.open(in_parts(scene, [1, 2], tmp_path, plain)) as reader:
        (block,) = reader.blocks()
    np.testing.assert_array_equal(
        block.attributes.gps_time, [200_000_001.0, 200_000_002.0, 200_000_003.0]
    )


def test_header_covers_all_parts(tmp_path: Path) -> None:
    """Times of two weeks are not seconds of a week, although those of the first part could be."""
    first, second = (
        Scene(
            [Descriptor(1, [Sampling()])],
            [Pulse([[(0, [1, 2, 3, 4])]], time=time)],
            time_scale=1.0,
            patches={304: ("<d", lowest), 312: ("<d", highest)},
        ).write(tmp_path / f"a_{number}.pls")
        for number, time, lowest, highest in ((1, 604_000, 1.0, 5.0), (2, 605_000, -2.0, 4.0))
    )
    for paths in ([first, second], [second, first]):
        with fw.open(paths) as reader:
            assert reader.header is not None
            assert int(reader.header.global_encoding.gps_time_type) == 1
            assert (reader.header.mins[0], reader.header.maxs[0]) == (-2.0, 5.0)
    with fw.open(first) as reader:
        assert reader.header is not None
        assert int(reader.header.global_encoding.gps_time_type) == 0


def test_a_range_of_blocks_starts_in_any_part(tmp_path: Path) -> None:
    parts = in_parts(flight_line(), [5, 6], tmp_path, compressed)
    with fw.open(parts, waveforms_per_block=4) as reader:
        reader.with_outgoing = True
        everything = list(reader.blocks())
        starts = reader.block_starts()
        ranges = [list(reader.blocks(i, i + 1, start)) for i, start in enumerate(starts)]
    assert len(starts) == len(everything) > 4
    assert joined([block for found in ranges for block in found]) == joined(everything)


def test_third_segment_is_found_by_the_samples_of_its_own_file(tmp_path: Path) -> None:
    """The next pulse of the line has its samples in another file, at a byte of this pulse's own."""
    three = Descriptor(1, [Sampling(segments=3, samples=2)])
    wide = Pulse([[(0, [1, 2]), (0, [3, 4]), (0, [5, 6])]], time=1)
    narrow = Pulse([[(0, [7, 8]), (0, [9, 10])]], time=3)
    first = Scene([three], [wide]).write(tmp_path / "a_1.pls")
    path = tmp_path / "a_2.pls"
    samples = Scene([three], [narrow, wide]).write(path).with_suffix(".wvs").read_bytes()
    # The samples of the first file are the bytes 60 to 66.
    listed = [replace(wide, time=2, offset=64), replace(narrow, offset=60)]
    Scene([three], listed).write(path).with_suffix(".wvs").write_bytes(samples)
    with fw.open([first, path]) as reader:
        (block,) = reader.blocks()
        assert reader.tally.points_short == 1
    assert block.samples[:, 0].tolist() == [1, 3, 5, 1, 3, 5, 7, 9]


def test_damage_is_counted_for_each_part(tmp_path: Path) -> None:
    parts = in_parts(
        flight_line(9),
        [4, 5],
        tmp_path,
        lambda scene, path: write_compressed(
            scene, path.with_suffix(".plz"), Compression(sizes=2, table="")
        ),
    )
    for path in parts:
        path.write_bytes(path.read_bytes()[:-40])  # into the last chunk
    places: list[str] = []
    with fw.open(parts) as reader:
        reader.on_unreadable = places.append
        list(reader.blocks())
        tally = reader.tally
    assert tally.rejected["pulse missing in the truncated file"] == 9 - tally.points
    assert [place.split(":")[0] for place in places if "missing" in place] == [
        f"pulses from number {held} on" for held in _held(parts)
    ]
    assert tally.notes[:2] == [
        f"{path.name}: The chunk table is missing; the pulses were read from the start."
        for path in parts
    ]


def _held(parts: Sequence[Path]) -> list[int]:
    """Pulses up to the end of each part."""
    counts = []
    for path in parts:
        with fw.open(path) as reader:
            counts.append(reader.point_count)
    return np.cumsum(counts).tolist()


def test_only_the_part_that_is_read_keeps_decoded_pulses(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    opened: list[CompressedPulses] = []
    construct = CompressedPulses.__init__

    def kept(self: CompressedPulses, *arguments: object) -> None:
        construct(self, *arguments)  # type: ignore[arg-type]
        opened.append(self)

    monkeypatch.setattr(CompressedPulses, "__init__", kept)
    parts = in_parts(flight_line(), [3, 4, 4], tmp_path, compressed)
    with fw.open(parts, waveforms_per_block=1) as reader:
        for _ in reader.blocks():
            assert sum(bool(source._kept) for source in opened) <= 2
    assert len(opened) == 3


def changed(**change: object) -> Scene:
    return three_pulses(**change)


PROJECTION = (b"PulseWaves_Proj", 34735, b"\1\0\1\0\0\0\0\0")

DIFFERENCES = {
    "scale of the times": changed(time_scale=1e-9),
    "offset of the times": changed(time_offset=5.0),
    "scale of the coordinates": changed(scales=(0.01, 0.01, 0.001)),
    "offset of the coordinates": changed(offsets=(0.0, 1000.0, 0.0)),
    "size of a pulse": changed(pulse_extra=b"\0\0"),
    "pulse descriptors": Scene([Descriptor(1, [Sampling(channel=2)])], three_pulses().pulses),
    "coordinate reference system": changed(records=[PROJECTION]),
    "file source identifier": changed(patches={20: ("<I", 3)}),
}


@pytest.mark.parametrize("what", DIFFERENCES)
def test_parts_that_differ_are_refused(what: str, tmp_path: Path) -> None:
    first = three_pulses().write(tmp_path / "a_1.pls")
    second = DIFFERENCES[what].write(tmp_path / "a_2.pls")
    with pytest.raises(WaveformFileError, match=f"a_2.pls: {what}.*must be equal to .*a_1.pls"):
        fw.open([first, second])


def test_parts_with_different_origins_of_time_are_refused(tmp_path: Path) -> None:
    """Seconds of 1980 and of 2018 with the same scale and offset: not one flight."""
    first = three_pulses().write(tmp_path / "a_1.pls")
    later = [replace(one, time=1_200_000_000_000_000) for one in three_pulses().pulses]
    second = replace(three_pulses(), pulses=later).write(tmp_path / "a_2.pls")
    with pytest.raises(WaveformFileError, match=r"origin of the times 1000000000.0; .* 0.0 of"):
        fw.open([first, second])


def test_other_formats_are_not_joined(tmp_path: Path) -> None:
    scans = [four_shots().write(tmp_path / name) for name in ("a_1.las", "a_2.las")]
    with pytest.raises(WaveformFileError, match=r"a_1\.las is not a PulseWaves pulse file; only"):
        fw.open(scans)


def test_a_part_is_given_once(tmp_path: Path) -> None:
    part = three_pulses().write(tmp_path / "a_1.pls")
    with pytest.raises(ValueError, match=r"a_1\.pls is given twice"):
        fw.open([part, tmp_path / "." / "a_1.pls"])


@pytest.mark.parametrize("how", ["copied", "linked", "compressed"])
def test_a_part_is_given_under_one_name(tmp_path: Path, how: str) -> None:
    first, second = in_parts(flight_line(), [5, 6], tmp_path, plain)
    other = tmp_path / "copy_2.pls"
    if how == "compressed":
        other = compressed(replace(flight_line(), pulses=flight_line().pulses[5:]), other)
    elif how == "copied":
        shutil.copyfile(second, other)
    else:
        other.hardlink_to(second)
    if how != "compressed":
        shutil.copyfile(second.with_suffix(".wvs"), other.with_suffix(".wvs"))
    message = f"{other} has the same 6 pulses as {second}; give each part of a flight line once"
    with pytest.raises(ValueError, match=re.escape(message)):
        fw.open([first, second, other])


def test_parts_may_differ_in_one_pulse_only(tmp_path: Path) -> None:
    pulse = three_pulses().pulses[0]
    line = replace(three_pulses(), pulses=[replace(pulse, time=n) for n in range(300)])
    other = replace(line, pulses=[*line.pulses[:299], replace(pulse, time=400)])
    paths = [line.write(tmp_path / "a_1.pls"), other.write(tmp_path / "a_2.pls")]
    with fw.open(paths) as reader:
        assert reader.point_count == 600
    empty = in_parts(Scene(line.descriptors, []), [0, 0], tmp_path / "empty", plain)
    fw.open([paths[0], *empty]).close()


def test_no_parts(tmp_path: Path) -> None:
    with pytest.raises(ValueError, match="no path given"):
        fw.open([])


def test_options_of_other_formats_are_refused(tmp_path: Path) -> None:
    parts = in_parts(three_pulses(), [1, 2], tmp_path, plain)
    with pytest.raises(ValueError, match="stores its sampling interval"):
        fw.open(parts, sampling_interval=1e-9)
    with pytest.raises(ValueError, match="fixed system"):
        fw.open(parts, crs="EPSG:32610")


def test_echoes_and_metrics_of_parts_are_those_of_the_line(tmp_path: Path) -> None:
    whole = plain(flight_line(), tmp_path / "whole")
    with fw.open(in_parts(flight_line(), [3, 8], tmp_path, plain, compressed)) as reader:
        found = fw.extract(reader, workers=2)
        metrics = fw.metrics(reader)
    expected = fw.extract(whole, workers=1)
    assert len(expected) > 11
    assert_equal(found.peaks, expected.peaks)
    assert_equal(metrics.columns, fw.metrics(whole).columns)


def assert_equal(found: Columns, expected: Columns) -> None:
    assert list(found) == list(expected)
    for name in found:
        np.testing.assert_array_equal(found[name], expected[name], err_msg=name)
