"""Returns that the scanner listed itself, by the waveform in which each lies."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import (
    FloatArray,
    IntArray,
    RecordArray,
    UInt8Array,
    UInt16Array,
)


@dataclass(frozen=True, slots=True)
class DiscreteReturns:
    """Discrete returns of the pulses of a block, ascending by row and then by time.

    A return of which several channels of a shot have a point is listed once for each of them.
    """

    rows: IntArray  # (r,), row of the block in whose waveform the return lies
    times: FloatArray  # (r,), ps after the first sample of that waveform
    return_number: UInt8Array  # (r,), as in the file
    return_count: UInt8Array  # (r,), returns of the pulse, as in the file
    intensity: UInt16Array  # (r,), in the maker's unit
    classification: UInt8Array  # (r,), class of the point
    extra: RecordArray | None  # (r,), extra bytes as stored, by name; None if the file has none

    def __len__(self) -> int:
        return len(self.rows)

    def of_rows(self, rows: IntArray) -> DiscreteReturns:
        """The returns of the given rows (k,) of the block, which become the rows 0 to k - 1."""
        first = np.searchsorted(self.rows, rows, side="left")
        count = np.searchsorted(self.rows, rows, side="right") - first
        starts = np.cumsum(count) - count
        chosen = np.repeat(first - starts, count) + np.arange(int(count.sum()))
        return DiscreteReturns(
            rows=np.repeat(np.arange(len(rows)), count),
            times=self.times[chosen],
            return_number=self.return_number[chosen],
            return_count=self.return_count[chosen],
            intensity=self.intensity[chosen],
            classification=self.classification[chosen],
            extra=None if self.extra is None else self.extra[chosen],
        )
