"""Echoes written as points of LAS files."""

from __future__ import annotations

import json
import struct
from pathlib import Path

import laspy
import numpy as np
import pytest
from laspy.vlrs.vlrlist import VLRList

from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.io.echo_writers.las import LasEchoWriter
from fullwaveform.io.las.reader import LasWaveformReader
from fullwaveform.io.run_record import read_run_records

from ...support.echo_tables import echo_table, shot_attributes
from ...support.las_scenes import Point, Scene

GEO_KEYS = struct.pack("<8H", 1, 1, 0, 1, 3072, 0, 1, 32632)
WKT = b'LOCAL_CS["somewhere",UNIT["metre",1]]\0'


def source_header(version: str, point_format: int) -> laspy.LasHeader:
    header = laspy.LasHeader(version=version, point_format=point_format)
    header.scales, header.offsets = np.full(3, 0.01), np.array([1000.0, 2000.0, 0.0])
    return header


def written(path: Path, source: laspy.LasHeader | None, *tables: EchoTable) -> laspy.LasData:
    with LasEchoWriter(path, source) as writer:
        for table in tables:
            writer.write(table)
    return laspy.read(path)


@pytest.mark.parametrize(
    ("version", "source_format", "expected"),
    [("1.3", 4, 1), ("1.3", 5, 1), ("1.4", 4, 1), ("1.4", 9, 6), ("1.4", 10, 6)],
)
def test_version_and_point_format_follow_the_source(
    tmp_path: Path, version: str, source_format: int, expected: int
) -> None:
    las = written(tmp_path / "e.las", source_header(version, source_format), echo_table([2, 1]))
    assert str(las.header.version) == version
    assert las.header.point_format.id == expected
    assert las.header.scales.tolist() == [0.01] * 3
    assert las.header.offsets.tolist() == [1000.0, 2000.0, 0.0]
    assert las.header.generating_software == "fullwaveform"
    np.testing.assert_allclose(las.xyz, [[0, 0, 0], [1, 2, -1], [2, 4, -2]], atol=1e-9)
    assert las.header.point_count == 3
    assert las.header.number_of_points_by_return[:3].tolist() == [2, 1, 0]
    np.testing.assert_allclose(las.header.mins, [0, 0, -2], atol=1e-9)
    np.testing.assert_allclose(las.header.maxs, [2, 4, 0], atol=1e-9)


@pytest.mark.parametrize(("version", "source_format"), [("1.3", 4), ("1.4", 9)])
def test_standard_fields_of_an_echo(tmp_path: Path, version: str, source_format: int) -> None:
    attributes = shot_attributes(
        2,
        scan_angle=np.array([-12.0, 20.4], np.float32),
        scan_direction_flag=np.array([1, 0], np.uint8),
        edge_of_flight_line=np.array([0, 1], np.uint8),
        user_data=np.array([7, 255], np.uint8),
        point_source_id=np.array([403, 65535], np.uint16),
    )
    table = echo_table(
        [2],
        amplitude=np.array([10.6, 70000.0], np.float32),
        position=np.array([17.125, 1e-9]),
        attributes=attributes,
    )
    las = written(tmp_path / "e.las", source_header(version, source_format), table)
    assert las.intensity.tolist() == [11, 65535]
    assert np.array(las.classification).tolist() == [5, 5]
    assert las.gps_time.tolist() == [100.0, 100.0]
    assert np.array(las.return_number).tolist() == [1, 2]
    assert np.array(las.number_of_returns).tolist() == [2, 2]
    assert np.array(las.scan_direction_flag).tolist() == [1, 0]
    assert np.array(las.edge_of_flight_line).tolist() == [0, 1]
    assert las.user_data.tolist() == [7, 255]
    assert las.point_source_id.tolist() == [403, 65535]
    if source_format < 6:
        assert las.scan_angle_rank.tolist() == [-12, 20]
    else:
        assert las.scan_angle.tolist() == [-2000, 3400]
    assert las.position.tolist() == [17.125, 1e-9]


