"""Descriptors of PulseWaves files: how the waves of a pulse are stored.

A pulse has samplings (of the outgoing pulse, of what returns on one or more channels), a sampling
has segments, a segment is a run of samples: a waveform.
"""

from __future__ import annotations

import math
import struct
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.waveform_packets import MAX_SAMPLES
from fullwaveform.io.pulsewaves.header import SPECIFICATION_USER, VariableRecord

OUTGOING, RETURNING = 1, 2  # types of a sampling

_FIRST_DESCRIPTOR_ID = 200_001  # of descriptor 1
_LAST_DESCRIPTOR_ID = 200_255  # of descriptor 255
_COMPOSITION = struct.Struct("<IIiHHfII")
_SAMPLING = struct.Struct("<IIBBBBffBBHIHHfI")
_TEXT_SIZE = 64  # bytes, the last of a composition and of each sampling


@dataclass(frozen=True, slots=True)
class SamplingDescriptor:
    """One sampling of a pulse. Where a number has bits, it stands with each pulse's samples."""

    kind: int  # OUTGOING, RETURNING or something unknown
    channel: int
    duration_bits: int  # of a segment's distance from the anchor; 0: it is `duration_offset`
    duration_scale: float  # sampling units
    duration_offset: float  # sampling units
    segment_bits: int  # of the number of segments
    count_bits: int  # of a segment's number of samples
    segments: int  # where `segment_bits` is 0
    samples: int  # of each segment where `count_bits` is 0
    sample_bits: int
    lookup_table: int  # 0 = none
    unit_ns: float  # between samples
    compression: int  # 0 = none

    @property
    def sample_bytes(self) -> int:
        """Bytes of one sample."""
        return self.sample_bits // 8


@dataclass(frozen=True, slots=True)
class PulseDescriptor:
    """How the waves of a pulse are stored. A pulse names it by `index`, 1 to 255."""

    index: int
    extra_bytes: int  # before the first sampling
    unit_ns: float  # sampling unit: time that light needs for a thousandth of anchor to target
    compression: int  # 0 = none
    samplings: tuple[SamplingDescriptor, ...]


class SamplingTable:
    """The samplings of the given descriptors as columns; a sampling's row is its code."""

    def __init__(self, descriptors: Iterable[PulseDescriptor]) -> None:
        self.descriptors = tuple(descriptors)
        self.samplings = tuple(one for whole in self.descriptors for one in whole.samplings)
        self.channels = np.array([one.channel for one in self.samplings], dtype=np.uint8)
        self.sample_bytes = np.array([one.sample_bytes for one in self.samplings], dtype=np.int64)
        # Single precision in the file: without the rounding 0.1 ns would be 0.1000000015 ns.
        self.units_ns = np.array([_shortest(one.unit_ns) for one in self.samplings])
        self.first_codes = np.cumsum([0, *(len(one.samplings) for one in self.descriptors)])


def read_descriptors(records: Sequence[VariableRecord], path: Path) -> dict[int, PulseDescriptor]:
    """Read the pulse descriptors by index, the unused ones too.

    Raises
    ------
    WaveformFileError
        If a record is cut short or if two records contradict each other.
    """
    descriptors: dict[int, PulseDescriptor] = {}
    for record in records:
        if record.user != SPECIFICATION_USER:
            continue
        if not _FIRST_DESCRIPTOR_ID <= record.record_id <= _LAST_DESCRIPTOR_ID:
            continue
        index = record.record_id - _FIRST_DESCRIPTOR_ID + 1
        descriptor = _descriptor(index, record.data, path)
        # repr, because a scale that is not a number differs even from itself.
        if repr(descriptors.setdefault(index, descriptor)) != repr(descriptor):
            raise WaveformFileError(
                f"{path}: two records contradict each other on pulse descriptor {index}"
            )
    return descriptors


