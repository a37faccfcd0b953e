"""Invalid LAS files: what is counted and what is an error."""

from __future__ import annotations

import struct
from pathlib import Path

import laspy
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.reader import LasWaveformReader

from ...support.las_scenes import (
    FOUR,
    START_OF_PACKETS,
    START_OF_RECORDS,
    Scene,
    four_shots,
    patch,
    read,
    rows,
)

GLOBAL_ENCODING = 6  # byte of the header


def message_of(path: Path) -> str:
    with pytest.raises(WaveformFileError) as caught:
        read(path)
    assert str(path.parent) in str(caught.value)
    return str(caught.value)


@pytest.mark.parametrize(
    ("descriptor", "compression", "words"),
    [
        ((1, 8, 4, 1000), 1, "compression type 1"),
        ((1, 12, 4, 1000), 0, "12 bits per sample"),
        ((1, 8, 0, 1000), 0, "number of samples 0;"),
        ((1, 8, 65536, 1000), 0, "number of samples 65536;"),
        ((1, 8, 4, 0), 0, "spacing 0 ps"),
        ((2, 8, 4, 1000), 0, "missing waveform descriptor 1; the file has 2"),
    ],
)
def test_unsupported_descriptors_are_refused(
    tmp_path: Path, descriptor: tuple[int, int, int, int], compression: int, words: str
) -> None:
    scene = four_shots()
    scene.compression = compression
    path = scene.write(tmp_path / "a.las")
    replaced = Scene([descriptor], FOUR, scene.points, compression=compression)
    message = message_of(replaced.write(path))
    assert words in message
    assert "descriptor 1" in message


def point_start(path: Path, row: int) -> int:
    with laspy.open(path) as reader:
        return int(reader.header.offset_to_point_data + row * reader.header.point_format.size)


# Bytes of point format 4: GPS time at 20, descriptor 28, offset 29, size 37, location 41, x(t) 45.
@pytest.mark.parametrize(
    ("place", "layout", "value", "reason"),
    [
        (29, "<Q", 59, "samples outside the file"),
        (29, "<Q", 60 + 13, "samples outside the file"),
        (29, "<Q", 2**64 - 1, "samples outside the file"),
        (29, "<Q", 60 + 1, "packet overlaps another packet"),
        (37, "<I", 5, "packet size differs from descriptor"),
        (20, "<d", float("nan"), "GPS time not finite"),
        (41, "<f", float("inf"), "direction or return location not finite"),
        (45, "<f", float("nan"), "direction or return location not finite"),
    ],
)
def test_unusable_waveforms_are_counted(
    tmp_path: Path, place: int, layout: str, value: float, reason: str
) -> None:
    path = four_shots().write(tmp_path / "a.las")
    patch(path, point_start(path, 1) + place, layout, value)
    blocks, tally = read(path)
    assert rows(blocks) == [[1, 2, 3, 4], [9, 10, 11, 12], [13, 14, 15, 16]]
    assert dict(tally.rejected) == {reason: 1}
    assert tally.waveforms == 3
    assert blocks[0].waveform_numbers.tolist() == [0, 1, 2]


def test_truncated_packet_is_rejected(tmp_path: Path) -> None:
    for inside in (False, True):
        path = four_shots(inside=inside).write(tmp_path / f"{inside}.las")
        place = path if inside else path.with_suffix(".wdp")
        place.write_bytes(place.read_bytes()[:-1])
        blocks, tally = read(path)
        assert rows(blocks) == [list(samples) for _, samples in FOUR[:3]]
        assert dict(tally.rejected) == {"samples outside the file": 1}


def test_bytes_after_the_packet_record_are_not_packets(tmp_path: Path) -> None:
    path = four_shots(inside=True).write(tmp_path / "a.las")
    start = struct.unpack("<Q", path.read_bytes()[START_OF_PACKETS : START_OF_PACKETS + 8])[0]
    patch(path, start + 20, "<Q", 12)  # the record's length: three packets of four bytes
    blocks, tally = read(path)
    assert rows(blocks) == [list(samples) for _, samples in FOUR[:3]]
    assert dict(tally.rejected) == {"samples outside the file": 1}


