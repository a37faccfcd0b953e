"""Temporary files of records, so that files larger than memory can be sorted and summarised."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import ExitStack
from tempfile import TemporaryFile, gettempdir
from typing import IO

import numpy as np
import numpy.typing as npt

from fullwaveform.data.arrays import AnyArray, FloatArray, RecordArray
from fullwaveform.io.interruption import raise_if_requested

_BLOCK_ROWS = 1 << 16  # read at a time
_RUN_ROWS = 1 << 18  # records that are sorted at a time
_MIN_ROWS = 1 << 10  # of a run that are read at a time
_IN_MEMORY = 1 << 20  # values of which percentiles are taken in memory
_SIGN = np.uint64(1 << 63)


class Scratch(ExitStack):
    """Closes, and so deletes, temporary files at the end of the ``with`` statement."""

    def file(self) -> IO[bytes]:
        """A new temporary file."""
        return self.enter_context(TemporaryFile())


class RecordFile:
    """Rows of one type in a temporary file; appended, then read."""

    def __init__(self, stream: IO[bytes], dtype: np.dtype[np.generic]) -> None:
        self._stream, self._dtype, self._count = stream, dtype, 0

    def __len__(self) -> int:
        return self._count

    def append(self, rows: AnyArray) -> None:
        """Append rows; OSError that names the folder if it is full."""
        try:
            self._stream.seek(0, 2)
            self._stream.write(np.ascontiguousarray(rows, self._dtype).tobytes())
            self._stream.flush()
        except OSError as error:
            message = (
                f"cannot write temporary data to {gettempdir()}: {error.strerror}; set TMPDIR to a "
                "folder with more space"
            )
            raise OSError(error.errno, message) from error
        self._count += len(rows)

    def read(self, first: int, count: int) -> AnyArray:
        """Rows from number `first` on, fewer at the end of the file."""
        self._stream.seek(first * self._dtype.itemsize)
        content = self._stream.read(max(min(count, self._count - first), 0) * self._dtype.itemsize)
        return np.frombuffer(content, self._dtype)

    def blocks(self) -> Iterator[AnyArray]:
        """All rows in their order."""
        for first in range(0, self._count, _BLOCK_ROWS):
            raise_if_requested()
            yield self.read(first, _BLOCK_ROWS)


class SortedRecords:
    """Records in ascending order of a key, sorted in parts on disk.

    `key` gives the finite sorting key of records with a ``row``.
    """

    def __init__(
        self,
        stream: IO[bytes],
        dtype: np.dtype[np.generic],
        key: Callable[[RecordArray], AnyArray],
    ) -> None:
        self._file, self._key = RecordFile(stream, dtype), key
        self._waiting: list[RecordArray] = []
        self._run_starts: list[int] = []
        self._last = np.inf  # key of the last record

    def __len__(self) -> int:
        return len(self._file) + sum(map(len, self._waiting))

    def append(self, records: RecordArray) -> None:
        """Append records in any order."""
        self._waiting.append(records)
        if sum(map(len, self._waiting)) >= _RUN_ROWS:
            self._write_run()

    def _write_run(self) -> None:
        records = np.concatenate(self._waiting)
        keys = self._key(records)
        if (keys[1:] < keys[:-1]).any():
            records = records[np.argsort(keys, kind="stable")]
        keys = self._key(records[[0, -1]])
        # Records in order make one run of the whole file.
        if keys[0] < self._last or not self._run_starts:
            self._run_starts.append(len(self._file))
        self._last = keys[1]
        self._file.append(records)
        self._waiting = []

    def ascending(self) -> Iterator[RecordArray]:
        """All records, in parts of which each follows the one before."""
        if sum(map(len, self._waiting)):
            self._write_run()
        if not self._run_starts:
            return
        ends = [*self._run_starts[1:], len(self._file)]
        runs = [[start, end] for start, end in zip(self._run_starts, ends, strict=True)]
        rows = max(_BLOCK_ROWS // max(len(runs), 1), _MIN_ROWS)
        loaded = [self._file.read(0, 0) for _ in runs]
        while True:
            raise_if_requested()
            for number, (run, left) in enumerate(zip(runs, loaded, strict=True)):
                if not len(left) and run[0] < run[1]:
                    loaded[number] = self._file.read(run[0], min(rows, run[1] - run[0]))
                    run[0] += len(loaded[number])
            limits = [
                self._key(left[-1:])[0]
                for run, left in zip(runs, loaded, strict=True)
                if run[0] < run[1]
            ]
            limit = min(limits, default=np.inf)
            ends = [int(np.searchsorted(self._key(left), limit, side="right")) for left in loaded]
            taken = [left[:end] for left, end in zip(loaded, ends, strict=True)]
            loaded = [left[end:] for left, end in zip(loaded, ends, strict=True)]
            if not sum(map(len, taken)):
                return
            part = np.concatenate(taken)
            in_order = len(runs) == 1
            yield part if in_order else part[np.lexsort((part["row"], self._key(part)))]


class ValueFile:
    """Numbers in a temporary file, and their exact percentiles."""

    def __init__(self, stream: IO[bytes]) -> None:
        self._file = RecordFile(stream, np.dtype(np.float64))

    def __len__(self) -> int:
        return len(self._file)

    def append(self, values: FloatArray) -> None:
        """Append values; those that are not finite are left out."""
        self._file.append(values[np.isfinite(values)])

    def percentile(self, percent: float, *, about: float | None = None) -> float:
        """Percentile of the values or, with `about`, of their distances from it.

        Linear between the two nearest values, as `numpy.percentile`; NaN without values.
        """
        if not len(self):
            return float("nan")
        if len(self) <= _IN_MEMORY:
            return float(np.percentile(np.concatenate(list(self._values(about))), percent))
        at = percent / 100.0 * (len(self) - 1)
        rank = int(at)
        lower = self._ranked(rank, about)
        upper = self._ranked(rank + 1, about) if at > rank else lower
        return lower + (upper - lower) * (at - rank)

    def sample(self, count: int) -> FloatArray:
        """At most `count` of the values, evenly spread over their order."""
        step = max(-(-len(self) // count), 1)
        parts, next_row, first = [np.empty(0)], 0, 0
        for block in self._file.blocks():
            parts.append(block[next_row - first :: step])
            first += len(block)
            next_row += -(-(first - next_row) // step) * step
        return np.concatenate(parts)

    def _ranked(self, rank: int, about: float | None) -> float:
        """The value of this rank, from 0, in ascending order: radix selection by 16 bits."""
        prefix = 0
        for shift in (48, 32, 16, 0):
            counts = np.zeros(1 << 16, np.int64)
            for values in self._values(about):
                digits = _ordered_bits(values) >> np.uint64(shift)
                here = digits[digits >> np.uint64(16) == prefix] & np.uint64(0xFFFF)
                counts += np.bincount(here.astype(np.int64), minlength=1 << 16)
            digit = int(np.searchsorted(np.cumsum(counts), rank, side="right"))
            rank -= int(counts[:digit].sum())
            prefix = prefix << 16 | digit
        return _value_of_bits(prefix)

    def _values(self, about: float | None) -> Iterator[FloatArray]:
        for block in self._file.blocks():
            yield block if about is None else np.abs(block - about)


def _ordered_bits(values: FloatArray) -> npt.NDArray[np.uint64]:
    """Integers in the order of the numbers; NaN excluded."""
    bits = np.ascontiguousarray(values).view(np.uint64)
    ordered: npt.NDArray[np.uint64] = np.where(bits & _SIGN != 0, ~bits, bits | _SIGN)
    return ordered


def _value_of_bits(ordered: int) -> float:
    """The number with these ordered bits."""
    bits = np.uint64(ordered)
    return float((bits ^ _SIGN if bits & _SIGN else ~bits).view(np.float64))