def test_extra_bytes_of_an_echo(tmp_path: Path) -> None:
    las = written(tmp_path / "e.las", source_header("1.3", 4), echo_table([2]))
    expected = {
        "amplitude": ("float32", [10.0, 11.0]),
        "amplitude_db": ("float32", [12.5, 12.5]),
        "amplitude_library_db": ("float32", [13.5, 13.5]),
        "sigma_ns": ("float32", [1.75, 1.75]),
        "fwhm_ns": ("float32", [4.125, 4.125]),
        "position": ("float64", [0.25, 1.25]),
        "sigma_position_ns": ("float32", [0.0625, 0.0625]),
        "sigma_amplitude": ("float32", [1.5, 1.5]),
        "sigma_width_ns": ("float32", [0.125, 0.125]),
        "sigma_range": ("float32", [0.0078125, 0.0078125]),
        "significance": ("float32", [12.5, 12.5]),
        "fit_flags": ("uint8", [5, 5]),
        "reduced_chi_square": ("float32", [1.25, 1.25]),
        "echo_type": ("uint8", [3, 3]),
        "quality": ("uint8", [4, 4]),
        "reflectance": ("float32", [-2.5, -2.5]),
        "waveform_number": ("uint64", [0, 1]),
        "channel_flag": ("uint8", [1, 1]),
        "descriptor": ("uint8", [2, 2]),
        "original_return_number": ("uint8", [3, 3]),
    }
    for dimension in las.point_format.extra_dimensions:
        kind, values = expected.pop(dimension.name)
        assert las[dimension.name].dtype == kind
        assert las[dimension.name].tolist() == values
        assert 0 < len(dimension.description) <= 32
    assert not expected


def test_nan_is_written_as_zero(tmp_path: Path) -> None:
    nan = np.float32("nan")
    table = echo_table(
        [2],
        amplitude=np.array([nan, -3.0], np.float32),
        attributes=shot_attributes(2, scan_angle=np.array([nan, 500.0], np.float32)),
    )
    las = written(tmp_path / "e.las", source_header("1.3", 4), table)
    assert las.intensity.tolist() == [0, 0]
    assert las.scan_angle_rank.tolist() == [0, 90]


@pytest.mark.parametrize(("version", "source_format", "limit"), [("1.3", 4, 7), ("1.4", 9, 15)])
def test_return_numbers_saturate(
    tmp_path: Path, version: str, source_format: int, limit: int
) -> None:
    table = echo_table([limit, limit + 1, 1, limit + 3, limit + 1])
    with LasEchoWriter(tmp_path / "e.las", source_header(version, source_format)) as writer:
        writer.write(table)
        assert writer.saturated_return_numbers == 3
    las = laspy.read(tmp_path / "e.las")
    numbers = np.array(las.return_number).tolist()
    full = list(range(1, limit + 1))
    assert numbers == [*full, *full, limit, 1, *full, *[limit] * 3, *full, limit]
    assert np.array(las.number_of_returns).max() == limit


def test_shots_of_equal_time_are_separated_by_echo_numbers(tmp_path: Path) -> None:
    table = echo_table([9, 8, 2, 8], gps_time=np.zeros(27))
    with LasEchoWriter(tmp_path / "e.las", source_header("1.3", 4)) as writer:
        writer.write(table)
        assert writer.saturated_return_numbers == 3


def test_coordinates_out_of_range_are_skipped_and_counted(tmp_path: Path) -> None:
    edge = 2147483647 * 0.01  # the largest step of 32 bits, offsets aside
    xyz = np.array(
        [
            [1000.0 + edge, 2000.0, 0.0],
            [1000.0 + edge + 0.01, 2000.0, 0.0],
            [1000.0, 2000.0 - edge - 0.01, 0.0],
            [1000.0, 2000.0, -edge - 0.03],
            [np.nan, 0.0, 0.0],
            [0.0, np.inf, 0.0],
            [0.0, 0.0, -np.inf],
            [1.0, 2.0, 3.0],
        ]
    )
    with LasEchoWriter(tmp_path / "e.las", source_header("1.4", 9)) as writer:
        writer.write(echo_table([1] * 8, xyz=xyz))
        assert (writer.count, writer.not_representable) == (3, 5)
    las = laspy.read(tmp_path / "e.las")
    assert las.X.tolist() == [2147483647, 0, -99900]
    assert las.Y.tolist() == [0, -2147483648, -199800]
    assert las.intensity.tolist() == [10, 12, 17]


