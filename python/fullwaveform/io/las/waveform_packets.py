"""Waveform packets of LAS files: their descriptors, where they lie, and the samples in them.

A packet is a run of raw samples; a descriptor says how many, of which depth and interval. The
packets lie in one record, in the LAS file or beside it; points name them by their offset in it.
"""

from __future__ import annotations

import struct
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import BinaryIO

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes

PACKET_RECORD_ID = 65535
RECORD_HEADER_SIZE = 60  # bytes; packet offsets count from the start of this header
MAX_SAMPLES = 65535  # more would not fit the sample counts of a block

_FIRST_DESCRIPTOR_ID = 100  # of descriptor 1
_LAST_DESCRIPTOR_ID = 354  # of descriptor 255
_DESCRIPTOR = struct.Struct("<BBIIdd")
_RECORD_HEADER = struct.Struct("<2x16sHQ32x")


@dataclass(frozen=True, slots=True)
class WaveformDescriptor:
    """How the samples of a packet are stored. A point names it by `index`, 1 to 255."""

    index: int
    bits_per_sample: int
    compression: int  # 0 = none
    sample_count: int
    spacing_ps: int  # between samples
    gain: float  # V per count
    offset: float  # V

    @property
    def packet_size(self) -> int:
        """Bytes of one packet."""
        return self.sample_count * self.bits_per_sample // 8


def read_descriptors(header: laspy.LasHeader, path: Path) -> dict[int, WaveformDescriptor]:
    """Read the descriptors of a LAS header by index, from ordinary and extended records.

    Descriptors that cannot be used are listed too: files declare some that no point names.

    Raises
    ------
    WaveformFileError
        If a record is too short or if two records contradict each other.
    """
    descriptors: dict[int, WaveformDescriptor] = {}
    for record in [*header.vlrs, *(header.evlrs or [])]:
        if record.user_id != "LASF_Spec":
            continue
        if not _FIRST_DESCRIPTOR_ID <= record.record_id <= _LAST_DESCRIPTOR_ID:
            continue
        index = record.record_id - _FIRST_DESCRIPTOR_ID + 1
        data = record.record_data_bytes()
        if len(data) < _DESCRIPTOR.size:
            raise WaveformFileError(
                f"{path}: the record of waveform descriptor {index} has {len(data)} bytes, "
                f"{_DESCRIPTOR.size} are needed"
            )
        descriptor = WaveformDescriptor(index, *_DESCRIPTOR.unpack_from(data))
        # repr, because a gain that is not a number differs even from itself.
        if repr(descriptors.setdefault(index, descriptor)) != repr(descriptor):
            raise WaveformFileError(f"{path}: two records contradict each other on {descriptor}")
    return descriptors


def check_usable(descriptor: WaveformDescriptor, path: Path) -> None:
    """Raise WaveformFileError unless packets of this descriptor can be read."""
    name = f"{path}: waveform descriptor {descriptor.index}"
    if descriptor.compression != 0:
        raise WaveformFileError(
            f"{name} has compression type {descriptor.compression}; only type 0, none, can be read"
        )
    if descriptor.bits_per_sample not in (8, 16):
        raise WaveformFileError(
            f"{name} has {descriptor.bits_per_sample} bits per sample; 8 and 16 can be read"
        )
    if not 1 <= descriptor.sample_count <= MAX_SAMPLES:
        raise WaveformFileError(
            f"{name} has {descriptor.sample_count} samples; 1 to {MAX_SAMPLES} can be read"
        )
    if descriptor.spacing_ps == 0:
        raise WaveformFileError(f"{name} has a sample spacing of 0 ps; it must be positive")


class DescriptorTable:
    """The usable descriptors as columns that are indexed by descriptor index."""

    def __init__(self, descriptors: Iterable[WaveformDescriptor]) -> None:
        self.sample_counts = np.zeros(256, dtype=np.int64)
        self.packet_sizes = np.zeros(256, dtype=np.int64)  # bytes
        self.intervals = np.zeros(256)  # s per sample
        for descriptor in descriptors:
            self.sample_counts[descriptor.index] = descriptor.sample_count
            self.packet_sizes[descriptor.index] = descriptor.packet_size
            # Divided, not multiplied by 1e-12: 2000 ps become the double nearest to 2e-9 s.
            self.intervals[descriptor.index] = descriptor.spacing_ps / 1e12

    @property
    def smallest_packet(self) -> int:
        """Bytes of the smallest packet; 1 if there is no descriptor."""
        return int(min(self.packet_sizes[self.packet_sizes > 0], default=1))


class PacketData:
    """The bytes of the packet record, never loaded as a whole; to be closed.

    They are the bytes `start` to `end` of `path`, the record's header included.
    """

    def __init__(self, path: Path, start: int, end: int) -> None:
        self.path = path
        self.size = end - start
        self._bytes = FileBytes(path, start, end)

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    def holds(self, offsets: npt.NDArray[np.uint64], sizes: IntArray) -> npt.NDArray[np.bool_]:
        """Tell whether packets (n,) lie behind the record's header and wholly inside the record."""
        last_start = self.size - sizes
        possible = last_start >= RECORD_HEADER_SIZE
        limit = np.where(possible, last_start, 0).astype(np.uint64)
        inside: npt.NDArray[np.bool_] = (
            possible & (offsets >= np.uint64(RECORD_HEADER_SIZE)) & (offsets <= limit)
        )
        return inside

    def gather(
        self, offsets: IntArray, indices: npt.NDArray[np.uint8], table: DescriptorTable
    ) -> tuple[npt.NDArray[np.uint16], npt.NDArray[np.uint16]]:
        """Gather the samples of packets.

        Parameters
        ----------
        offsets
            (n,), bytes from the start of the record; the packets lie inside it.
        indices
            (n,), descriptor of each packet.
        table
            The descriptors.

        Returns
        -------
        Samples (n, longest packet), zero behind the end of shorter packets, and the number of
        samples of each (n,).
        """
        counts = table.sample_counts[indices].astype(np.uint16)
        samples = np.zeros((len(offsets), int(counts.max(initial=0))), dtype=np.uint16)
        for index in np.unique(indices):
            rows = np.flatnonzero(indices == index)
            count, size = int(table.sample_counts[index]), int(table.packet_sizes[index])
            raw = self._bytes.rows(offsets[rows], size)
            samples[rows, :count] = raw if size == count else raw.view("<u2")
        return samples, counts


