"""The written scan, read back by laspy and by plain byte offsets."""

from __future__ import annotations

import struct
from dataclasses import fields
from pathlib import Path

import laspy
import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.simulation import (
    ScanSettings,
    SimulatedScan,
    TruthTable,
    files,
    read_truth,
    simulate_scan,
    write_scan,
)

PACKET_BYTES = 320  # 160 samples of 2 bytes
FORMATS = pytest.mark.parametrize("point_format", [9, 4])


@pytest.fixture(scope="module")
def scan() -> SimulatedScan:
    return simulate_scan(ScanSettings(shots=600))


def written(scan: SimulatedScan, folder: Path, point_format: int) -> laspy.LasData:
    path = folder / f"line{point_format}.las"
    return laspy.read(write_scan(scan, path, point_format=point_format).las)


def shot_of(las: laspy.LasData, scan: SimulatedScan) -> np.ndarray:
    """Row of the shot of every point with a packet, by its GPS time."""
    return np.searchsorted(scan.shots.gps_time, np.asarray(las.gps_time), side="right") - 1


@FORMATS
def test_header_has_version_scales_and_date(
    scan: SimulatedScan, tmp_path: Path, point_format: int
) -> None:
    header = written(scan, tmp_path, point_format).header
    assert str(header.version) == {9: "1.4", 4: "1.3"}[point_format]
    assert header.point_format.id == point_format
    # GPS standard time 1, external packets 4, WKT 16.
    assert header.global_encoding.value == {9: 21, 4: 5}[point_format]
    assert header.scales.tolist() == [0.001, 0.001, 0.001]
    assert header.offsets.tolist() == [500_000.0, 5_300_000.0, 0.0]
    assert header.creation_date.isoformat() == "2021-03-17"  # 1.3e9 s after 1980-01-06


@FORMATS
def test_coordinate_system(scan: SimulatedScan, tmp_path: Path, point_format: int) -> None:
    vlrs = written(scan, tmp_path, point_format).header.vlrs
    projection = [vlr for vlr in vlrs if vlr.user_id == "LASF_Projection"]
    assert len(projection) == 1
    if point_format == 9:
        assert projection[0].record_id == 2112
        assert projection[0].string.startswith('PROJCS["ETRS89 / UTM zone 33N"')
        assert projection[0].string.count("[") == projection[0].string.count("]")
        assert projection[0].string.endswith('AUTHORITY["EPSG","25833"]]')
    else:
        assert projection[0].record_id == 34735
        keys = np.frombuffer(projection[0].record_data_bytes(), dtype="<u2").reshape(-1, 4)
        assert keys[2].tolist() == [3072, 0, 1, 25833]


@FORMATS
def test_descriptors_describe_both_channels(
    scan: SimulatedScan, tmp_path: Path, point_format: int
) -> None:
    las = written(scan, tmp_path, point_format)
    data = {
        vlr.record_id: struct.unpack("<BBIIdd", vlr.record_data_bytes())
        for vlr in las.header.vlrs
        if vlr.user_id == "LASF_Spec"
    }
    assert data == {
        100: (16, 0, 160, 1000, 0.000125, -0.0015),
        101: (16, 0, 160, 1000, 0.001, -0.012),
    }


