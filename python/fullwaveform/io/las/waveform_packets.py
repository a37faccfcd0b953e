"""Waveform packets of LAS files: where they are, and the samples in them.

A packet is a run of raw samples. All packets are in one record, in the LAS file or in a companion
file; points refer to them by their offset in it.
"""

from __future__ import annotations

import struct
from collections.abc import Mapping
from pathlib import Path
from typing import BinaryIO

import laspy
import numpy as np

from fullwaveform.data.arrays import IntArray, UInt8Array, UInt16Array
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.las.descriptors import DescriptorTable

PACKET_RECORD_ID = 65535
RECORD_HEADER_SIZE = 60  # bytes; packet offsets count from the start of this header

_RECORD_HEADER = struct.Struct("<2x16sHQ32x")


class PacketData:
    """The packet record, bytes `start` to `end` of `path` with its header; must be closed."""

    def __init__(self, path: Path, start: int, end: int) -> None:
        self.path = path
        self.size = end - start
        self._bytes = FileBytes(path, start, end)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    def part(self, begin: int, end: int) -> UInt8Array:
        """The bytes `begin` to `end` of the record, inside it."""
        return self._bytes.part(begin, end)

    def read(
        self, offsets: IntArray, indices: UInt8Array, table: DescriptorTable
    ) -> tuple[UInt16Array, UInt16Array]:
        """Read the samples of packets.

        Parameters
        ----------
        offsets
            (n,), bytes from the start of the record; the packets are inside it.
        indices
            (n,), descriptor of each packet.
        table
            The descriptors.

        Returns
        -------
        Samples (n, longest packet), zero after the end of shorter packets, and the number of
        samples of each (n,).
        """
        counts = table.sample_counts[indices].astype(np.uint16)
        used = np.flatnonzero(np.bincount(indices, minlength=len(table.sample_counts)))
        kinds = {(int(table.sample_counts[i]), int(table.packet_sizes[i])) for i in used}
        if len(kinds) == 1:
            ((count, size),) = kinds
            return _as_counts(self._bytes.rows(offsets, size), count), counts
        samples = np.zeros((len(offsets), int(counts.max(initial=0))), dtype=np.uint16)
        for count, size in kinds:
            rows = np.flatnonzero((counts == count) & (table.packet_sizes[indices] == size))
            samples[rows, :count] = _as_counts(self._bytes.rows(offsets[rows], size), count)
        return samples, counts


def _as_counts(raw: UInt8Array, count: int) -> UInt16Array:
    """Samples (n, count) from the bytes of packets."""
    is_byte_wise = raw.shape[1] == count
    samples: UInt16Array = raw.astype(np.uint16) if is_byte_wise else raw.view("<u2")
    return samples


def open_packets(
    header: laspy.LasHeader, path: Path, record_starts: Mapping[int, int]
) -> tuple[PacketData, list[str]]:
    """Find and open the packet record of a LAS file.

    Parameters
    ----------
    header, path
        The file and its header.
    record_starts
        Start of each extended record in the file, by record id.

    Returns
    -------
    The record, and notes where it is not as the header says.

    Raises
    ------
    FileNotFoundError
        If the file of packets is missing.
    WaveformFileError
        If the header does not say where the packets are, or no packet record is there.
    """
    inside = header.global_encoding.waveform_data_packets_internal
    outside = header.global_encoding.waveform_data_packets_external
    start = header.start_of_waveform_data_packet_record or record_starts.get(PACKET_RECORD_ID, 0)
    companion = find_companion(path)
    if inside and outside:
        inside, outside = start > 0, companion is not None
        if inside == outside:
            raise WaveformFileError(
                f"{path}: the header declares waveform packets in the file and in a .wdp file; "
                "must be one of them"
            )
        found = "the LAS file" if inside else "the .wdp file"
        notes = [f"The header declares waveform packets in two files; found in {found}."]
    elif inside or outside:
        notes = []
    elif companion is not None:
        notes = [f"The header does not say where the waveform packets are; using {companion.name}."]
    else:
        raise WaveformFileError(
            f"{path}: no waveform packets: the header declares none in the file, and "
            f"{path.with_suffix('.wdp').name} does not exist"
        )
    if inside:
        return _open_inside(path, start), notes
    return _open_companion(path, companion, notes)


def find_companion(path: Path) -> Path | None:
    """The packet file of a LAS file: same name, ending .wdp or .WDP; None if there is none."""
    candidates = (path.with_suffix(".wdp"), path.with_suffix(".WDP"))
    return next((candidate for candidate in candidates if candidate.is_file()), None)


def _open_inside(path: Path, start: int) -> PacketData:
    size = path.stat().st_size
    if start == 0:
        raise WaveformFileError(
            f"{path}: the header does not say where the waveform packet record starts"
        )
    if start + RECORD_HEADER_SIZE > size:
        raise WaveformFileError(
            f"{path}: truncated: waveform packet record starts at byte {start}, file has "
            f"{size} bytes"
        )
    with path.open("rb") as stream:
        stream.seek(start)
        user, record_id, length = read_record_header(stream)
    if (user, record_id) != (b"LASF_Spec", PACKET_RECORD_ID):
        raise WaveformFileError(
            f"{path}: expected the waveform packet record at byte {start}; found "
            f"record {record_id} of {user!r}"
        )
    return PacketData(path, start, min(size, start + RECORD_HEADER_SIZE + length))


def _open_companion(
    path: Path, companion: Path | None, notes: list[str]
) -> tuple[PacketData, list[str]]:
    if companion is None:
        raise FileNotFoundError(
            f"{path.with_suffix('.wdp')} does not exist; it must hold the waveform packets of "
            f"{path.name}"
        )
    size = companion.stat().st_size
    if size < RECORD_HEADER_SIZE:
        raise WaveformFileError(
            f"{companion}: truncated: {size} bytes, the header has {RECORD_HEADER_SIZE}"
        )
    with companion.open("rb") as stream:
        user, record_id, _ = read_record_header(stream)
    if (user, record_id) != (b"LASF_Spec", PACKET_RECORD_ID):
        notes = [*notes, f"{companion.name} does not start with the header of a packet record."]
    # Recorders that stop early do not set the length in the header, so the file size counts.
    return PacketData(companion, 0, size), notes


def read_record_header(stream: BinaryIO) -> tuple[bytes, int, int]:
    """User, record id and length in bytes from the header of an extended record.

    Raises
    ------
    struct.error
        If the stream ends inside the header.
    """
    user, record_id, length = _RECORD_HEADER.unpack(stream.read(RECORD_HEADER_SIZE))
    return user.split(b"\0")[0], record_id, length