class SeenPackets:
    """Remembers which packets were met, in one bit per possible packet.

    Packets do not overlap, so that two of them never start in the same cell of the width of the
    smallest packet.
    """

    def __init__(self, data_size: int, smallest_packet: int) -> None:
        self._cell = smallest_packet
        self._bits = np.zeros(data_size // smallest_packet // 8 + 1, dtype=np.uint8)

    def cells(self, offsets: IntArray) -> IntArray:
        """Give the cell of each packet (n,); offsets lie inside the data."""
        return offsets // self._cell

    def test_and_set(self, cells: IntArray) -> npt.NDArray[np.bool_]:
        """Tell whether each of the cells (n,), all different, was met before; now all are."""
        places, masks = cells >> 3, (np.uint8(1) << (cells & 7).astype(np.uint8)).astype(np.uint8)
        seen: npt.NDArray[np.bool_] = (self._bits[places] & masks) != 0
        np.bitwise_or.at(self._bits, places, masks)  # several cells may share a byte
        return seen


def open_packets(
    header: laspy.LasHeader, path: Path, record_starts: Mapping[int, int]
) -> tuple[PacketData, list[str]]:
    """Find and map the packet record of a LAS file.

    Parameters
    ----------
    header, path
        The file and its header.
    record_starts
        Start of each extended record in the file, by record id.

    Returns
    -------
    The record and remarks, one sentence each, where the header was not followed.

    Raises
    ------
    FileNotFoundError
        If the file of packets is missing.
    WaveformFileError
        If the header does not say where the packets are or if no packet record is there.
    """
    inside = header.global_encoding.waveform_data_packets_internal
    beside = header.global_encoding.waveform_data_packets_external
    start = header.start_of_waveform_data_packet_record or record_starts.get(PACKET_RECORD_ID, 0)
    companion = find_companion(path)
    if inside and beside:
        inside, beside = start > 0, companion is not None
        if inside == beside:
            raise WaveformFileError(
                f"{path}: the header says that the waveform packets lie in the file and beside it"
            )
        found = "in the file" if inside else "beside the file"
        notes = [f"The header names two places for the waveform packets; they were {found}."]
    elif inside or beside:
        notes = []
    elif companion is not None:
        notes = [f"The header does not say where the waveform packets are; {companion.name} it is."]
    else:
        raise WaveformFileError(
            f"{path}: the header says neither that the waveform packets lie in the file nor that "
            f"they lie beside it, and there is no {path.with_suffix('.wdp').name}"
        )
    if inside:
        return _open_inside(path, start), notes
    return _open_beside(path, companion, notes)


def find_companion(path: Path) -> Path | None:
    """Find the file of packets beside a LAS file: same name, ending .wdp or .WDP."""
    candidates = (path.with_suffix(".wdp"), path.with_suffix(".WDP"))
    return next((candidate for candidate in candidates if candidate.is_file()), None)


def _open_inside(path: Path, start: int) -> PacketData:
    size = path.stat().st_size
    if start == 0:
        raise WaveformFileError(f"{path}: the header does not say where the packet record starts")
    if start + RECORD_HEADER_SIZE > size:
        raise WaveformFileError(
            f"{path}: the waveform packet record should start at byte {start}, but the file has "
            f"{size} bytes"
        )
    with path.open("rb") as stream:
        stream.seek(start)
        user, record_id, length = read_record_header(stream)
    if (user, record_id) != (b"LASF_Spec", PACKET_RECORD_ID):
        raise WaveformFileError(
            f"{path}: byte {start} should start the waveform packet record, but holds a record "
            f"{record_id} of {user!r}"
        )
    return PacketData(path, start, min(size, start + RECORD_HEADER_SIZE + length))


def _open_beside(
    path: Path, companion: Path | None, notes: list[str]
) -> tuple[PacketData, list[str]]:
    if companion is None:
        raise FileNotFoundError(
            f"{path.with_suffix('.wdp')} does not exist; it should hold the waveform packets of "
            f"{path.name}"
        )
    size = companion.stat().st_size
    if size < RECORD_HEADER_SIZE:
        raise WaveformFileError(
            f"{companion} has {size} bytes; its header alone takes {RECORD_HEADER_SIZE}"
        )
    with companion.open("rb") as stream:
        user, record_id, _ = read_record_header(stream)
    if (user, record_id) != (b"LASF_Spec", PACKET_RECORD_ID):
        notes = [*notes, f"The header of {companion.name} is not that of a packet record."]
    # Recorders that stop early leave the length in the header unset: the file's own size holds.
    return PacketData(companion, 0, size), notes


def read_record_header(stream: BinaryIO) -> tuple[bytes, int, int]:
    """Read user, record id and length in bytes from the header of an extended record.

    Raises
    ------
    struct.error
        If the stream ends inside the header.
    """
    user, record_id, length = _RECORD_HEADER.unpack(stream.read(RECORD_HEADER_SIZE))
    return user.split(b"\0")[0], record_id, length
