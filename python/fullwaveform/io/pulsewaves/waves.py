"""Where the segments of pulses are, and their samples: what all kinds of sample files offer."""

from __future__ import annotations

import struct
from abc import ABC, abstractmethod
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import BoolArray, IntArray, RecordArray, UInt16Array
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.pulsewaves.descriptors import PulseDescriptor, SamplingTable
from fullwaveform.io.pulsewaves.pulses import PulseData, Pulses
from fullwaveform.io.signatures import WAVES_SIGNATURE

WAVES_HEADER_SIZE = 60  # bytes; offsets of pulses count from the start of this header
UNCOMPRESSED, COMPRESSED = 0, 1

_HEADER = struct.Struct("<16sI")
_PLAIN_SUFFIXES = (".wvs", ".WVS")
_COMPRESSED_SUFFIXES = (".wvz", ".WVZ")

Segments = RecordArray  # of type SEGMENT

SEGMENT = np.dtype(
    [
        ("pulse", np.int64),  # running number in the file
        ("start", np.int64),  # of the samples, as the source of the samples counts them
        ("count", np.int64),  # samples
        ("duration", np.float64),  # from the anchor to the first sample, sampling units
        ("sampling", np.int64),  # code in the table of samplings
    ]
)


@dataclass(frozen=True, slots=True)
class PulseSpans:
    """Where the samples of pulses are in the sample file, one entry per pulse; any values."""

    numbers: IntArray  # (n,), running number of the pulse
    offsets: IntArray  # (n,), first byte
    ends: IntArray  # (n,), first byte of the next pulse, as far as that is known

    def __len__(self) -> int:
        return len(self.numbers)

    def of(self, rows: IntArray) -> PulseSpans:
        """The given rows."""
        return PulseSpans(self.numbers[rows], self.offsets[rows], self.ends[rows])


class WaveSource(ABC):
    """A file of samples; must be closed."""

    @abstractmethod
    def close(self) -> None:
        """Close the file; may be called twice."""

    @abstractmethod
    def of_descriptor(
        self, descriptor: PulseDescriptor, first_code: int, spans: PulseSpans
    ) -> tuple[Segments, dict[str, BoolArray]]:
        """Find the segments of pulses that share a descriptor.

        Returns
        -------
        The non-empty segments of all readable pulses; those of a pulse by sampling, whose code
        counts from `first_code`, and by number. And by reason which pulses (n,) are unreadable.
        """

    @abstractmethod
    def read(self, segments: Segments, table: SamplingTable) -> UInt16Array:
        """Samples of the segments (n, longest), zero after the end of shorter ones."""

    def forget(self) -> None:  # noqa: B027
        """Drop what is kept in memory of the content."""

    def locate(
        self, table: SamplingTable, pulses: PulseData, numbers: IntArray, rows: Pulses
    ) -> tuple[Segments, dict[str, BoolArray]]:
        """Find the segments of the pulses `rows` with the ascending `numbers` (n,).

        Pulses of three segments of which only two fit are read with two.

        Returns as `of_descriptor`; the segments by pulse.
        """
        # Whether a third segment fits is only known with the place of the next samples.
        may_be_short = any(one.is_short for one in table.descriptors)
        find_ends = pulses.next_larger_offsets if may_be_short else pulses.next_offsets
        spans = PulseSpans(numbers, rows["offset"], find_ends(numbers, rows))
        parts = [np.empty(0, dtype=SEGMENT)]
        unreadable: dict[str, BoolArray] = {}
        for descriptor, code in zip(table.descriptors, table.first_codes[:-1], strict=True):
            chosen = np.flatnonzero(rows["descriptor"] == descriptor.index)
            if descriptor.is_short:  # follows the descriptor whose pulses were just located
                chosen = chosen[np.logical_or.reduce([one[chosen] for one in unreadable.values()])]
                for places in unreadable.values():
                    places[chosen] = False
            part, faults = self.of_descriptor(descriptor, int(code), spans.of(chosen))
            parts.append(part)
            for reason, faulty in faults.items():
                places = unreadable.setdefault(reason, np.zeros(len(rows), dtype=bool))
                places[chosen[faulty]] = True
        segments = np.concatenate(parts)
        return segments[np.argsort(segments["pulse"], kind="stable")], unreadable


def find_waves(path: Path, *, compressed: bool) -> Path:
    """The sample file of a pulse file: the same name, ending .wvs or .wvz.

    Where there are both, pulses that are `compressed` belong to the compressed samples.

    Raises
    ------
    FileNotFoundError
        If there is none.
    """
    suffixes = (_PLAIN_SUFFIXES, _COMPRESSED_SUFFIXES)
    preferred, others = reversed(suffixes) if compressed else suffixes
    for suffix in (*preferred, *others):
        if path.with_suffix(suffix).is_file():
            return path.with_suffix(suffix)
    raise FileNotFoundError(
        f"{path.with_suffix(preferred[0])} does not exist; it must hold the samples of {path.name}"
    )


def read_compression(path: Path) -> int:
    """Read the header of a sample file: UNCOMPRESSED or COMPRESSED.

    Raises
    ------
    WaveformFileError
        If it is not a sample file or of another compression type.
    """
    with path.open("rb") as stream:
        start = stream.read(WAVES_HEADER_SIZE)
    if not start.startswith(WAVES_SIGNATURE):
        raise WaveformFileError(
            f"{path} is not a PulseWaves sample file; must start with {WAVES_SIGNATURE.decode()}"
        )
    if len(start) < WAVES_HEADER_SIZE:
        raise WaveformFileError(
            f"{path}: truncated: {len(start)} bytes, the header has {WAVES_HEADER_SIZE}"
        )
    compression: int = _HEADER.unpack_from(start)[1]
    if compression not in (UNCOMPRESSED, COMPRESSED):
        raise WaveformFileError(
            f"{path}: unsupported compression type {compression} of the samples; must be "
            f"{UNCOMPRESSED} (none) or {COMPRESSED}"
        )
    return compression
