"""Compressed LAS files: the same waveforms as from the uncompressed ones, or an error."""

from __future__ import annotations

import shutil
import struct
from pathlib import Path

import laspy
import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.reader import LasWaveformReader

from ...support.las_scenes import (
    FOUR,
    Point,
    Scene,
    compressed,
    four_shots,
    patch,
    read,
    rows,
    shuffled,
)
from ...support.row_scenes import same

TRUTH = Path(__file__).resolve().parents[3] / "truth"
FORMATS = [(4, "1.3"), (5, "1.3"), (9, "1.4"), (10, "1.4")]


def point_start(path: Path) -> int:
    with laspy.open(path) as reader:
        return int(reader.header.offset_to_point_data)


def message_of(path: Path) -> str:
    with pytest.raises(WaveformFileError) as caught:
        read(path)
    assert str(path) in str(caught.value)
    return str(caught.value)


@pytest.mark.parametrize(("point_format", "version"), FORMATS)
def test_compressed_and_uncompressed_points_give_equal_blocks(
    tmp_path: Path, point_format: int, version: str
) -> None:
    rng = np.random.default_rng(point_format)
    points = [
        Point(
            int(number) % 200,
            gps_time=100.0 + number // 3,
            xyz=(float(x), float(y), float(z)),
            location=float(rng.normal()),
            direction=tuple(rng.normal(size=3)),
            fields={"user_data": number % 7, "point_source_id": number % 11},
        )
        for number, (x, y, z) in enumerate(rng.integers(0, 1000, (600, 3)))
    ]
    packets = [(1 + number % 2, [number, 1, 2, 3]) for number in range(200)]
    scene = Scene([(1, 8, 4, 1000), (2, 16, 4, 500)], packets, points, point_format, version)
    plain = scene.write(tmp_path / "a.las")
    packed = compressed(plain, tmp_path / "b.laz")
    expected, tally = read(plain, waveforms_per_block=70)
    found, other = read(packed, waveforms_per_block=70)
    assert len(found) == len(expected) == 3
    assert all(map(same, found, expected))
    assert rows(found) == [list(samples) for _, samples in packets]
    assert other == tally
    with LasWaveformReader(packed, waveforms_per_block=70) as reader:
        assert reader.header.are_points_compressed
        (last,) = reader.blocks(2)
    assert same(last, expected[2])


