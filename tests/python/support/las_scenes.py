"""Small LAS files with waveforms: points written by laspy, packets byte by byte."""

from __future__ import annotations

import os
import struct
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

import laspy
import numpy as np
from laspy.vlrs.known import WaveformPacketStruct, WaveformPacketVlr

from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.io.las.reader import LasWaveformReader

RECORD_HEADER = struct.pack("<H16sHQ32s", 0, b"LASF_Spec", 65535, 0, b"packets")
FOUR = [(1, [1, 2, 3, 4]), (1, [5, 6, 7, 8]), (1, [9, 10, 11, 12]), (1, [13, 14, 15, 16])]
START_OF_PACKETS = 227  # byte of the header, LAS 1.3 and 1.4
START_OF_RECORDS = 235  # byte of the header, LAS 1.4; the number of records follows


@dataclass
class Point:
    """A point of a scene; `packet` is the running number of its packet, or None."""

    packet: int | None
    gps_time: float = 1.0
    xyz: tuple[float, float, float] = (10.0, 20.0, 30.0)
    location: float = 0.0  # ps
    direction: tuple[float, float, float] = (0.0, 0.0, 0.00015)
    fields: dict[str, float] = field(default_factory=dict)


@dataclass
class Scene:
    """Content of a file: descriptors as (index, bits, samples, spacing in ps), packets, points."""

    descriptors: Sequence[tuple[int, int, int, int]]
    packets: Sequence[tuple[int, Sequence[int]]]  # descriptor index, samples
    points: Sequence[Point]
    point_format: int = 4
    version: str = "1.3"
    compression: int = 0
    inside: bool = False
    extended_descriptors: bool = False  # as extended records, LAS 1.4
    gains: dict[int, float] = field(default_factory=dict)  # V per count by descriptor, else 0.5

    def bits_of(self, index: int) -> int:
        return next((bits for i, bits, _, _ in self.descriptors if i == index), 8)

    def packet_bytes(self) -> list[bytes]:
        return [
            struct.pack(f"<{len(samples)}{'B' if self.bits_of(index) == 8 else 'H'}", *samples)
            for index, samples in self.packets
        ]

    def write(self, path: Path) -> Path:
        """Writes the file and its packets; returns `path`."""
        _write_points(self, path)
        record = bytearray(RECORD_HEADER + b"".join(self.packet_bytes()))
        struct.pack_into("<Q", record, 20, len(record) - 60)
        if self.inside:
            _append_record(path, bytes(record))
        else:
            path.with_suffix(".wdp").write_bytes(bytes(record))
        return path


def read(path: Path, **options: object) -> tuple[list[WaveformBlock], ReadTally]:
    """All blocks of a file and its tally."""
    with LasWaveformReader(path, **options) as reader:  # type: ignore[arg-type]
        return list(reader.blocks()), reader.tally


def rows(blocks: list[WaveformBlock]) -> list[list[int]]:
    """The samples of all waveforms, without the padding."""
    return [
        row[:count].tolist()
        for block in blocks
        for row, count in zip(block.samples, block.counts, strict=True)
    ]


def four_shots(**options: object) -> Scene:
    """Four shots of one packet each, one second between shots."""
    points = [Point(number, gps_time=100.0 + number) for number in range(4)]
    return Scene([(1, 8, 4, 1000)], FOUR, points, **options)  # type: ignore[arg-type]


def patch(path: Path, position: int, layout: str, *values: float) -> None:
    """Overwrites a few bytes of a file."""
    with path.open("r+b") as stream:
        stream.seek(position)
        stream.write(struct.pack(layout, *values))


def shuffled(path: Path, target: Path, order: Sequence[int]) -> Path:
    """The same file with its points in another order, with its packets in a companion file."""
    with laspy.open(path) as reader:
        points = reader.read_points(-1)
        start, size = reader.header.offset_to_point_data, points.array.dtype.itemsize
    content = bytearray(path.read_bytes())
    content[start : start + len(order) * size] = points.array[np.asarray(order)].tobytes()
    target.write_bytes(content)
    if path.with_suffix(".wdp").exists():
        target.with_suffix(".wdp").write_bytes(path.with_suffix(".wdp").read_bytes())
    return target


def compressed(path: Path, target: Path) -> Path:
    """The same file with compressed points, with its packets in a companion file."""
    laspy.read(path).write(target, do_compress=True)
    if path.with_suffix(".wdp").exists() and path.stem != target.stem:
        target.with_suffix(".wdp").write_bytes(path.with_suffix(".wdp").read_bytes())
    return target


def data_folder() -> Path:
    """Folder with files of real scanners, if it exists."""
    default = Path(__file__).resolve().parents[3] / ".." / "shared" / "data"
    return Path(os.environ.get("FULLWAVEFORM_DATA", default))


def _descriptor_record(scene: Scene, index: int, bits: int, samples: int, ps: int) -> laspy.VLR:
    record = WaveformPacketVlr(99 + index)
    gain = scene.gains.get(index, 0.5)
    record.parsed_record = WaveformPacketStruct(bits, scene.compression, samples, ps, gain, -1.0)
    return record


def _write_points(scene: Scene, path: Path) -> None:
    header = laspy.LasHeader(version=scene.version, point_format=scene.point_format)
    header.scales, header.offsets = np.full(3, 0.001), np.zeros(3)
    header.global_encoding.waveform_data_packets_internal = scene.inside
    header.global_encoding.waveform_data_packets_external = not scene.inside
    records = [_descriptor_record(scene, *values) for values in scene.descriptors]
    if not scene.extended_descriptors:
        header.vlrs.extend(records)
    record = laspy.ScaleAwarePointRecord.zeros(len(scene.points), header=header)
    _fill(record, scene)
    with laspy.open(path, mode="w", header=header) as writer:
        writer.write_points(record)
        if scene.extended_descriptors:
            writer.write_evlrs(laspy.vlrs.vlrlist.VLRList(records))


def _fill(record: laspy.ScaleAwarePointRecord, scene: Scene) -> None:
    sizes = [len(data) for data in scene.packet_bytes()]
    starts = np.concatenate([[60], 60 + np.cumsum(sizes)]).astype(int)
    for row, point in enumerate(scene.points):
        item = record.array[row]
        item["gps_time"], item["return_point_wave_location"] = point.gps_time, point.location
        item["X"], item["Y"], item["Z"] = (round(value / 0.001) for value in point.xyz)
        item["x_t"], item["y_t"], item["z_t"] = point.direction
        if point.packet is not None:
            item["wavepacket_index"] = scene.packets[point.packet][0]
            item["wavepacket_offset"] = starts[point.packet]
            item["wavepacket_size"] = sizes[point.packet]
    for name in sorted({name for point in scene.points for name in point.fields}):
        values = [point.fields.get(name, 0) for point in scene.points]
        record[name] = np.asarray(values).astype(np.asarray(record[name]).dtype)


def _append_record(path: Path, record: bytes) -> None:
    start = path.stat().st_size
    with path.open("ab") as stream:
        stream.write(record)
    patch(path, START_OF_PACKETS, "<Q", start)
    with laspy.open(path, read_evlrs=False) as reader:
        minor, extended = reader.header.version.minor, reader.header.number_of_evlrs
    if minor >= 4:
        first = path.read_bytes()[START_OF_RECORDS : START_OF_RECORDS + 8]
        start = struct.unpack("<Q", first)[0] if extended else start
        patch(path, START_OF_RECORDS, "<QI", start, extended + 1)
