"""Selected echoes saved with their waveforms: the same points, and the packets that they have."""

from __future__ import annotations

import os
from pathlib import Path
from zipfile import ZipFile

import laspy
import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.echo_writers.restricting_packets import write_points_with_packets
from fullwaveform.io.opening import open_waveforms
from fullwaveform.view.cache import cache_folder
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.export import SelectionExport
from fullwaveform.view.selection import Selection

from ..support.command_line import run
from ..support.las_scenes import Point, Scene, compressed, rows
from . import scenes
from .scenes import EAST, EAST_ROWS

_HEADER = 60  # bytes of a packet record


def extracted(scan: Path, output: Path) -> Path:
    call = run("extract", scan, "-o", output, "--with-waveforms")
    assert call.exit_code == 0, call.output
    return output


def saved(
    path: Path, waveforms: WaveformDirectory, selection: Selection, folder: Path
) -> tuple[Path, Path]:
    """The LAS file and the packets of the archive."""
    echoes = EchoIndex.of(path, waveforms)
    size, parts = SelectionExport(path, echoes).content(selection, "zip")
    archive = folder / "saved.zip"
    archive.write_bytes(b"".join(parts))
    assert archive.stat().st_size == size
    echoes.close()
    assert not list(cache_folder().glob("selection-*"))
    with ZipFile(archive) as opened:
        assert opened.namelist() == ["selected-echoes.las", "selected-echoes.wdp"]
        opened.extractall(folder / "saved")
    return folder / "saved" / "selected-echoes.las", folder / "saved" / "selected-echoes.wdp"


def samples(path: Path) -> list[list[int]]:
    with open_waveforms(path) as reader:
        return rows(list(reader.blocks()))


def fields(points: laspy.ScaleAwarePointRecord) -> dict[str, bytes]:
    """All but the places of the packets."""
    names = [name for name in points.array.dtype.names if name != "wavepacket_offset"]
    return {name: points.array[name].tobytes() for name in names}


def test_all_echoes_are_the_files_of_the_command(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = extracted(scan, tmp_path / "echoes.las")
    points, packets = saved(path, waveforms, Selection(), tmp_path)
    assert packets.read_bytes() == path.with_suffix(".wdp").read_bytes()
    assert points.read_bytes() == path.read_bytes()


def test_selected_echoes_have_their_waveforms(
    scan: Path, waveforms: WaveformDirectory, tmp_path: Path
) -> None:
    path = extracted(scan, tmp_path / "echoes.las")
    points, packets = saved(path, waveforms, EAST, tmp_path)
    whole, found = laspy.read(path), laspy.read(points)
    assert fields(found.points) == fields(whole.points[EAST_ROWS])
    # Shots 1 and 4; the two echoes of the first one share a packet.
    expected = [scenes.waveform(scenes.SHOTS[shot]) for shot in (1, 4)]
    assert samples(points) == expected
    assert packets.stat().st_size == _HEADER + sum(
        len(one) * (1 if max(one) < 256 else 2) for one in expected
    )
    assert [record.record_id for record in found.header.vlrs] == [
        record.record_id for record in whole.header.vlrs
    ]


def write_four(path: Path, **options: object) -> Path:
    """Packets of 4 samples; two points of the second, and one without a packet."""
    packets = [(1, [number, 50 + number, 9, 9]) for number in range(4)]
    points = [
        Point(0, gps_time=1.0),
        Point(2, gps_time=2.0),
        Point(1, gps_time=3.0),
        Point(None, gps_time=4.0),
        Point(3, gps_time=5.0),
        Point(1, gps_time=3.0, location=2000.0),
    ]
    return Scene([(1, 8, 4, 1000)], packets, points, **options).write(path)  # type: ignore[arg-type]


@pytest.mark.parametrize(
    "options",
    [
        {},
        {"inside": True, "version": "1.4", "point_format": 9},
        {"inside": True},
        {"version": "1.4", "point_format": 10, "extended_descriptors": True},
    ],
    ids=["companion", "inside", "inside 1.3", "extended descriptors"],
)
@pytest.mark.parametrize("chunk", [1, 2, 1000])
def test_packets_of_any_place_are_copied(
    options: dict[str, object], chunk: int, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Points and packets also in small parts; order of the packets and of the points differ."""
    module = "fullwaveform.io.echo_writers.restricting_packets"
    monkeypatch.setattr(f"{module}._POINTS_AT_A_TIME", chunk)
    monkeypatch.setattr(f"{module}._BYTES_AT_A_TIME", 4 * chunk)
    source, output = write_four(tmp_path / "scan.las", **options), tmp_path / "part.las"
    chosen = np.array([False, True, True, True, False, True])
    write_points_with_packets(source, chosen, output)
    whole, found = laspy.read(source), laspy.read(output)
    assert fields(found.points) == fields(whole.points[chosen])
    content = output.with_suffix(".wdp").read_bytes()
    assert content[_HEADER:] == bytes([1, 51, 9, 9, 2, 52, 9, 9])
    assert int.from_bytes(content[20:28], "little") == 8
    offsets = np.asarray(found.points["wavepacket_offset"]).tolist()
    assert offsets[:2] + offsets[3:] == [_HEADER + 4, _HEADER, _HEADER]
    assert found.header.global_encoding.waveform_data_packets_external
    assert not found.header.global_encoding.waveform_data_packets_internal
    assert samples(output) == [[2, 52, 9, 9], [1, 51, 9, 9]]


def test_compressed_points_are_written_without_compression(tmp_path: Path) -> None:
    source = compressed(write_four(tmp_path / "scan.las"), tmp_path / "scan2.laz")
    output = tmp_path / "part.las"
    write_points_with_packets(source, np.array([True]), output)
    assert not laspy.read(output).header.are_points_compressed
    assert samples(output) == [[0, 50, 9, 9]]


def test_no_echoes_are_a_file_without_packets(tmp_path: Path) -> None:
    output = tmp_path / "part.las"
    write_points_with_packets(write_four(tmp_path / "scan.las"), np.zeros(6, np.bool_), output)
    assert laspy.read(output).header.point_count == 0
    assert output.with_suffix(".wdp").stat().st_size == _HEADER


@pytest.mark.parametrize("rows_wanted", [6, 7])
def test_damaged_files_are_reported(rows_wanted: int, tmp_path: Path) -> None:
    """Packets that are cut off, and a file with fewer points than the index."""
    source, output = write_four(tmp_path / "scan.las"), tmp_path / "part.las"
    packets = source.with_suffix(".wdp")
    message = "found 6 of 7 rows; the file was changed"
    if rows_wanted == 6:
        os.truncate(packets, _HEADER + 14)
        message = (
            r"scan\.wdp: truncated: a chosen point has its waveform at bytes 72 to 76, the packet "
            "record has 74 bytes"
        )
    with pytest.raises(WaveformFileError, match=message):
        write_points_with_packets(source, np.ones(rows_wanted, np.bool_), output)
    assert sorted(path.name for path in tmp_path.iterdir()) == ["scan.las", "scan.wdp"]
