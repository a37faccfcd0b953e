"""Pulses of compressed PulseWaves files: chunks that are decoded independently of each other."""

from __future__ import annotations

import struct
from collections import OrderedDict
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from fullwaveform.core.pulsewaves_decoding import PulseChunk, decode_chunk_table, decode_pulse_chunk
from fullwaveform.data.arrays import BoolArray, IntArray, UInt8Array
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.file_bytes import FileBytes
from fullwaveform.io.pulsewaves.header import PULSEWAVES_USER_ID, PulseWavesHeader, VariableRecord
from fullwaveform.io.pulsewaves.pulses import PulseSource

_RECORD_ID = 5
_RECORD = struct.Struct("<HHBBHIIH")
_ITEM = struct.Struct("<HHH")
_ITEM_VERSION = 1
_EXTRA_BYTES, _PULSE = 1000, 1001  # types of items
_ITEM_SIZES = {_PULSE: 48, 1002: 2, 1003: 4}  # bytes by type
_SIZES_VARY = 0xFFFFFFFF  # the chunk table says how many pulses a chunk has

_POSITION = struct.Struct("<q")
_TABLE_START = struct.Struct("<II")  # version, number of chunks
_AT_END = -1  # the position of the table is at the end of the file

_MAX_CHUNK = 1 << 26  # bytes of the pulses of a chunk; a few bytes can declare billions of pulses
_KEPT_RECORDS = 1 << 26  # bytes of decoded pulses
_FIRST_WINDOW = 1 << 16  # bytes searched for the end of a chunk; doubled until it is found


@dataclass(frozen=True, slots=True)
class PulseCompression:
    """How the pulses of a file are compressed."""

    items: IntArray  # (k, 2), type and bytes
    chunk_size: int  # pulses of each chunk but the last one; 0: the chunk table says how many


@dataclass(frozen=True, slots=True)
class ChunkIndex:
    """Where the chunks of a file are."""

    first_pulses: IntArray  # (n + 1,), running number of the first pulse of each; the total
    first_bytes: IntArray  # (n + 1,), of the file
    end: int  # byte after the chunks and their table
    missing: int  # pulses that the header declares but the truncated file does not hold
    has_table: bool  # whether the chunk table was there


def read_pulse_compression(
    header: PulseWavesHeader, records: Sequence[VariableRecord], path: Path
) -> PulseCompression | None:
    """How the pulses are compressed; None if they are not.

    Raises
    ------
    WaveformFileError
        If the record on the compression is invalid or of an unknown kind.
    """
    for record in records:
        if record.user == PULSEWAVES_USER_ID and record.record_id == _RECORD_ID:
            return _compression(record.data, header, f"{path}: record on the compression")
    return None


class CompressedPulses(PulseSource):
    """Compressed pulses, decoded chunk by chunk; some chunks are kept.

    Raises
    ------
    WaveformFileError
        If the chunk table is invalid, or missing where it is needed.
    """

    def __init__(self, header: PulseWavesHeader, compression: PulseCompression, path: Path) -> None:
        self._items = compression.items
        self._size = header.pulse_size
        self._bytes = FileBytes(path)
        try:
            self._index = _read_index(header, compression, self._bytes)
        except BaseException:
            self.close()
            raise
        self.count = int(self._index.first_pulses[-1])
        self.missing = self._index.missing
        self.end = self._index.end
        self.has_appended = self._index.has_table
        if not self._index.has_table:
            self.notes = ("The chunk table is missing; the pulses were read from the start.",)
        self._damaged = np.zeros(len(self._index.first_pulses), dtype=bool)  # by chunk
        self._kept: OrderedDict[int, UInt8Array] = OrderedDict()

    def close(self) -> None:
        """Close the file; may be called twice."""
        self._bytes.close()

    def forget(self) -> None:
        """See `PulseSource`."""
        self._kept.clear()

    def records(self, numbers: IntArray) -> UInt8Array:
        """See `PulseSource`."""
        records = np.empty((len(numbers), self._size), dtype=np.uint8)
        chunks = self._chunks_of(numbers)
        # Consecutive pulses are usually in the same chunk.
        edges = [0, *(np.flatnonzero(np.diff(chunks)) + 1).tolist(), len(chunks)]
        for rows in map(slice, edges[:-1], edges[1:]) if len(chunks) > 0 else ():
            chunk = int(chunks[rows.start])
            records[rows] = self._chunk(chunk)[numbers[rows] - self._index.first_pulses[chunk]]
        return records

    def damaged(self, numbers: IntArray) -> BoolArray:
        """See `PulseSource`."""
        chunks = self._chunks_of(numbers)
        for chunk in np.unique(chunks):
            self._chunk(chunk)
        return self._damaged[chunks]

    def _chunks_of(self, numbers: IntArray) -> IntArray:
        chunks: IntArray = np.searchsorted(self._index.first_pulses, numbers, side="right") - 1
        return chunks

    def _chunk(self, chunk: int) -> UInt8Array:
        if chunk in self._kept:
            self._kept.move_to_end(chunk)
            return self._kept[chunk]
        begin, end = self._index.first_bytes[chunk : chunk + 2]
        pulses = int(np.diff(self._index.first_pulses[chunk : chunk + 2])[0])
        decoded = decode_pulse_chunk(_read(self._bytes, begin, end), self._items, pulses)
        records = decoded.records
        if len(records) < pulses or (decoded.consumed != end - begin and not self.missing):
            # Where the damage begins is unknown, because every pulse follows from the one before.
            self._damaged[chunk] = True
            records = np.zeros((pulses, self._size), dtype=np.uint8)
        self._kept[chunk] = records
        while (
            len(self._kept) > 1 and sum(map(len, self._kept.values())) * self._size > _KEPT_RECORDS
        ):
            self._kept.popitem(last=False)
        return records


