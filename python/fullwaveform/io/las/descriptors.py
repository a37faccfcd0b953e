"""Waveform packet descriptors of LAS files: samples, depth and interval of a packet."""

from __future__ import annotations

import struct
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.limits import MAX_SAMPLES

_FIRST_RECORD_ID = 100  # of descriptor 1
_LAST_RECORD_ID = 354  # of descriptor 255
_DESCRIPTOR = struct.Struct("<BBIIdd")


@dataclass(frozen=True, slots=True)
class WaveformDescriptor:
    """How the samples of a packet are stored. A point refers to it by `index`, 1 to 255."""

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

    def record(self, description: str = "") -> laspy.VLR:
        """The record of a LAS file that holds the descriptor."""
        data = _DESCRIPTOR.pack(
            self.bits_per_sample,
            self.compression,
            self.sample_count,
            self.spacing_ps,
            self.gain,
            self.offset,
        )
        return laspy.VLR("LASF_Spec", _FIRST_RECORD_ID + self.index - 1, description, data)


def is_descriptor(record: laspy.VLR) -> bool:
    """Whether a record of a LAS file holds a waveform descriptor."""
    is_specified = record.user_id == "LASF_Spec"
    return bool(is_specified and _FIRST_RECORD_ID <= record.record_id <= _LAST_RECORD_ID)


def descriptor_index(record: laspy.VLR) -> int:
    """Number of the descriptor in a record, 1 to 255."""
    return int(record.record_id) - _FIRST_RECORD_ID + 1


def read_descriptors(header: laspy.LasHeader, path: Path) -> dict[int, WaveformDescriptor]:
    """Read the descriptors of a LAS header by index, from ordinary and extended records.

    Unsupported descriptors are included, because files declare some that no point refers to.

    Raises
    ------
    WaveformFileError
        If a record is too short or two records contradict each other.
    """
    descriptors: dict[int, WaveformDescriptor] = {}
    for record in [*header.vlrs, *(header.evlrs or [])]:
        if not is_descriptor(record):
            continue
        index = descriptor_index(record)
        data = record.record_data_bytes()
        if len(data) < _DESCRIPTOR.size:
            raise WaveformFileError(
                f"{path}: truncated: record of waveform descriptor {index} has {len(data)} bytes; "
                f"expected {_DESCRIPTOR.size}"
            )
        descriptor = WaveformDescriptor(index, *_DESCRIPTOR.unpack_from(data))
        # repr, because a NaN gain is unequal to itself.
        if repr(descriptors.setdefault(index, descriptor)) != repr(descriptor):
            raise WaveformFileError(
                f"{path}: two different records for waveform descriptor {index}; must be equal"
            )
    return descriptors


def check_supported(descriptor: WaveformDescriptor, path: Path) -> None:
    """Raise WaveformFileError unless packets of this descriptor can be read."""
    name = f"{path}: waveform descriptor {descriptor.index}"
    if descriptor.compression != 0:
        raise WaveformFileError(
            f"{name}: unsupported compression type {descriptor.compression}; must be 0 (none)"
        )
    if descriptor.bits_per_sample not in (8, 16):
        raise WaveformFileError(
            f"{name}: unsupported {descriptor.bits_per_sample} bits per sample; must be 8 or 16"
        )
    if not 1 <= descriptor.sample_count <= MAX_SAMPLES:
        raise WaveformFileError(
            f"{name}: invalid number of samples {descriptor.sample_count}; must be 1 to "
            f"{MAX_SAMPLES}"
        )
    if descriptor.spacing_ps == 0:
        raise WaveformFileError(f"{name}: invalid sample spacing 0 ps; must be positive")


class DescriptorTable:
    """Supported descriptors as columns, indexed by descriptor index."""

    def __init__(self, descriptors: Iterable[WaveformDescriptor]) -> None:
        self.sample_counts = np.zeros(256, dtype=np.int64)
        self.packet_sizes = np.zeros(256, dtype=np.int64)  # bytes
        self.intervals = np.zeros(256)  # s per sample
        for descriptor in descriptors:
            self.sample_counts[descriptor.index] = descriptor.sample_count
            self.packet_sizes[descriptor.index] = descriptor.packet_size
            # Divided, because 2000 * 1e-12 is not the double nearest to 2e-9.
            self.intervals[descriptor.index] = descriptor.spacing_ps / 1e12
