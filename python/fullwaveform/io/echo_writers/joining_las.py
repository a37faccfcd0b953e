"""One LAS file from parts, with the packets of their waveforms if they have them."""

from __future__ import annotations

import re
from collections.abc import Callable, Iterator, Sequence
from contextlib import closing
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.echo_writers.las_packets import insert_descriptors, reserve_descriptors
from fullwaveform.io.echo_writers.opening import echo_outputs
from fullwaveform.io.echo_writers.packets import (
    INPUT_DESCRIPTOR,
    PACKETS_KIND,
    Packets,
    PacketWriter,
    packets_path,
)
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.las.descriptors import (
    WaveformDescriptor,
    descriptor_index,
    is_descriptor,
    read_descriptors,
)

_POINTS_AT_A_TIME = 2**16
_BYTES_AT_A_TIME = 1 << 24  # of packets


def join_las(parts: Sequence[Path], output: Path, overwrite: bool) -> None:
    """Write the points of the parts to one file."""
    with (
        laspy.open(_with_points(parts).open("rb")) as first,
        atomic_open(output, echo_outputs(output)[output], overwrite=overwrite) as stream,
    ):
        _write_points(parts, first.header, first.evlrs, stream, _points)


def join_las_with_packets(parts: Sequence[Path], output: Path, overwrite: bool) -> int:
    """Write the points of the parts to one file, and their packets to its ``.wdp`` file.

    Packets are copied as they are, unless the waveforms are of so many kinds that more of them are
    padded than in the parts. In memory are, of one part at a time, the places of its packets.

    Returns
    -------
    Number of waveforms that are padded in the result and not in their part.
    """
    with (
        laspy.open(_with_points(parts).open("rb")) as first,
        atomic_open(output, echo_outputs(output, True)[output], overwrite=overwrite) as stream,
        atomic_open(packets_path(output), PACKETS_KIND, overwrite=overwrite) as packet_stream,
    ):
        header = first.header
        for record in list(filter(is_descriptor, header.vlrs)):
            header.vlrs.remove(record)
        reserve_descriptors(header)
        originals: dict[int, WaveformDescriptor] = {}
        packets = PacketWriter(packet_stream, originals)

        def moved(part: Path) -> Iterator[laspy.ScaleAwarePointRecord]:
            return _points_of_moved_packets(part, packets, originals)

        _write_points(parts, header, first.evlrs, stream, moved)
        insert_descriptors(stream, packets.records())
        packets.finish()
        packet_stream.check()
        stream.check()  # no packets without their points
    return packets.padded


def _write_points(
    parts: Sequence[Path],
    header: laspy.LasHeader,
    after: laspy.vlrs.vlrlist.VLRList | None,
    stream: OutputFile,
    points_of: Callable[[Path], Iterator[laspy.ScaleAwarePointRecord]],
) -> None:
    is_compressed = parts[0].suffix.lower() == ".laz"
    writer = laspy.open(stream, mode="w", header=header, do_compress=is_compressed, closefd=False)
    for part in parts:
        # Where the input has no offsets, those of each part are near its own echoes; the writer
        # takes that into account.
        for points in points_of(part):
            writer.write_points(points)
        stream.check()
    if after:
        writer.write_evlrs(after)
    writer.close()


def _points(part: Path) -> Iterator[laspy.ScaleAwarePointRecord]:
    with laspy.open(part.open("rb")) as file:
        yield from file.chunk_iterator(_POINTS_AT_A_TIME)


def _points_of_moved_packets(
    part: Path, packets: PacketWriter, originals: dict[int, WaveformDescriptor]
) -> Iterator[laspy.ScaleAwarePointRecord]:
    """Append the packets of a part, and yield its points with their new places."""
    with laspy.open(part.open("rb")) as file:
        kinds = _kinds_of_packets(file.header, part, originals)
    offsets, index = _places(part)
    new = _copied(part, offsets, kinds[index], packets)
    for points in _points(part):
        which = np.searchsorted(offsets, points["wavepacket_offset"].astype(np.int64))
        points["wavepacket_index"] = new.index[which]
        points["wavepacket_offset"] = new.offset[which].astype(np.uint64)
        points["wavepacket_size"] = new.size[which].astype(np.uint32)
        yield points


def _places(part: Path) -> tuple[IntArray, IntArray]:
    """Offset and descriptor of each packet of a part, in their order."""
    offsets, indices = [np.zeros(0, np.int64)], [np.zeros(0, np.int64)]
    for points in _points(part):
        offset, first = np.unique(points["wavepacket_offset"], return_index=True)
        offsets.append(offset.astype(np.int64))
        indices.append(np.asarray(points["wavepacket_index"], np.int64)[first])
    found, first = np.unique(np.concatenate(offsets), return_index=True)
    return found, np.concatenate(indices)[first]


def _kinds_of_packets(
    header: laspy.LasHeader, part: Path, originals: dict[int, WaveformDescriptor]
) -> IntArray:
    """Bits, samples, spacing and descriptor of the input of packets, by descriptor (256, 4)."""
    kinds = np.zeros((256, 4), dtype=np.int64)
    descriptors = read_descriptors(header, part)
    for record in filter(is_descriptor, header.vlrs):
        found = re.fullmatch(INPUT_DESCRIPTOR.format("([0-9]+)"), record.description)
        if found is None:
            raise ValueError(
                f"{part}: a waveform descriptor does not say from which one of the input it comes; "
                "compute the parts again with fullwaveform run --again"
            )
        index = descriptor_index(record)
        descriptor, original = descriptors[index], int(found[1])
        kinds[index] = (
            descriptor.bits_per_sample,
            descriptor.sample_count,
            descriptor.spacing_ps,
            original,
        )
        originals.setdefault(original, descriptor)
    return kinds


def _copied(part: Path, offsets: IntArray, kinds: IntArray, packets: PacketWriter) -> Packets:
    ends = offsets + kinds[:, 0] * kinds[:, 1] // 8
    found = []
    with closing(FileBytes(packets_path(part))) as content:
        first = 0
        while first < len(offsets):
            limit = offsets[first] + _BYTES_AT_A_TIME
            stop = max(int(np.searchsorted(ends, limit, side="right")), first + 1)
            read = content.part(int(offsets[first]), int(ends[stop - 1]))
            found.append(packets.copy(kinds[first:stop], read))
            first = stop
    return Packets.joined(found)


def _with_points(parts: Sequence[Path]) -> Path:
    """The first part with points, whose offsets a single file would have."""
    for part in parts:
        with laspy.open(part.open("rb")) as file:
            if file.header.point_count > 0:
                return part
    return parts[0]