def _compression(data: bytes, header: PulseWavesHeader, name: str) -> PulseCompression | None:
    if len(data) < _RECORD.size:
        raise WaveformFileError(f"{name}: truncated: {len(data)} bytes, {_RECORD.size} needed")
    compressor, coder, *_, chunk_size, count = _RECORD.unpack_from(data)
    if compressor == 0:
        return None
    if compressor != 1 or coder != 0:
        raise WaveformFileError(
            f"{name}: unsupported compressor {compressor} with coder {coder}; must be 1 with 0"
        )
    needed = _RECORD.size + count * _ITEM.size
    if len(data) < needed:
        raise WaveformFileError(
            f"{name}: truncated: {len(data)} bytes, {needed} needed for {count} items"
        )
    items = [_ITEM.unpack_from(data, _RECORD.size + i * _ITEM.size) for i in range(count)]
    for number, (kind, size, version) in enumerate(items, start=1):
        known = (kind == _EXTRA_BYTES and size > 0) or _ITEM_SIZES.get(kind) == size
        if not known or version != _ITEM_VERSION or (kind == _PULSE) != (number == 1):
            raise WaveformFileError(
                f"{name}: unsupported item {number}: type {kind} of {size} bytes, version "
                f"{version}; must be a pulse of 48 bytes, then extra bytes or source numbers"
            )
    total = sum(size for _, size, _ in items)
    if total != header.pulse_size:
        raise WaveformFileError(
            f"{name}: items of {total} bytes; must be the pulse size, {header.pulse_size} bytes"
        )
    if chunk_size == 0:
        raise WaveformFileError(f"{name}: invalid chunk size of 0 pulses; must be at least 1")
    return PulseCompression(
        np.array([item[:2] for item in items], dtype=np.int64),
        0 if chunk_size == _SIZES_VARY else chunk_size,
    )


def _read_index(
    header: PulseWavesHeader, compression: PulseCompression, source: FileBytes
) -> ChunkIndex:
    position = _table_position(header, source)
    index = None
    if position is not None:
        index = _index_from_table(header, compression, source, position)
    if index is None:
        index = _index_without_table(header, compression, source)
    largest = int(np.diff(index.first_pulses).max(initial=0))
    _check_chunk_size(largest, header, source.path)
    return index


def _table_position(header: PulseWavesHeader, source: FileBytes) -> int | None:
    """Where the chunk table is; None if the file ends before it or it was never written."""
    start = header.pulses_start
    if start + _POSITION.size > source.size:
        return None
    position = _position_at(source, start)
    if position == _AT_END:
        position = _position_at(source, source.size - _POSITION.size)
        if not start + _POSITION.size <= position <= source.size - _TABLE_START.size:
            return None
    if position == start or position > source.size - _TABLE_START.size:
        return None
    if position < start + _POSITION.size:
        raise WaveformFileError(
            f"{source.path}: invalid position of the chunk table, byte {position}; must be after "
            f"the start of the pulses at byte {start}"
        )
    return position


def _position_at(source: FileBytes, byte: int) -> int:
    position: int = _POSITION.unpack(_read(source, byte, byte + _POSITION.size).tobytes())[0]
    return position