def check_usable(descriptor: PulseDescriptor, path: Path) -> None:
    """Raise WaveformFileError unless the waves of pulses of this descriptor can be read."""
    name = f"{path}: pulse descriptor {descriptor.index}"
    if descriptor.compression != 0:
        raise WaveformFileError(
            f"{name} has compression type {descriptor.compression}; only type 0, none, can be read"
        )
    if not _is_positive(descriptor.unit_ns):
        raise WaveformFileError(
            f"{name} has a sampling unit of {descriptor.unit_ns} ns; it must be positive"
        )
    for number, sampling in enumerate(descriptor.samplings, start=1):
        _check_layout(sampling, f"{path}: sampling {number} of pulse descriptor {descriptor.index}")
        # The distance from the anchor and the step between samples are counted in one unit.
        if sampling.kind == RETURNING and sampling.unit_ns != descriptor.unit_ns:
            raise WaveformFileError(
                f"{path}: sampling {number} of pulse descriptor {descriptor.index} has a sampling "
                f"unit of {sampling.unit_ns} ns, its pulses one of {descriptor.unit_ns} ns; what "
                "returns has a place in space only if they are equal"
            )


def _check_layout(sampling: SamplingDescriptor, name: str) -> None:
    rules = (
        ("compression type", sampling.compression, (0,)),
        ("bits per sample:", sampling.sample_bits, (8, 16)),
        ("bits for the duration:", sampling.duration_bits, (0, 8, 16, 32)),
        ("bits for the number of segments:", sampling.segment_bits, (0, 8, 16)),
        ("bits for the number of samples:", sampling.count_bits, (0, 8, 16, 32)),
    )
    for what, value, readable in rules:
        if value not in readable:
            allowed = ", ".join(map(str, readable))
            raise WaveformFileError(f"{name} has {what} {value}; {allowed} can be read")
    if not _is_positive(sampling.unit_ns):
        raise WaveformFileError(
            f"{name} has a sampling unit of {sampling.unit_ns} ns; it must be positive"
        )
    if not math.isfinite(sampling.duration_scale) or not math.isfinite(sampling.duration_offset):
        raise WaveformFileError(
            f"{name} has scale {sampling.duration_scale} and offset {sampling.duration_offset} of "
            "the duration; they must be finite"
        )
    may_have_segments = sampling.segments > 0 or sampling.segment_bits > 0
    if may_have_segments and sampling.count_bits == 0 and not 1 <= sampling.samples <= MAX_SAMPLES:
        raise WaveformFileError(
            f"{name} has {sampling.samples} samples; 1 to {MAX_SAMPLES} can be read"
        )


def _descriptor(index: int, data: bytes, path: Path) -> PulseDescriptor:
    name = f"{path}: the record of pulse descriptor {index}"
    size = _checked_size(data, 0, _COMPOSITION.size, name)
    _, _, _, extra, count, unit, compression, _ = _COMPOSITION.unpack_from(data)
    samplings = []
    position = size
    for number in range(1, count + 1):
        size = _checked_size(
            data, position, _SAMPLING.size, f"{name}: sampling {number} of {count}"
        )
        fields = _SAMPLING.unpack_from(data, position)
        kind, channel, _, duration_bits, scale, offset, *rest = fields[2:]
        samplings.append(SamplingDescriptor(kind, channel, duration_bits, scale, offset, *rest))
        position += size
    return PulseDescriptor(index, extra, unit, compression, tuple(samplings))


def _checked_size(data: bytes, position: int, fields: int, name: str) -> int:
    """Size of the part of a record that starts at `position` with its own size."""
    least, there = fields + _TEXT_SIZE, len(data) - position
    if there < least:
        raise WaveformFileError(f"{name} is cut short: {there} bytes are left, {least} are needed")
    size: int = struct.unpack_from("<I", data, position)[0]
    if not least <= size <= there:
        raise WaveformFileError(f"{name} says it has {size} bytes; {least} to {there} are possible")
    return size


def _is_positive(value: float) -> bool:
    return math.isfinite(value) and value > 0


def _shortest(value: float) -> float:
    """The number with the fewest digits that single precision stores as this value."""
    return float(str(np.float32(value)))