def test_reference_system_and_time_type_are_copied(tmp_path: Path) -> None:
    header = source_header("1.4", 9)
    header.global_encoding.value = 0b10111  # standard GPS time, packets (both bits), WKT
    header.vlrs.append(laspy.VLR("LASF_Projection", 34735, "keys", GEO_KEYS))
    header.vlrs.append(laspy.VLR("LASF_Projection", 34736, "", struct.pack("<d", 0.25)))
    header.vlrs.append(laspy.VLR("LASF_Projection", 34737, "", b"one|two|\0"))
    header.vlrs.append(laspy.VLR("LASF_Spec", 100, "", bytes(26)))
    header.vlrs.append(laspy.VLR("another", 2112, "", b"no reference system"))
    header.evlrs = VLRList([laspy.VLR("LASF_Projection", 2112, "wkt", WKT)])
    las = written(tmp_path / "e.las", header, echo_table([1]))
    assert las.header.global_encoding.value == 0b10001
    records = [(record.record_id, record.record_data_bytes()) for record in las.header.vlrs]
    assert records[:3] == [
        (34735, GEO_KEYS),
        (34736, struct.pack("<d", 0.25)),
        (34737, b"one|two|\0"),
    ]
    assert [record_id for record_id, _ in records[3:]] == [4]  # the description of the extra bytes
    extended = las.header.evlrs
    assert [(record.record_id, record.record_data_bytes()) for record in extended] == [(2112, WKT)]
    assert len(las.points) == 1


@pytest.mark.parametrize("bit", [False, True])
def test_geotiff_keys_become_wkt_in_format_6(tmp_path: Path, bit: bool) -> None:
    header = source_header("1.4", 9)
    header.global_encoding.wkt = bit
    header.vlrs.append(laspy.VLR("LASF_Projection", 34735, "keys", GEO_KEYS))
    las = written(tmp_path / "e.las", header, echo_table([1]))
    assert las.header.global_encoding.wkt
    assert not las.header.vlrs.get("GeoKeyDirectoryVlr")
    (record,) = las.header.vlrs.get("WktCoordinateSystemVlr")
    assert record.string.startswith('PROJCS["WGS 84 / UTM zone 32N"')
    assert las.header.parse_crs().to_epsg() == 32632


def test_geotiff_keys_that_are_not_understood_stay_without_the_flag(tmp_path: Path) -> None:
    header = source_header("1.4", 9)
    header.global_encoding.wkt = True
    keys = struct.pack("<8H", 1, 1, 0, 1, 3072, 0, 1, 32767)  # user-defined
    header.vlrs.append(laspy.VLR("LASF_Projection", 34735, "keys", keys))
    las = written(tmp_path / "e.las", header, echo_table([1]))
    assert not las.header.global_encoding.wkt
    assert las.header.vlrs.get("GeoKeyDirectoryVlr")[0].record_data_bytes() == keys


@pytest.mark.parametrize(
    ("version", "source_format", "records", "bit", "expected"),
    [
        ("1.4", 9, [], False, True),  # required in format 6
        ("1.4", 9, [2112], False, True),
        ("1.4", 4, [34735], True, False),  # a reader would ignore the keys
        ("1.4", 4, [34735, 2112], False, False),
        ("1.4", 4, [34735, 2112], True, True),
        ("1.4", 4, [2112], False, True),
        ("1.3", 4, [2112], True, False),  # not defined before 1.4
        ("1.4", 4, [], True, False),
    ],
)
def test_flag_of_wkt_follows_the_records(
    tmp_path: Path,
    version: str,
    source_format: int,
    records: list[int],
    bit: bool,
    expected: bool,
) -> None:
    header = source_header(version, source_format)
    header.global_encoding.wkt = bit
    content = {34735: GEO_KEYS, 2112: WKT}
    header.vlrs.extend(laspy.VLR("LASF_Projection", one, "", content[one]) for one in records)
    las = written(tmp_path / "e.las", header, echo_table([1]))
    assert las.header.global_encoding.wkt == expected
    kept = [one.record_id for one in las.header.vlrs if one.user_id == "LASF_Projection"]
    assert kept == records