def _index_from_table(
    header: PulseWavesHeader, compression: PulseCompression, source: FileBytes, position: int
) -> ChunkIndex | None:
    """The chunks as the table lists them; None if the table is truncated."""
    name = f"{source.path}: chunk table at byte {position}"
    start = header.pulses_start + _POSITION.size
    head = _read(source, position, position + _TABLE_START.size)
    version, chunks = _TABLE_START.unpack(head.tobytes())
    if version != 0:
        raise WaveformFileError(f"{name}: unsupported version {version}; must be 0")
    size, total = compression.chunk_size, header.pulse_count
    # A chunk has at least the first pulse, which is not compressed.
    largest = (position - start) // header.pulse_size
    expected = -(-total // size) if size else chunks
    if chunks != expected or chunks > min(largest, total):
        raise WaveformFileError(
            f"{name}: invalid number of chunks {chunks} for {total} pulses in {position - start} "
            f"bytes; must be {f'{expected} and ' if size else ''}at most {min(largest, total)}"
        )
    coded = _read(
        source, position + _TABLE_START.size, min(source.size, position + 16 + 16 * chunks)
    )
    table = decode_chunk_table(coded, chunks, with_pulses=size == 0)
    if not table.intact:
        return None
    pulses = np.append(np.full(max(chunks - 1, 0), size), total - size * max(chunks - 1, 0))
    pulses = pulses[:chunks] if table.pulses is None else table.pulses
    if pulses.sum() != total or table.bytes.sum() != position - start:
        raise WaveformFileError(
            f"{name}: damaged: {len(table.bytes)} chunks with {pulses.sum()} pulses in "
            f"{table.bytes.sum()} bytes; must be {chunks} with {total} pulses in {position - start}"
        )
    return ChunkIndex(
        first_pulses=np.append(0, np.cumsum(pulses)),
        first_bytes=start + np.append(0, np.cumsum(table.bytes)),
        end=position + _TABLE_START.size + table.consumed,
        missing=0,
        has_table=True,
    )


def _index_without_table(
    header: PulseWavesHeader, compression: PulseCompression, source: FileBytes
) -> ChunkIndex:
    """Find the chunks by decoding them, up to the end of a truncated file."""
    size = compression.chunk_size
    if size == 0:
        raise WaveformFileError(
            f"{source.path}: truncated: no chunk table, without which chunks of different sizes "
            "cannot be found"
        )
    _check_chunk_size(min(size, header.pulse_count or size), header, source.path)
    # A writer that was cut off has not written the number of pulses either.
    total = header.pulse_count or np.iinfo(np.int64).max
    first_pulses, first_bytes = [0], [header.pulses_start + _POSITION.size]
    complete = True
    while complete and first_pulses[-1] < total and first_bytes[-1] < source.size:
        wanted = min(size, total - first_pulses[-1])
        chunk = _chunk_from(source, first_bytes[-1], compression.items, wanted)
        complete = len(chunk.records) == wanted
        if len(chunk.records) > 0:
            first_pulses.append(first_pulses[-1] + len(chunk.records))
            first_bytes.append(first_bytes[-1] + chunk.consumed)
    found = first_pulses[-1]
    return ChunkIndex(
        first_pulses=np.array(first_pulses, dtype=np.int64),
        first_bytes=np.array(first_bytes, dtype=np.int64),
        end=source.size,
        missing=header.pulse_count - found if header.pulse_count else int(not complete),
        has_table=False,
    )


def _chunk_from(source: FileBytes, begin: int, items: IntArray, pulses: int) -> PulseChunk:
    window = _FIRST_WINDOW
    while True:
        end = min(begin + window, source.size)
        chunk = decode_pulse_chunk(_read(source, begin, end), items, pulses)
        if not chunk.truncated or end == source.size:
            return chunk
        window *= 2


def _check_chunk_size(pulses: int, header: PulseWavesHeader, path: Path) -> None:
    largest = _MAX_CHUNK // header.pulse_size
    if pulses > largest:
        raise WaveformFileError(
            f"{path}: unsupported chunk of {pulses} pulses; must be at most {largest} of "
            f"{header.pulse_size} bytes"
        )


def _read(source: FileBytes, begin: int, end: int) -> UInt8Array:
    """The bytes `begin` to `end`, which are inside the file."""
    content: UInt8Array = source.rows(np.array([begin]), int(end - begin))[0]
    return content
