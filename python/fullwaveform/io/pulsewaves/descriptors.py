"""Descriptors of PulseWaves files: how the samples of a pulse are stored.

A pulse has samplings (of the outgoing pulse, of the light that returns on each channel), a sampling
has segments, and a segment is a run of samples: a waveform.
"""

from __future__ import annotations

import math
import struct
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.limits import MAX_SAMPLES
from fullwaveform.io.pulsewaves.header import PULSEWAVES_USER_ID, VariableRecord

OUTGOING, RETURNING = 1, 2  # types of a sampling

_FIRST_RECORD_ID = 200_001  # of descriptor 1
_LAST_RECORD_ID = 200_255  # of descriptor 255
_COMPOSITION = struct.Struct("<IIiHHfII")
_SAMPLING = struct.Struct("<IIBBBBffBBHIHHfI")
_MAX_TO_ANCHOR = 10_000_000  # sampling units; larger values are marks of an unknown one
_TEXT_SIZE = 64  # bytes, the last of a composition and of each sampling


@dataclass(frozen=True, slots=True)
class SamplingDescriptor:
    """One sampling of a pulse. A number with bits is stored with the samples of each pulse."""

    kind: int  # OUTGOING, RETURNING or unknown
    channel: int
    duration_bits: int  # of the time from anchor to segment; 0: it is `duration_offset`
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
    """How the samples of a pulse are stored. A pulse refers to it by `index`, 1 to 255."""

    index: int
    extra_bytes: int  # before the first sampling
    unit_ns: float  # sampling unit: travel time of light for a thousandth of anchor to target
    compression: int  # 0 = none
    samplings: tuple[SamplingDescriptor, ...]
    centre_to_anchor: float = 0.0  # from optical centre to anchor, sampling units; NaN if unknown
    is_short: bool = False  # with two segments where the file declares a fixed number of three

    @property
    def has_three_segments(self) -> bool:
        """Whether a sampling declares three segments, of which some writers store two."""
        return any(_has_three_segments(sampling) for sampling in self.samplings)

    def short_form(self) -> PulseDescriptor:
        """The same with two segments in place of three."""
        samplings = tuple(
            replace(sampling, segments=2) if _has_three_segments(sampling) else sampling
            for sampling in self.samplings
        )
        return replace(self, samplings=samplings, is_short=True)


def _has_three_segments(sampling: SamplingDescriptor) -> bool:
    return sampling.segment_bits == 0 and sampling.segments == 3


def _with_short_forms(descriptors: Iterable[PulseDescriptor]) -> Iterator[PulseDescriptor]:
    """Each descriptor, and after one with three segments its short form."""
    for descriptor in descriptors:
        yield descriptor
        if descriptor.has_three_segments:
            yield descriptor.short_form()


class SamplingTable:
    """The samplings of descriptors as columns; the row of a sampling is its code."""

    def __init__(self, descriptors: Iterable[PulseDescriptor]) -> None:
        self.descriptors = tuple(_with_short_forms(descriptors))
        self.samplings = tuple(one for whole in self.descriptors for one in whole.samplings)
        self.kinds = np.array([one.kind for one in self.samplings], dtype=np.uint8)
        self.channels = np.array([one.channel for one in self.samplings], dtype=np.uint8)
        self.sample_bytes = np.array([one.sample_bytes for one in self.samplings], dtype=np.int64)
        # Single precision in the file: unrounded, 0.1 ns would be 0.1000000015 ns.
        self.units_ns = np.array([_shortest(one.unit_ns) for one in self.samplings])
        self.is_short = np.array(
            [whole.is_short for whole in self.descriptors for _ in whole.samplings], dtype=bool
        )
        self.centres_to_anchors = np.array(
            [whole.centre_to_anchor for whole in self.descriptors for _ in whole.samplings]
        )
        self.first_codes = np.cumsum([0, *(len(one.samplings) for one in self.descriptors)])


def read_descriptors(records: Sequence[VariableRecord], path: Path) -> dict[int, PulseDescriptor]:
    """Read all pulse descriptors by index.

    Raises
    ------
    WaveformFileError
        If a record is truncated or two records contradict each other.
    """
    descriptors: dict[int, PulseDescriptor] = {}
    for record in records:
        if record.user != PULSEWAVES_USER_ID:
            continue
        if not _FIRST_RECORD_ID <= record.record_id <= _LAST_RECORD_ID:
            continue
        index = record.record_id - _FIRST_RECORD_ID + 1
        descriptor = _descriptor(index, record.data, path)
        # repr, because a NaN scale is unequal to itself.
        if repr(descriptors.setdefault(index, descriptor)) != repr(descriptor):
            raise WaveformFileError(
                f"{path}: two different records for pulse descriptor {index}; must be equal"
            )
    return descriptors


