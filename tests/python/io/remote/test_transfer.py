"""How many bytes of a large file are transferred."""

from __future__ import annotations

import json
from pathlib import Path

import laspy
import numpy as np

from ...support.command_line import run
from ...support.las_scenes import RECORD_HEADER, Scene
from ...support.web_server import ServedFile, WebServer

SHOTS = 3_200_000
SAMPLES = 256
PULSE = (10 + 90 * np.exp(-0.5 * ((np.arange(SAMPLES) - 100) / 3) ** 2)).astype(np.uint8)


def test_info_of_a_gigabyte_transfers_less_than_ten_megabytes(
    server: WebServer, tmp_path: Path
) -> None:
    server.files["large.las"] = large_scan(tmp_path)
    assert server.files["large.las"].size > 1e9
    result = run("info", server.url("large.las"), "--json")
    assert result.exit_code == 0, result.output
    contents = json.loads(result.stdout)
    assert contents["sampled"]
    assert contents["points"] == SHOTS
    assert contents["waveforms"] == 4096
    assert contents["largest_value"] == 100
    assert (contents["first_time"], contents["last_time"]) == (0.0, SHOTS - 1.0)
    assert server.sent < 10e6


def large_scan(folder: Path) -> ServedFile:
    """A LAS file of a waveform per point, of which only the parts that are asked for are made."""
    empty = Scene([(1, 8, SAMPLES, 1000)], [], []).write(folder / "empty.las")
    with laspy.open(empty) as reader:
        header = reader.header
    header.global_encoding.waveform_data_packets_internal = True
    header.global_encoding.waveform_data_packets_external = False
    points = header.point_format.dtype()
    start = empty.stat().st_size
    packets = start + SHOTS * points.itemsize
    head = bytearray(empty.read_bytes())
    head[6] = 0b10  # packets are in the file
    head[107:111] = SHOTS.to_bytes(4, "little")
    head[227:235] = packets.to_bytes(8, "little")
    record = bytearray(RECORD_HEADER)
    record[20:28] = (SHOTS * SAMPLES).to_bytes(8, "little")

    def rows(first: int, stop: int) -> bytes:
        found = np.zeros(stop - first, points)
        found["gps_time"] = numbers = np.arange(first, stop)
        found["wavepacket_index"], found["wavepacket_size"] = 1, SAMPLES
        found["wavepacket_offset"] = 60 + SAMPLES * numbers
        return found.tobytes()

    def part(begin: int, end: int) -> bytes:
        pieces = (
            (0, start, lambda one, other: bytes(head[one:other])),
            (start, packets, lambda one, other: of_rows(one, other, points.itemsize, rows)),
            (packets, packets + 60, lambda one, other: bytes(record[one:other])),
            (packets + 60, size, lambda one, other: of_rows(one, other, SAMPLES, waves)),
        )
        return b"".join(
            make(max(begin, low) - low, min(end, high) - low)
            for low, high, make in pieces
            if begin < high and end > low
        )

    size = packets + 60 + SHOTS * SAMPLES
    return ServedFile(size, part)


def waves(first: int, stop: int) -> bytes:
    return PULSE.tobytes() * (stop - first)


def of_rows(begin: int, end: int, width: int, rows: object) -> bytes:
    """The bytes of rows of equal width."""
    first = begin // width
    made = rows(first, -(-end // width))  # type: ignore[operator]
    return made[begin - first * width : end - first * width]
