"""Echoes as points of a LAS file with the packets of their waveforms."""

from __future__ import annotations

import os
import struct
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.echo_columns import EchoTable
from fullwaveform.io.atomic import FileKind, OutputFile, atomic_open
from fullwaveform.io.echo_writers.las import LasEchoWriter
from fullwaveform.io.echo_writers.packets import (
    PACKETS_KIND,
    PacketWriter,
    packet_notes,
    packets_path,
)
from fullwaveform.io.las.descriptors import read_descriptors

_PICOSECONDS = 1e12
_RECORD = struct.Struct("<2x16sHH32s")  # header of a variable record
_RECORD_COUNT = 100  # byte of the file, after the size of the header and the start of the points
_HEADER_SIZE = 94
_MAX_DESCRIPTORS = 255
_DESCRIPTOR_RECORD = _RECORD.size + 26  # bytes


class LasPacketEchoWriter(LasEchoWriter):
    """Writes echoes to a LAS file, and their waveforms to the ``.wdp`` file of the same name.

    As `LasEchoWriter`, with point format 4 or 9. Every waveform with echoes is stored once, with
    all of its samples. Both files get their names when they are complete, the packets first.
    """

    holds_waveforms = True

    def __init__(
        self,
        path: str | os.PathLike[str],
        source: laspy.LasHeader | None,
        run: Mapping[str, str] | None = None,
        *,
        carry: bool = True,
        shot_columns: tuple[str, ...] = (),
    ) -> None:
        super().__init__(path, source, run, carry=carry, shot_columns=shot_columns)
        self._originals = {} if source is None else read_descriptors(source, self.path)
        # Which descriptors are needed is known at the end, so their records are written then.
        reserve_descriptors(self._header)
        self._packets: PacketWriter | None = None
        self._waveforms: WaveformBlock | None = None

    @classmethod
    def outputs(cls, path: Path) -> dict[Path, FileKind]:
        """The points and the packets."""
        return {path: cls.kind, packets_path(path): PACKETS_KIND}

    def write(self, echoes: EchoTable, waveforms: WaveformBlock | None = None) -> None:
        """Append the echoes and their waveforms.

        Raises ValueError outside the ``with`` statement, without the block of the waveforms, and if
        the waveforms need more descriptors than a file can have.
        """
        if waveforms is None:
            raise ValueError(f"{self.path} holds waveforms; give the block of the echoes")
        self._waveforms = waveforms
        super().write(echoes, waveforms)
        self._waveforms = None

    def notes(self) -> tuple[str, ...]:
        """What the files do not hold exactly, one message each."""
        return (*super().notes(), *packet_notes(self.padded))

    @property
    def padded(self) -> int:
        """As in `LasEchoWriter`."""
        return 0 if self._packets is None else self._packets.padded

    def _fill_packets(self, record: laspy.ScaleAwarePointRecord, echoes: EchoTable) -> None:
        block, packets = self._waveforms, self._packets
        assert block is not None
        assert packets is not None
        rows, which = np.unique(_rows_of(echoes, block), return_inverse=True)
        written, row_of_echo = packets.write(block, rows), rows[which]
        record["wavepacket_index"] = written.index[which]
        record["wavepacket_offset"] = written.offset[which].astype(np.uint64)
        record["wavepacket_size"] = written.size[which].astype(np.uint32)
        interval = block.sampling_intervals[row_of_echo] * _PICOSECONDS
        record["return_point_wave_location"] = (echoes["position"] * interval).astype(np.float32)
        direction = block.geometry.direction[row_of_echo].astype(np.float32)
        record["x_t"], record["y_t"], record["z_t"] = direction.T

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        output = atomic_open(packets_path(self.path), PACKETS_KIND, overwrite=self.overwrite)
        with output as packets:
            self._packets = PacketWriter(packets, self._originals)
            with super()._content(stream):
                yield
            insert_descriptors(stream, self._packets.records())
            self._packets.finish()
            stream.check()  # no packets without their points


def _rows_of(echoes: EchoTable, block: WaveformBlock) -> IntArray:
    """Row of the block for each echo."""
    order = np.argsort(block.waveform_numbers, kind="stable")
    found = np.searchsorted(block.waveform_numbers, echoes["waveform_number"], sorter=order)
    rows: IntArray = order[found]
    return rows


def reserve_descriptors(header: laspy.LasHeader) -> None:
    """Leave space for the records of all descriptors that a file can have."""
    header.extra_vlr_bytes = bytes(_MAX_DESCRIPTORS * _DESCRIPTOR_RECORD)


def insert_descriptors(stream: OutputFile, records: list[laspy.VLR]) -> None:
    """Write the records of descriptors after the others, into the bytes that are left for them."""
    stream.seek(_HEADER_SIZE)
    (position,) = struct.unpack("<H", stream.read(2))
    stream.seek(_RECORD_COUNT)
    (count,) = struct.unpack("<I", stream.read(4))
    for _ in range(count):
        stream.seek(position)
        _, _, length, _ = _RECORD.unpack(stream.read(_RECORD.size))
        position += _RECORD.size + length
    stream.seek(position)
    for record in records:
        data = record.record_data_bytes()
        description = record.description.encode("ascii")
        user = record.user_id.encode("ascii")
        stream.write(_RECORD.pack(user, record.record_id, len(data), description) + data)
    stream.seek(_RECORD_COUNT)
    stream.write(struct.pack("<I", count + len(records)))
    stream.seek(0, os.SEEK_END)
