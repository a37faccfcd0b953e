"""Waveform packets of the echoes of a LAS file: samples, and the descriptors they need."""

from __future__ import annotations

import struct
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.arrays import IntArray, UInt8Array, UInt16Array
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.counting import counted
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.las.descriptors import WaveformDescriptor
from fullwaveform.io.las.waveform_packets import PACKET_RECORD_ID, RECORD_HEADER_SIZE
from fullwaveform.io.limits import MAX_SAMPLES

_RECORD_HEADER = struct.Struct("<H16sHQ32s")  # of an extended record
_LENGTH = 20  # byte of it
_PACKETS_OF = b"Waveforms of extracted echoes"  # its description
_MAX_DESCRIPTORS = 255
#: Descriptors of waveforms of exact length; the others hold padded ones.
_EXACT = 191
_MIN_PADDED = 64  # samples
_BYTE_VALUES = 256
_PICOSECONDS = 1e12
#: Description of the record of a descriptor: the one of the input that it was made of.
INPUT_DESCRIPTOR = "of descriptor {} of the input"


def _has_packets_header(path: Path) -> bool:
    with path.open("rb") as file:
        _, user, record, _, text = _RECORD_HEADER.unpack(file.read(_RECORD_HEADER.size))
    is_packet_record = user.startswith(b"LASF_Spec") and record == PACKET_RECORD_ID
    return bool(is_packet_record and text.startswith(_PACKETS_OF))


def packet_record_header(length: int) -> bytes:
    """Header of a packet record of so many bytes of packets, the begin of a ``.wdp`` file."""
    return _RECORD_HEADER.pack(0, b"LASF_Spec", PACKET_RECORD_ID, length, _PACKETS_OF)


PACKETS_KIND = FileKind("the waveforms of a LAS file of echoes", _has_packets_header)


def packets_path(path: Path) -> Path:
    """Where the packets of a LAS file are."""
    return path.with_suffix(".wdp")


@dataclass(frozen=True, slots=True)
class Packets:
    """Where the packets of some waveforms are, one entry each."""

    index: UInt8Array  # of the descriptor
    offset: IntArray  # bytes from the start of the record
    size: IntArray  # bytes

    @classmethod
    def joined(cls, several: Sequence[Packets]) -> Packets:
        """The entries of several, one after the other."""
        return cls(
            np.concatenate([np.zeros(0, np.uint8), *(one.index for one in several)]),
            np.concatenate([np.zeros(0, np.int64), *(one.offset for one in several)]),
            np.concatenate([np.zeros(0, np.int64), *(one.size for one in several)]),
        )


