"""Entropy decoders of compressed PulseWaves files."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform import _core
from fullwaveform._core import PulseState as PulseState
from fullwaveform.data.arrays import IntArray, UInt8Array, UInt16Array


@dataclass(frozen=True, slots=True)
class ChunkTable:
    """Entries of the chunk table of compressed pulses."""

    pulses: IntArray | None  # (n,) of each chunk; None if the table does not have them
    bytes: IntArray  # (n,) of each chunk
    consumed: int  # bytes of the coded table
    intact: bool  # whether all entries were read


@dataclass(frozen=True, slots=True)
class PulseChunk:
    """Pulses of a chunk, as far as they could be decoded."""

    records: UInt8Array  # (pulses, bytes of a pulse), as in an uncompressed file
    consumed: int  # bytes of the chunk
    truncated: bool  # the bytes ended before the last pulse
    damaged: bool  # what follows the last pulse cannot be decoded


@dataclass(frozen=True, slots=True)
class DecodedWaveforms:
    """Segments and samples of pulses; a pulse that is not complete has none."""

    states: UInt8Array  # (m,) `PulseState` of the first m pulses that were asked for, m > 0
    sample_starts: IntArray  # (m,) index of the first sample of each
    samples: UInt16Array  # of all these pulses
    pulse: IntArray  # (k,) index of the pulse of each segment, ascending
    sampling: IntArray  # (k,) index of its sampling
    start: IntArray  # (k,) index of its first sample
    count: IntArray  # (k,) samples
    duration: IntArray  # (k,) as stored; 0 where it has no bits


def decode_chunk_table(coded: UInt8Array, chunks: int, *, with_pulses: bool) -> ChunkTable:
    """Decode the entries that follow the version and the number of `chunks` in a chunk table."""
    found = _core.decode_chunk_table(coded, chunks, with_pulses)
    return ChunkTable(
        pulses=found["pulses"].astype(np.int64) if with_pulses else None,
        bytes=found["bytes"].astype(np.int64),
        consumed=found["consumed"],
        intact=found["intact"],
    )


def decode_pulse_chunk(chunk: UInt8Array, items: IntArray, pulses: int) -> PulseChunk:
    """Decode the pulses of a chunk.

    Parameters
    ----------
    chunk
        Its bytes, which other bytes may follow.
    items
        (k, 2), type and bytes of what a pulse consists of.
    pulses
        How many to decode.

    Raises
    ------
    ValueError
        For unknown items.
    """
    found = _core.decode_pulse_chunk(chunk, items, pulses)
    size = int(items[:, 1].sum())
    return PulseChunk(
        records=found["records"].reshape(-1, size),
        consumed=found["consumed"],
        truncated=found["truncated"],
        damaged=found["damaged"],
    )


def decode_waveforms(
    data: UInt8Array, offsets: IntArray, ends: IntArray, extra_bytes: int, samplings: IntArray
) -> DecodedWaveforms:
    """Decode the samples of pulses that share a descriptor, until many samples were found.

    Parameters
    ----------
    data
        Bytes of the sample file.
    offsets, ends
        (n,), where in `data` the samples of each pulse start, and end at the latest; any values.
    extra_bytes
        Before the stream of each pulse.
    samplings
        (k, 6): bits of the number of segments, of durations and of the number of samples; segments
        and samples where these have no bits; bits of a sample.

    Raises
    ------
    ValueError
        For bits that the format does not have.
    """
    found = _core.decode_waveforms(data, offsets, ends, extra_bytes, samplings)
    return DecodedWaveforms(
        states=found["states"],
        sample_starts=found["sample_starts"],
        samples=found["samples"],
        pulse=found["pulse"],
        sampling=found["sampling"],
        start=found["start"],
        count=found["count"],
        duration=found["duration"].astype(np.int64),
    )