def test_points_of_many_compressed_chunks_are_read(tmp_path: Path) -> None:
    points = 120_000  # a chunk has 50,000
    header = laspy.LasHeader(version="1.4", point_format=9)
    header.scales = np.full(3, 0.001)
    header.global_encoding.waveform_data_packets_external = True
    with laspy.open(four_shots().write(tmp_path / "a.las")) as small:
        header.vlrs.extend(list(small.header.vlrs))
    record = laspy.ScaleAwarePointRecord.zeros(points, header=header)
    numbers = np.arange(points)
    record.array["gps_time"] = numbers // 4
    record.array["wavepacket_index"] = 1
    record.array["wavepacket_offset"] = 60 + numbers // 2 * 4
    record.array["wavepacket_size"] = 4
    record.array["return_point_wave_location"] = numbers % 1000
    with laspy.open(tmp_path / "b.laz", mode="w", header=header) as writer:
        writer.write_points(record)
    samples = np.random.default_rng(1).integers(0, 256, (points // 2, 4), dtype=np.uint8)
    start = (tmp_path / "a.wdp").read_bytes()[:20] + struct.pack("<Q32x", samples.size)
    (tmp_path / "b.wdp").write_bytes(start + samples.tobytes())
    blocks, tally = read(tmp_path / "b.laz", waveforms_per_block=7001)
    assert np.array_equal(np.concatenate([block.samples for block in blocks]), samples)
    location = np.concatenate([block.geometry.location for block in blocks])
    assert np.array_equal(location, numbers[::2] % 1000)
    assert tally.points_sharing_waveform == points // 2


def test_scanner_channels_that_lazrs_compressed_are_refused(
    tmp_path: Path,
) -> None:
    scene = four_shots(point_format=9, version="1.4")
    for point in scene.points:
        point.fields["scanner_channel"] = 2
    one = compressed(scene.write(tmp_path / "one.las"), tmp_path / "one.laz")
    assert rows(read(one)[0]) == [list(samples) for _, samples in FOUR]
    scene.points[2].fields["scanner_channel"] = 1
    plain = scene.write(tmp_path / "two.las")
    assert len(rows(read(plain)[0])) == 4
    message = message_of(compressed(plain, tmp_path / "two.laz"))
    assert "scanner channels 1, 2" in message
    assert "lazrs, lost the waveform fields" in message


def test_scanner_channels_of_another_compressor_are_read(tmp_path: Path) -> None:
    """The stored file was compressed by LASzip; its script has the formulas of the values."""
    path = tmp_path / "several_channels.laz"
    shutil.copy(TRUTH / "laszip" / path.name, path)
    samples = np.arange(160, dtype=np.uint8)
    start = struct.pack("<H16sHQ32s", 0, b"LASF_Spec", 65535, len(samples), b"")
    path.with_suffix(".wdp").write_bytes(start + samples.tobytes())
    with laspy.open(path) as reader:
        assert set(np.asarray(reader.read().scanner_channel).tolist()) == {0, 1}
    (block,), tally = read(path)
    number = np.arange(40)
    assert tally.waveforms == 40
    assert np.array_equal(block.samples, samples.reshape(40, 4))
    assert np.array_equal(block.geometry.location, 1000.0 + 3.0 * number)
    assert np.array_equal(block.geometry.direction[:, 0], np.float32(1e-5 * number))
    assert np.array_equal(block.descriptors, 1 + number % 2)


def test_missing_decompressor_is_reported(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    path = compressed(four_shots().write(tmp_path / "a.las"), tmp_path / "a.laz")
    monkeypatch.setattr(laspy.LazBackend, "detect_available", lambda: ())
    assert "pip install lazrs" in message_of(path)
    assert len(rows(read(tmp_path / "a.las")[0])) == 4


def test_missing_packet_file_is_an_error(tmp_path: Path) -> None:
    path = compressed(four_shots().write(tmp_path / "a.las"), tmp_path / "b.laz")
    path.with_suffix(".wdp").unlink()
    with pytest.raises(FileNotFoundError, match=r"b\.wdp does not exist"):
        LasWaveformReader(path)


def test_compressed_points_may_be_out_of_order(tmp_path: Path) -> None:
    plain = four_shots().write(tmp_path / "a.las")
    path = compressed(shuffled(plain, tmp_path / "b.las", [2, 0, 1, 3]), tmp_path / "b.laz")
    expected, _ = read(plain)
    for blocks in (read(path)[0], read(path, waveforms_per_block=1)[0]):
        assert rows(blocks) == rows(expected)
        places = np.concatenate([block.geometry.anchor for block in blocks])
        assert np.array_equal(places, expected[0].geometry.anchor)
    assert "they are read in that order" in read(path)[1].notes[0]


@pytest.mark.parametrize(("point_format", "version"), [(4, "1.3"), (9, "1.4")])
def test_any_truncation_is_an_error(tmp_path: Path, point_format: int, version: str) -> None:
    plain = four_shots(point_format=point_format, version=version).write(tmp_path / "a.las")
    path = compressed(plain, tmp_path / "b.laz")
    content = path.read_bytes()
    for size in range(len(content)):
        path.write_bytes(content[:size])
        message_of(path)


def test_corrupt_chunk_table_is_an_error(tmp_path: Path) -> None:
    path = compressed(four_shots().write(tmp_path / "a.las"), tmp_path / "b.laz")
    start = point_start(path)
    table = struct.unpack("<q", path.read_bytes()[start : start + 8])[0]
    patch(path, table + 4, "<I", 2**32 - 1)
    assert "4294967295 compressed chunks for 4 points" in message_of(path)
    for place in (0, start, path.stat().st_size, 2**62, -7):
        patch(path, start, "<q", place)
        assert f"expected at byte {place}," in message_of(path)