@pytest.mark.parametrize("version", ["1.3", "1.4"])
@pytest.mark.parametrize("length", [10, 70_000])
def test_settings_of_the_run_are_in_a_record(tmp_path: Path, version: str, length: int) -> None:
    run = {"input": "s" * length, "mode": "three-point fit"}
    with LasEchoWriter(tmp_path / "e.las", source_header(version, 4), run) as writer:
        writer.write(echo_table([1]))
    las = laspy.read(tmp_path / "e.las")
    records = [one for one in las.header.vlrs if one.user_id == "fullwaveform"]
    assert [one.record_id for one in records] == [1, 2][: 1 if length == 10 else 2]
    text = b"".join(one.record_data_bytes() for one in records)
    assert json.loads(text) == run
    assert read_run_records(las.header.vlrs) == run


def test_file_of_another_program_has_no_settings_of_a_run() -> None:
    assert read_run_records([]) is None
    assert read_run_records([laspy.VLR("fullwaveform", 1, "", b"\xff{")]) is None
    assert read_run_records([laspy.VLR("fullwaveform", 1, "", b"[1]")]) is None


def test_records_read_from_a_file_are_copied(tmp_path: Path) -> None:
    scene = Scene(
        [(1, 8, 1, 1000)], [(1, [5])], [Point(0)], 9, "1.4", inside=True, extended_descriptors=True
    )
    path = scene.write(tmp_path / "source.las")
    with LasWaveformReader(path) as reader:
        reader.header.evlrs.append(laspy.VLR("LASF_Projection", 2111, "", b"PARAM_MT\0"))
        las = written(tmp_path / "e.las", reader.header, echo_table([1]))
    assert [record.record_id for record in las.header.evlrs] == [2111]
    assert las.header.global_encoding.value == 0
    assert las.header.start_of_waveform_data_packet_record == 0


def test_offsets_without_a_source_are_near_the_first_echoes(tmp_path: Path) -> None:
    # A northing that exceeds 32 bits of millimetres from zero.
    xyz = np.array([[433978.2095, 5103979.436, 30.273], [np.nan, 0.0, 0.0]])
    las = written(tmp_path / "e.las", None, echo_table([]), echo_table([2], xyz=xyz))
    assert (str(las.header.version), las.header.point_format.id) == ("1.4", 6)
    assert las.header.offsets.tolist() == [433000.0, 5103000.0, 0.0]
    assert las.header.scales.tolist() == [0.001] * 3
    assert las.header.global_encoding.wkt
    np.testing.assert_allclose(las.xyz, xyz[:1], atol=0.00051)


def test_several_tables_are_appended(tmp_path: Path) -> None:
    tables = [echo_table([2]), echo_table([]), echo_table([1, 1])]
    with LasEchoWriter(tmp_path / "e.las", source_header("1.3", 4)) as writer:
        for table in tables:
            writer.write(table)
        assert writer.count == 4
    assert laspy.read(tmp_path / "e.las").intensity.tolist() == [10, 11, 10, 11]


@pytest.mark.parametrize("source", [None, source_header("1.3", 5)])
def test_file_without_echoes_is_valid(tmp_path: Path, source: laspy.LasHeader | None) -> None:
    las = written(tmp_path / "e.las", source)
    assert len(las.points) == 0
    assert len(list(las.point_format.extra_dimensions)) == 20


def write_and_fail(writer: LasEchoWriter) -> None:
    writer.write(echo_table([3]))
    raise RuntimeError("halfway")


def test_failed_run_keeps_the_existing_file(tmp_path: Path) -> None:
    path = tmp_path / "e.las"
    with LasEchoWriter(path, None) as writer:
        writer.write(echo_table([2]))
    older = path.read_bytes()
    writer = LasEchoWriter(path, None)
    writer.overwrite = True
    with pytest.raises(RuntimeError, match="halfway"), writer:
        write_and_fail(writer)
    assert path.read_bytes() == older
    assert list(tmp_path.iterdir()) == [path]
    with pytest.raises(ValueError, match="not open"):
        writer.write(echo_table([1]))


def test_missing_folder_is_an_error(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError, match="nowhere does not exist"):
        LasEchoWriter(tmp_path / "nowhere" / "e.las", None).__enter__()