class PacketWriter:
    """Writes waveforms to a packet file and chooses their descriptors.

    A descriptor is of one length, depth, interval, and descriptor of the input. Samples take one
    byte where the waveform permits. Once 191 descriptors are in use, waveforms that need others are
    padded with their last sample to a power of two and counted in `padded`.

    Parameters
    ----------
    stream
        The file.
    originals
        Descriptors of the input by number, for their gains; 1 V per count where one is missing.
    """

    def __init__(self, stream: OutputFile, originals: Mapping[int, WaveformDescriptor]) -> None:
        self._stream = stream
        self._originals = originals
        self._numbers: dict[tuple[int, ...], int] = {}  # bits, samples, ps, original -> index
        self.padded = 0
        stream.write(packet_record_header(0))
        self._end = RECORD_HEADER_SIZE

    def write(self, block: WaveformBlock, rows: IntArray) -> Packets:
        """Append the waveforms of the rows (k,), and return where each is.

        Raises ValueError if they need more descriptors than a file can have.
        """
        samples, counts = block.samples[rows], block.counts[rows].astype(np.int64)
        bits = np.where(samples.max(axis=1, initial=0) < _BYTE_VALUES, 8, 16)
        spacing = np.rint(block.sampling_intervals[rows] * _PICOSECONDS).astype(np.int64)
        chosen = self._chosen(np.column_stack([bits, counts, spacing, block.descriptors[rows]]))
        packets = (
            _packet(row[:count], length, depth)
            for row, count, (_, length, depth) in zip(samples, counts, chosen, strict=True)
        )
        return self._append(chosen, b"".join(packets))

    def copy(self, kinds: IntArray, content: UInt8Array) -> Packets:
        """Append packets that were written before, and return where each is.

        Parameters
        ----------
        kinds
            (n, 4), bits per sample, samples, spacing in ps and descriptor of the input.
        content
            The packets, one after the other.

        Raises ValueError as `write`.
        """
        chosen = self._chosen(kinds)
        if (chosen[:, 1:] == kinds[:, 1::-1]).all():
            return self._append(chosen, content.tobytes())
        packets, begin = [], 0
        for (bits, count, _, _), (_, length, depth) in zip(kinds, chosen, strict=True):
            end = begin + count * bits // 8
            samples = content[begin:end].view("u1" if bits == 8 else "<u2")
            packets.append(_packet(samples.astype(np.uint16), length, depth))
            begin = end
        return self._append(chosen, b"".join(packets))

    def _chosen(self, kinds: IntArray) -> IntArray:
        """Index, samples and bits (n, 3) of the descriptors for kinds of waveforms (n, 4)."""
        keys, first, which = np.unique(kinds, axis=0, return_index=True, return_inverse=True)
        chosen = np.zeros((len(keys), 3), dtype=np.int64)
        for key in np.argsort(first):  # in the order of the waveforms, however blocks are cut
            chosen[key] = self._descriptor(tuple(keys[key].tolist()))
        of_each: IntArray = chosen[which.ravel()]
        self.padded += int(np.count_nonzero(of_each[:, 1] > kinds[:, 1]))
        return of_each

    def _append(self, chosen: IntArray, content: bytes) -> Packets:
        size = chosen[:, 1] * chosen[:, 2] // 8
        offset = self._end + np.cumsum(size) - size
        self._stream.write(content)
        self._end += int(size.sum())
        return Packets(chosen[:, 0].astype(np.uint8), offset, size)

    def finish(self) -> None:
        """Complete the header of the packet record."""
        self._stream.seek(_LENGTH)
        self._stream.write(struct.pack("<Q", self._end - RECORD_HEADER_SIZE))
        self._stream.seek(0, 2)

    def records(self) -> list[laspy.VLR]:
        """The records of the descriptors in use."""
        return [self._record(key, index) for key, index in self._numbers.items()]

    def _descriptor(self, key: tuple[int, ...]) -> tuple[int, int, int]:
        """Index, samples and bits of the descriptor for a kind of waveform."""
        if key not in self._numbers and len(self._numbers) >= _EXACT:
            _, count, spacing, original = key
            padded = max(_MIN_PADDED, 1 << (count - 1).bit_length())
            key = (16, min(padded, MAX_SAMPLES), spacing, original)
        if key not in self._numbers and len(self._numbers) >= _MAX_DESCRIPTORS:
            raise ValueError(
                "a LAS file describes at most 255 kinds of waveforms, and these differ in more "
                "lengths, sampling intervals and descriptors; extract without --with-waveforms"
            )
        return self._numbers.setdefault(key, len(self._numbers) + 1), key[1], key[0]

    def _record(self, key: tuple[int, ...], index: int) -> laspy.VLR:
        bits, count, spacing, number = key
        original = self._originals.get(number)
        gain, offset = (1.0, 0.0) if original is None else (original.gain, original.offset)
        descriptor = WaveformDescriptor(index, bits, 0, count, spacing, gain, offset)
        return descriptor.record(INPUT_DESCRIPTOR.format(number))


def packet_notes(padded: int) -> tuple[str, ...]:
    """What packet files do not hold exactly, one message each, of so many padded waveforms."""
    if padded == 0:
        return ()
    return (
        f"{counted(padded, 'waveform')} padded with the last sample: a LAS file describes at most "
        f"{_MAX_DESCRIPTORS} kinds of waveforms",
    )


def _packet(samples: UInt16Array, stored: int, bits: int) -> bytes:
    packet = np.empty(stored, dtype="u1" if bits == 8 else "<u2")
    packet[: len(samples)] = samples
    packet[len(samples) :] = samples[-1]
    return packet.tobytes()