@FORMATS
def test_packets_hold_the_samples(scan: SimulatedScan, tmp_path: Path, point_format: int) -> None:
    las = written(scan, tmp_path, point_format)
    raw = (tmp_path / f"line{point_format}.wdp").read_bytes()
    assert len(raw) == 60 + 600 * 2 * PACKET_BYTES
    reserved, user, record, length, description = struct.unpack("<H16sHQ32s", raw[:60])
    assert (reserved, user.rstrip(b"\0"), record, length) == (0, b"LASF_Spec", 65535, 384_000)
    assert description.rstrip(b"\0") == b"Simulated waveforms"
    has = np.asarray(las.wavepacket_index) > 0
    offset = np.asarray(las.wavepacket_offset)[has].astype(np.int64)
    channel = np.asarray(las.wavepacket_index)[has].astype(np.int64) - 1
    assert set(np.asarray(las.wavepacket_size)[has].tolist()) == {PACKET_BYTES}
    stored = np.frombuffer(raw, dtype="<u2", offset=60).reshape(-1, 160)
    np.testing.assert_array_equal(
        stored[(offset - 60) // PACKET_BYTES], scan.samples[shot_of(las, scan)[has], channel]
    )


@FORMATS
def test_every_packet_has_a_point(scan: SimulatedScan, tmp_path: Path, point_format: int) -> None:
    las = written(scan, tmp_path, point_format)
    has = np.asarray(las.wavepacket_index) > 0
    offsets = np.unique(np.asarray(las.wavepacket_offset)[has])
    assert offsets.tolist() == [60 + PACKET_BYTES * i for i in range(1200)]
    descriptors = np.asarray(las.wavepacket_index)
    of_packet = (np.asarray(las.wavepacket_offset)[has] - 60) // PACKET_BYTES % 2 + 1
    assert of_packet.tolist() == descriptors[has].tolist()


@FORMATS
def test_line_of_each_packet_meets_its_true_echoes(
    scan: SimulatedScan, tmp_path: Path, point_format: int
) -> None:
    las = written(scan, tmp_path, point_format)
    has = np.asarray(las.wavepacket_index) > 0
    point_shot = shot_of(las, scan)
    point, echo = np.nonzero(has[:, np.newaxis] & (point_shot[:, np.newaxis] == scan.truth.shot))
    assert len(point) > 2000
    anchor = np.asarray(las.xyz)[point]
    line = np.column_stack([np.asarray(axis) for axis in (las.x_t, las.y_t, las.z_t)])[point]
    location = np.asarray(las.return_point_wave_location).astype(np.float64)[point]
    later = location - 1000.0 * scan.truth.time_in_record_ns[echo]
    at = anchor + later[:, np.newaxis] * line.astype(np.float64)
    # The anchor is rounded to half a millimetre on each axis.
    assert np.linalg.norm(at - scan.truth.xyz[echo], axis=1).max() < 0.001
    assert (line[:, 2] > 0).all()  # against the flight of light: upwards
    np.testing.assert_allclose(np.linalg.norm(line, axis=1), 1.49854128e-4, rtol=1e-6)


@FORMATS
def test_points_without_packet(scan: SimulatedScan, tmp_path: Path, point_format: int) -> None:
    las = written(scan, tmp_path, point_format)
    without = np.asarray(las.wavepacket_index) == 0
    assert without.sum() == 25
    assert not np.isin(np.asarray(las.gps_time)[without], scan.shots.gps_time).any()
    for name in ("wavepacket_offset", "wavepacket_size", "return_point_wave_location", "x_t"):
        assert not np.asarray(las[name])[without].any()


@FORMATS
def test_empty_shots_have_a_withheld_point_for_each_packet(
    scan: SimulatedScan, tmp_path: Path, point_format: int
) -> None:
    las = written(scan, tmp_path, point_format)
    withheld = np.asarray(las.withheld) == 1
    empty = np.setdiff1d(np.arange(600), scan.truth.shot)
    assert len(empty) == 30
    assert shot_of(las, scan)[withheld].tolist() == np.repeat(empty, 2).tolist()
    assert np.asarray(las.wavepacket_index)[withheld].tolist() == [1, 2] * 30
    assert not np.asarray(las.return_point_wave_location)[withheld].any()


@FORMATS
def test_return_numbers(scan: SimulatedScan, tmp_path: Path, point_format: int) -> None:
    las = written(scan, tmp_path, point_format)
    low = (np.asarray(las.wavepacket_index) == 1) & (np.asarray(las.withheld) == 0)
    shot = shot_of(las, scan)[low]
    number = np.asarray(las.return_number)[low]
    count = np.asarray(las.number_of_returns)[low]
    assert (np.diff(np.asarray(las.gps_time)) >= 0).all()
    assert count.tolist() == np.bincount(shot)[shot].tolist()
    assert count.max() <= {9: 15, 4: 5}[point_format]
    assert count.max() >= 4
    same = np.diff(shot) == 0
    assert (np.diff(number.astype(int))[same] == 1).all()
    assert (number[1:][~same] == 1).all()
    location = np.asarray(las.return_point_wave_location)[low]
    assert (np.diff(location)[same] > -700.0).all()  # jitter may swap two that merge


def test_returns_trigger_on_the_leading_edge(tmp_path: Path) -> None:
    scan = simulate_scan(ScanSettings(return_jitter=0.0, shots=300))
    las = written(scan, tmp_path, 9)
    high = (np.asarray(las.wavepacket_index) == 2) & (np.asarray(las.withheld) == 0)
    shot = shot_of(las, scan)[high]
    alone = np.flatnonzero(np.isinf(scan.truth.neighbour_distance_samples))
    rows = np.searchsorted(shot, scan.truth.shot[alone])
    early = (
        scan.truth.time_in_record_ns[alone] * 1000.0
        - np.asarray(las.return_point_wave_location)[high][rows]
    )
    np.testing.assert_allclose(early, 500.0 * scan.truth.sigma_samples[alone], atol=0.02)


def test_older_format_limits_the_number_of_returns(tmp_path: Path) -> None:
    scan = simulate_scan(ScanSettings(close_pair_fraction=0.9, return_threshold=0.0))
    assert scan.truth.echo_number.max() == 6
    assert np.asarray(written(scan, tmp_path, 4).number_of_returns).max() == 5
    assert np.asarray(written(scan, tmp_path, 9).number_of_returns).max() == 6


def test_scan_angle_in_the_unit_of_the_format(scan: SimulatedScan, tmp_path: Path) -> None:
    assert np.asarray(written(scan, tmp_path, 9).scan_angle)[0] == -3000  # 0.006 degrees each
    assert np.asarray(written(scan, tmp_path, 4).scan_angle_rank)[0] == -18


def test_samples_of_8_bits_are_written(tmp_path: Path) -> None:
    scan = simulate_scan(ScanSettings(shots=40, bits=8, maximum=255))
    las = written(scan, tmp_path, 4)
    raw = np.fromfile(tmp_path / "line4.wdp", dtype=np.uint8)[60:]
    np.testing.assert_array_equal(raw.reshape(40, 2, 160), scan.samples)
    assert set(np.asarray(las.wavepacket_size).tolist()) == {0, 160}


def test_scan_without_any_echo_is_written(tmp_path: Path) -> None:
    settings = ScanSettings(
        shots=20, empty_fraction=1.0, saturated_fraction=0.0, close_pair_fraction=0.0
    )
    scan = simulate_scan(settings)
    assert len(written(scan, tmp_path, 9)) == 40
    assert len(read_truth(tmp_path / "line9_truth.csv")) == 0


def test_truth_table_round_trip(scan: SimulatedScan, tmp_path: Path) -> None:
    paths = write_scan(scan, tmp_path / "a.b.las")
    assert [path.name for path in paths] == ["a.b.las", "a.b.wdp", "a.b_truth.csv"]
    back = read_truth(paths.truth)
    for column in fields(TruthTable):
        expected, got = getattr(scan.truth, column.name), getattr(back, column.name)
        assert got.dtype == expected.dtype
        np.testing.assert_array_equal(got, expected)


def test_foreign_table_is_refused(tmp_path: Path) -> None:
    table = tmp_path / "other.csv"
    table.write_text("shot,gps_time\n0,1.5\n")
    with pytest.raises(WaveformFileError, match=r"other\.csv"):
        read_truth(table)
    with pytest.raises(OSError, match="missing"):
        read_truth(tmp_path / "missing.csv")


@FORMATS
def test_equal_scans_are_equal_files(
    scan: SimulatedScan, tmp_path: Path, point_format: int
) -> None:
    again = simulate_scan(ScanSettings(shots=600))
    one = write_scan(scan, tmp_path / "one.las", point_format=point_format)
    two = write_scan(again, tmp_path / "two.las", point_format=point_format)
    for first, second in zip(one, two, strict=True):
        assert first.read_bytes() == second.read_bytes()


def test_failure_leaves_no_files(
    scan: SimulatedScan, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    def full_disk(_truth: TruthTable, _path: Path) -> None:
        raise OSError("no space left")

    monkeypatch.setattr(files, "write_truth", full_disk)
    with pytest.raises(OSError, match="no space"):
        write_scan(scan, tmp_path / "line.las")
    assert list(tmp_path.iterdir()) == []


def test_success_leaves_only_the_three_files(scan: SimulatedScan, tmp_path: Path) -> None:
    write_scan(scan, tmp_path / "line.las")
    names = sorted(path.name for path in tmp_path.iterdir())
    assert names == ["line.las", "line.wdp", "line_truth.csv"]


def test_invalid_name_or_format_is_refused(scan: SimulatedScan, tmp_path: Path) -> None:
    with pytest.raises(ValueError, match=r"line\.laz"):
        write_scan(scan, tmp_path / "line.laz")
    with pytest.raises(ValueError, match="point format 6"):
        write_scan(scan, tmp_path / "line.las", point_format=6)
