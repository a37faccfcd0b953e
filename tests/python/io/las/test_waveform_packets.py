"""Descriptors of waveforms, and samples read from packets."""

from __future__ import annotations

import struct
from pathlib import Path

import laspy
import numpy as np
import pytest
from laspy.vlrs.vlrlist import VLRList

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.descriptors import (
    DescriptorTable,
    WaveformDescriptor,
    check_supported,
    read_descriptors,
)
from fullwaveform.io.las.waveform_packets import PacketData, find_companion

PATH = Path("strip.las")


def descriptor_record(record_id: int, *values: float) -> laspy.VLR:
    return laspy.VLR("LASF_Spec", record_id, "", struct.pack("<BBIIdd", *values))


def descriptor(index: int, bits: int, count: int, spacing_ps: int = 1000) -> WaveformDescriptor:
    return WaveformDescriptor(index, bits, 0, count, spacing_ps, 1.0, 0.0)


def packet_file(tmp_path: Path, content: bytes, before: int = 0) -> PacketData:
    path = tmp_path / "a.wdp"
    path.write_bytes(b"\xee" * before + b"\xff" * 60 + content + b"\xee" * 7)
    return PacketData(path, before, before + 60 + len(content))


def test_descriptors_from_ordinary_and_extended_records() -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    header.vlrs.append(descriptor_record(100, 8, 0, 256, 2000, 0.5, -1.5))
    header.vlrs.append(descriptor_record(355, 8, 0, 1, 1, 0.0, 0.0))
    header.vlrs.append(laspy.VLR("another", 101, "", b""))
    header.evlrs = VLRList([descriptor_record(354, 16, 1, 0, 0, 2.0, 3.0)])
    assert read_descriptors(header, PATH) == {
        1: WaveformDescriptor(1, 8, 0, 256, 2000, 0.5, -1.5),
        255: WaveformDescriptor(255, 16, 1, 0, 0, 2.0, 3.0),
    }


def test_contradicting_records_of_a_descriptor_are_refused() -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    nan = float("nan")
    header.vlrs.extend([descriptor_record(100, 8, 0, 4, 1000, nan, 0.0)] * 2)
    assert list(read_descriptors(header, PATH)) == [1]
    header.vlrs.append(descriptor_record(100, 8, 0, 5, 1000, nan, 0.0))
    with pytest.raises(WaveformFileError, match="two different records"):
        read_descriptors(header, PATH)


def test_short_descriptor_record_is_refused() -> None:
    header = laspy.LasHeader(version="1.4", point_format=9)
    header.vlrs.append(laspy.VLR("LASF_Spec", 102, "", bytes(25)))
    with pytest.raises(WaveformFileError, match=r"strip\.las.*descriptor 3 has 25 bytes"):
        read_descriptors(header, PATH)


def test_longest_and_shortest_packets_are_supported() -> None:
    for bits in (8, 16):
        for count in (1, 65535):
            check_supported(descriptor(7, bits, count), PATH)


def test_samples_of_packets_of_both_depths(tmp_path: Path) -> None:
    table = DescriptorTable([descriptor(1, 8, 2), descriptor(3, 16, 3, 500)])
    content = bytes([10, 11]) + struct.pack("<HHH", 256, 65535, 7) + bytes([12, 255])
    data = packet_file(tmp_path, content, before=5)
    offsets = np.array([66, 62, 60, 62])
    indices = np.array([1, 3, 1, 3], dtype=np.uint8)
    # 16-bit packets can have odd offsets, with 8-bit packets between them.
    samples, counts = data.read(offsets, indices, table)
    assert samples.tolist() == [[7, 0, 0], [256, 65535, 7], [10, 11, 0], [256, 65535, 7]]
    assert samples.dtype == np.uint16
    assert counts.tolist() == [2, 3, 2, 3]
    assert data.read(np.array([67]), indices[:1], table)[0].tolist() == [[0, 12]]
    data.close()
    assert data.read(offsets[:0], indices[:0], table)[0].shape == (0, 0)


def test_only_the_last_ending_is_replaced(tmp_path: Path) -> None:
    assert find_companion(tmp_path / "a.b.las") is None
    (tmp_path / "a.wdp").touch()
    assert find_companion(tmp_path / "a.b.las") is None
    (tmp_path / "a.b.wdp").touch()
    assert find_companion(tmp_path / "a.b.las") == tmp_path / "a.b.wdp"