def test_only_unreadable_packets_are_an_error_at_the_end(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    companion = path.with_suffix(".wdp")
    companion.write_bytes(companion.read_bytes()[:60])
    message = message_of(path)
    assert "no readable waveform (4 x samples outside the file)" in message


def test_invalid_arguments_are_refused(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    with pytest.raises(ValueError, match="at least 1"):
        LasWaveformReader(path, waveforms_per_block=0)
    with pytest.raises(ValueError, match="channel flag 256"):
        LasWaveformReader(path, channel_flags=256)


def test_missing_packet_location_in_the_header_is_refused(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    patch(path, GLOBAL_ENCODING, "<H", 0)
    blocks, tally = read(path)
    assert len(rows(blocks)) == 4
    assert "does not say" in tally.notes[0]
    patch(path, GLOBAL_ENCODING, "<H", 6)
    blocks, tally = read(path)
    assert len(rows(blocks)) == 4
    assert "in two files" in tally.notes[0]
    path.with_suffix(".wdp").unlink()
    assert "in the file and in a .wdp file" in message_of(path)
    patch(path, GLOBAL_ENCODING, "<H", 0)
    assert "no waveform packets" in message_of(path)


def test_missing_or_truncated_packet_file_is_an_error(tmp_path: Path) -> None:
    path = four_shots().write(tmp_path / "a.las")
    companion = path.with_suffix(".wdp")
    companion.write_bytes(companion.read_bytes()[:59])
    assert "a.wdp: truncated: 59 bytes" in message_of(path)
    companion.unlink()
    with pytest.raises(FileNotFoundError, match=r"a\.wdp does not exist"):
        LasWaveformReader(path)


def test_packet_record_at_another_byte_is_refused(tmp_path: Path) -> None:
    path = four_shots(inside=True).write(tmp_path / "a.las")
    patch(path, START_OF_PACKETS, "<Q", path.stat().st_size - 59)
    assert "record starts at byte" in message_of(path)
    patch(path, START_OF_PACKETS, "<Q", 100)
    assert "expected the waveform packet record" in message_of(path)
    patch(path, START_OF_PACKETS, "<Q", 0)
    assert "does not say where" in message_of(path)


def test_truncated_las_files_are_refused(tmp_path: Path) -> None:
    whole = four_shots().write(tmp_path / "whole.las").read_bytes()
    path = tmp_path / "a.las"
    (tmp_path / "whole.wdp").rename(tmp_path / "a.wdp")
    for content, words in [
        (b"", "not a LAS file"),
        (b"PK\x03\x04" + whole[4:], "not a LAS file"),
        (whole[:100], "truncated in the header"),
        (whole[:240], "points start at byte"),
        (whole[:-1], "declares 4 points, found 3"),
        (whole[:100] + struct.pack("<I", 4_000_000_000) + whole[104:], "variable records"),
        (whole[:131] + struct.pack("<d", 0.0) + whole[139:], "scales"),
        (whole[:104] + b"\x84" + whole[105:], "chunk table"),
    ]:
        path.write_bytes(content)
        assert words in message_of(path)


def test_extended_records_beyond_the_end_are_refused(tmp_path: Path) -> None:
    scene = four_shots(point_format=9, version="1.4", extended_descriptors=True)
    path = scene.write(tmp_path / "a.las")
    patch(path, START_OF_RECORDS + 8, "<I", 2)
    assert "extended record 2 of 2" in message_of(path)
    patch(path, START_OF_RECORDS + 8, "<I", 1)
    path.write_bytes(path.read_bytes()[:-1])
    assert "extended record 100 ends" in message_of(path)


def test_point_format_without_waveforms_is_named(tmp_path: Path) -> None:
    path = tmp_path / "a.las"
    with laspy.open(path, mode="w", header=laspy.LasHeader(version="1.4", point_format=6)):
        pass
    assert "point format 6" in message_of(path)


def test_unopenable_files_are_errors(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        LasWaveformReader(tmp_path / "nowhere.las")
    with pytest.raises(IsADirectoryError):
        LasWaveformReader(tmp_path)
