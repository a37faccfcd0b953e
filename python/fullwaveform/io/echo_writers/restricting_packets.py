"""A LAS file with waveforms with some of the points of another one, and their packets."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import closing
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray, IntArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.atomic import ANY_FILE, OutputFile, atomic_open
from fullwaveform.io.echo_writers.packets import packet_record_header, packets_path
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.io.las.descriptors import read_descriptors
from fullwaveform.io.las.points import open_las
from fullwaveform.io.las.waveform_packets import RECORD_HEADER_SIZE, PacketData, open_packets

_POINTS_AT_A_TIME = 2**16
_BYTES_AT_A_TIME = 1 << 24  # of packets


def write_points_with_packets(source: Path, rows: BoolArray, output: Path) -> None:
    """Write the chosen points of a LAS file with waveforms, and their packets next to them.

    The packets of the output, which is not compressed, are in a ``.wdp`` file, each once and as it
    was; all else that the points and the header say is kept. Points beyond the end of `rows` are
    not chosen.

    Raises
    ------
    OSError
        The source cannot be read or the output not written.
    WaveformFileError
        The source has fewer points, is damaged, or packets lie outside of its packet record.
    """
    with (
        atomic_open(packets_path(output), ANY_FILE) as packet_stream,
        atomic_open(output, ANY_FILE) as stream,
    ):
        offsets = _copy_packets(source, rows, packet_stream)
        packet_stream.check()
        _write_points(source, rows, offsets, stream)


def _chosen(source: Path, reader: laspy.LasReader, rows: BoolArray) -> Iterator[AnyArray]:
    """The chosen points, part by part."""
    first = written = 0
    for points in reader.chunk_iterator(_POINTS_AT_A_TIME):
        raise_if_requested()
        part = points[: max(len(rows) - first, 0)]
        part = part[rows[first : first + len(part)]]
        first += len(points)
        written += len(part)
        yield part
    if written != (expected := int(np.count_nonzero(rows))):
        raise WaveformFileError(
            f"{source}: found {written:,} of {expected:,} rows; "
            "the file was changed in the meantime"
        )


class _MovedPackets:
    """Where packets were, ascending (n,), and are now."""

    def __init__(self, former: IntArray, sizes: IntArray) -> None:
        self._former = former
        self._now = RECORD_HEADER_SIZE + np.cumsum(sizes) - sizes

    def of(self, offsets: AnyArray) -> AnyArray:
        """New offset of each packet."""
        found = np.searchsorted(self._former, offsets.astype(np.int64))
        return self._now[found].astype(np.uint64)


def _copy_packets(source: Path, rows: BoolArray, stream: OutputFile) -> _MovedPackets:
    reader, starts = open_las(source)
    with reader:
        sizes_of = _packet_sizes(reader.header, source)
        packets, _ = open_packets(reader.header, source, starts)
        with closing(packets):
            offsets, sizes = [np.zeros(0, np.int64)], [np.zeros(0, np.int64)]
            for points in _chosen(source, reader, rows):
                index = np.asarray(points["wavepacket_index"])
                has_packet = index != 0
                stated = np.asarray(points["wavepacket_size"], np.int64)[has_packet]
                of_descriptor = sizes_of[index[has_packet]]
                offset, first = np.unique(
                    np.asarray(points["wavepacket_offset"])[has_packet], return_index=True
                )
                offsets.append(offset.astype(np.int64))
                sizes.append(np.where(of_descriptor > 0, of_descriptor, stated)[first])
            former, first = np.unique(np.concatenate(offsets), return_index=True)
            size = np.concatenate(sizes)[first]
            _check_inside(packets, former, size)
            stream.write(packet_record_header(int(size.sum())))
            for content in _contents(packets, former, size):
                raise_if_requested()
                stream.write(content)
                stream.check()
    return _MovedPackets(former, size)


def _packet_sizes(header: laspy.LasHeader, path: Path) -> IntArray:
    """Bytes of a packet of each descriptor (256,); 0 where only the point says it."""
    sizes = np.zeros(256, np.int64)
    for index, descriptor in read_descriptors(header, path).items():
        if descriptor.compression == 0:
            sizes[index] = descriptor.packet_size
    return sizes


def _check_inside(packets: PacketData, offsets: IntArray, sizes: IntArray) -> None:
    outside = np.flatnonzero((offsets < RECORD_HEADER_SIZE) | (offsets + sizes > packets.size))
    if len(outside):
        at = outside[0]
        raise WaveformFileError(
            f"{packets.path}: truncated: a chosen point has its waveform at bytes {offsets[at]} to "
            f"{offsets[at] + sizes[at]}, the packet record has {packets.size} bytes"
        )


def _contents(packets: PacketData, offsets: IntArray, sizes: IntArray) -> Iterator[bytes]:
    """The bytes of the packets, in parts of several."""
    ends = offsets + sizes
    first = 0
    while first < len(offsets):
        limit = offsets[first] + _BYTES_AT_A_TIME
        stop = max(int(np.searchsorted(offsets, limit)), first + 1)
        begin = int(offsets[first])
        content = packets.part(begin, int(ends[first:stop].max()))
        if (offsets[first + 1 : stop] == ends[first : stop - 1]).all():
            yield content.tobytes()
        else:
            places = zip(offsets[first:stop] - begin, ends[first:stop] - begin, strict=True)
            yield b"".join(content[start:end].tobytes() for start, end in places)
        first = stop


def _write_points(
    source: Path, rows: BoolArray, offsets: _MovedPackets, stream: OutputFile
) -> None:
    reader, _ = open_las(source)
    with reader:
        header = reader.header
        records = header.evlrs
        header.global_encoding.waveform_data_packets_internal = False
        header.global_encoding.waveform_data_packets_external = True
        header.start_of_waveform_data_packet_record = 0
        writer = laspy.open(stream, mode="w", header=header, do_compress=False, closefd=False)
        for points in _chosen(source, reader, rows):
            has_packet = np.asarray(points["wavepacket_index"]) != 0
            moved = np.asarray(points["wavepacket_offset"]).copy()
            moved[has_packet] = offsets.of(moved[has_packet])
            points["wavepacket_offset"] = moved
            if len(points):
                writer.write_points(points)
            stream.check()
        if records:
            writer.write_evlrs(records)
        writer.close()
