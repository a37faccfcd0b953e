"""``fullwaveform info``: origin of a file, its receivers, and files of echoes."""

from __future__ import annotations

import json
import struct
from datetime import date
from pathlib import Path
from typing import Any

import laspy
import pytest

from ..support import pulsewaves_scenes
from ..support.command_line import run, words
from ..support.las_scenes import Point, Scene, patch
from ..support.row_scenes import as_container

SAMPLES = [10, 10, 10, 60, 100, 60, 10, 10]
GEO_KEYS = struct.pack("<8H", 1, 1, 0, 1, 3072, 0, 1, 32632)


@pytest.fixture
def scan(tmp_path: Path) -> Path:
    """Three waveforms of descriptor 1, one of descriptor 3; descriptor 2 is not used."""
    packets = [(1, SAMPLES), (1, SAMPLES), (1, SAMPLES), (3, SAMPLES)]
    points = [
        Point(number, 100.0 + number, fields={"point_source_id": 7 + number // 3})
        for number in range(4)
    ]
    descriptors = [(1, 8, 8, 2000), (2, 8, 0, 1000), (3, 16, 8, 500)]
    path = Scene(descriptors, packets, points, gains={3: 0.25}).write(tmp_path / "plain.las")
    las = laspy.read(path)
    las.header.vlrs.append(laspy.VLR("LASF_Projection", 34735, "keys", GEO_KEYS))
    las.header.system_identifier, las.header.generating_software = "SENSOR", "recorder 1.2"
    las.header.creation_date = date(2024, 2, 29)
    las.xyz = [[10, 20, 30], [11, 22, 33], [12, 21, 31], [10, 20, 30]]
    las.write(tmp_path / "scan.las")
    (tmp_path / "scan.wdp").write_bytes((tmp_path / "plain.wdp").read_bytes())
    return tmp_path / "scan.las"


def shown(path: Path) -> dict[str, Any]:
    result = run("info", path, "--json")
    assert result.exit_code == 0, result.output
    return dict(json.loads(result.stdout))


def test_texts_in_brackets_are_shown_as_they_are(scan: Path) -> None:
    las = laspy.read(scan)
    las.header.system_identifier, las.header.generating_software = "[/red]", "[bold]recorder"
    source = scan.with_name("[b]scan.las")
    las.write(source)
    source.with_suffix(".wdp").write_bytes(scan.with_suffix(".wdp").read_bytes())
    text = words(run("info", source).stdout)
    assert "[b]scan.las: LAS 1.3" in text
    assert "system [/red]" in text
    assert "software [bold]recorder" in text
    result = run("extract", source, "-o", scan.with_name("echoes.csv"))
    assert "[b]scan.las: Fitting gauss curve" in words(result.stdout)


def test_descriptors_in_use(scan: Path) -> None:
    assert shown(scan)["descriptors"] == [
        {
            "number": 1,
            "waveforms": 3,
            "bits": 8,
            "samples": 8,
            "seconds": 2e-9,
            "gain": 0.5,
            "offset": -1.0,
        },
        {
            "number": 3,
            "waveforms": 1,
            "bits": 16,
            "samples": 8,
            "seconds": 5e-10,
            "gain": 0.25,
            "offset": -1.0,
        },
    ]
    text = words(run("info", scan).stdout)
    assert (
        "descriptor 3 1 waveform of 8 samples at 0.5 ns, 16 bits, 0.25 V per count, offset -1 V"
        in text
    )
    assert "descriptor 2" not in text


def test_origin_of_a_las_file(scan: Path) -> None:
    contents = shown(scan)
    assert contents["origin"] == {
        "software": "recorder 1.2",
        "system": "SENSOR",
        "date": "2024-02-29",
        "lower": [10.0, 20.0, 30.0],
        "upper": [12.0, 22.0, 33.0],
        "reference_system": "WGS 84 / UTM zone 32N (EPSG:32632)",
        "run": None,
    }
    assert contents["point_sources"] == [{"id": 7, "waveforms": 3}, {"id": 8, "waveforms": 1}]
    text = words(run("info", scan).stdout)
    for line in (
        "reference system WGS 84 / UTM zone 32N (EPSG:32632)",
        "bounding box x 10 to 12, y 20 to 22, z 30 to 33",
        "software recorder 1.2",
        "system SENSOR",
        "date 2024-02-29",
        "point source ID 7 (3 waveforms), 8 (1 waveform)",
    ):
        assert line in text


def test_container_keeps_the_origin(scan: Path, tmp_path: Path) -> None:
    container = as_container(scan, tmp_path / "scan.h5")
    assert shown(container)["origin"] == shown(scan)["origin"]


def test_settings_of_a_file_of_echoes(scan: Path, tmp_path: Path) -> None:
    echoes = tmp_path / "echoes.las"
    assert run("extract", scan, "-o", echoes, "--threshold", "20").exit_code == 0
    contents = shown(echoes)
    assert contents["format"] == "LAS 1.3, point format 1, no waveforms"
    assert contents["points"] == 4
    assert contents["origin"]["software"] == "fullwaveform"
    assert contents["origin"]["run"]["input"] == "scan.las"
    assert contents["origin"]["run"]["threshold"] == "20"
    text = words(run("info", echoes).stdout)
    assert "run: input scan.las" in text
    assert "points 4" in text


def test_origin_of_a_pulsewaves_file(tmp_path: Path) -> None:
    path = pulsewaves_scenes.two_channels().write(tmp_path / "scan.pls")
    patch(path, 40, "<64s64sHH", b"SENSOR", b"recorder", 60, 2024)  # system, software, day, year
    origin = shown(path)["origin"]
    assert (origin["system"], origin["software"]) == ("SENSOR", "recorder")
    assert origin["date"] == "2024-02-29"
    for day, year in ((0, 2024), (366, 2023), (1, 0)):
        patch(path, 168, "<HH", day, year)
        assert shown(path)["origin"]["date"] == ""


def test_box_of_the_header_without_any_waveform_is_replaced(tmp_path: Path) -> None:
    # Four samples at 1 ns, from the anchor at 0 down by 0.15 m each.
    path = pulsewaves_scenes.three_pulses().write(tmp_path / "scan.pls")
    box = 304  # byte of the header
    patch(path, box, "<6d", 5.0, 6.0, 0.0, 0.0, -0.45, 0.0)  # x does not contain the waveforms
    origin = shown(path)["origin"]
    assert (origin["lower"], origin["upper"]) == (
        pytest.approx([0.0, 0.0, -0.45]),
        pytest.approx([0.0, 0.0, 0.0]),
    )
    patch(path, box, "<6d", -1.0, 1.0, -1.0, 1.0, -9.0, -0.4)
    origin = shown(path)["origin"]
    assert (origin["lower"], origin["upper"]) == ([-1.0, -1.0, -9.0], [1.0, 1.0, -0.4])


def test_truncated_file_of_echoes_is_refused(tmp_path: Path) -> None:
    header = laspy.LasHeader(version="1.2", point_format=1)
    laspy.LasData(header).write(tmp_path / "e.las")
    (tmp_path / "e.las").write_bytes((tmp_path / "e.las").read_bytes()[:150])
    result = run("info", tmp_path / "e.las")
    assert result.exit_code == 1
    assert "is not a valid LAS file" in words(result.stderr)