def check_supported(descriptor: PulseDescriptor, path: Path) -> None:
    """Raise WaveformFileError unless pulses of this descriptor can be read."""
    name = f"{path}: pulse descriptor {descriptor.index}"
    if descriptor.compression != 0:
        raise WaveformFileError(
            f"{name}: unsupported compression type {descriptor.compression}; must be 0 (none)"
        )
    if not _is_positive(descriptor.unit_ns):
        raise WaveformFileError(
            f"{name}: invalid sampling unit {descriptor.unit_ns} ns; must be positive"
        )
    for number, sampling in enumerate(descriptor.samplings, start=1):
        _check_layout(sampling, f"{path}: sampling {number} of pulse descriptor {descriptor.index}")
        # The time from the anchor and the step between samples have the same unit.
        if sampling.kind == RETURNING and sampling.unit_ns != descriptor.unit_ns:
            raise WaveformFileError(
                f"{path}: sampling {number} of pulse descriptor {descriptor.index}: sampling unit "
                f"{sampling.unit_ns} ns differs from that of the pulses, {descriptor.unit_ns} ns; "
                "must be equal for a returning sampling"
            )


def _check_layout(sampling: SamplingDescriptor, name: str) -> None:
    rules = (
        ("compression type", sampling.compression, (0,)),
        ("bits per sample", sampling.sample_bits, (8, 16)),
        ("bits for the duration", sampling.duration_bits, (0, 8, 16, 32)),
        ("bits for the number of segments", sampling.segment_bits, (0, 8, 16)),
        ("bits for the number of samples", sampling.count_bits, (0, 8, 16, 32)),
    )
    for what, value, supported in rules:
        if value not in supported:
            allowed = ", ".join(map(str, supported))
            raise WaveformFileError(f"{name}: unsupported {what} {value}; must be {allowed}")
    if not _is_positive(sampling.unit_ns):
        raise WaveformFileError(
            f"{name}: invalid sampling unit {sampling.unit_ns} ns; must be positive"
        )
    if not math.isfinite(sampling.duration_scale) or not math.isfinite(sampling.duration_offset):
        raise WaveformFileError(
            f"{name}: invalid scale {sampling.duration_scale} or offset "
            f"{sampling.duration_offset} of the duration; must be finite"
        )
    may_have_segments = sampling.segments > 0 or sampling.segment_bits > 0
    if may_have_segments and sampling.count_bits == 0 and not 1 <= sampling.samples <= MAX_SAMPLES:
        raise WaveformFileError(
            f"{name}: invalid number of samples {sampling.samples}; must be 1 to {MAX_SAMPLES}"
        )


def _descriptor(index: int, data: bytes, path: Path) -> PulseDescriptor:
    name = f"{path}: record of pulse descriptor {index}"
    size = _checked_size(data, 0, _COMPOSITION.size, name)
    _, _, to_anchor, extra, count, unit, compression, _ = _COMPOSITION.unpack_from(data)
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
    known = abs(to_anchor) <= _MAX_TO_ANCHOR
    return PulseDescriptor(
        index, extra, unit, compression, tuple(samplings), to_anchor if known else math.nan
    )


def _checked_size(data: bytes, position: int, fields: int, name: str) -> int:
    """Size of the part of a record that starts at `position`, stored as its first field."""
    minimum, available = fields + _TEXT_SIZE, len(data) - position
    if available < minimum:
        raise WaveformFileError(f"{name}: truncated: {available} bytes left, {minimum} needed")
    size: int = struct.unpack_from("<I", data, position)[0]
    if not minimum <= size <= available:
        raise WaveformFileError(
            f"{name}: invalid size {size} bytes; must be {minimum} to {available}"
        )
    return size


def _is_positive(value: float) -> bool:
    return math.isfinite(value) and value > 0


def _shortest(value: float) -> float:
    """The shortest decimal number that single precision stores as this value."""
    return float(str(np.float32(value)))
