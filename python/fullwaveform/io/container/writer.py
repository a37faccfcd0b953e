"""Waveforms as a scan container, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

import h5py
import laspy
import numpy as np
import numpy.typing as npt

import fullwaveform
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.atomic import OutputFile, atomic_open
from fullwaveform.io.base import FileWriter
from fullwaveform.io.container.attributes import write_las_header, write_scanner
from fullwaveform.io.container.layout import (
    FIELDS,
    FORMAT,
    INTERVAL_ATTRIBUTE,
    REFERENCE_TIME_ATTRIBUTE,
    SBL_TIME,
    VERSION,
    WAVEFORMS,
    Field,
)
from fullwaveform.io.container.values import stored_text

_CHUNK_BYTES = 1 << 19  # of a chunk at most, about
_MOST_CHUNK_ROWS = 1 << 16
_COMPRESSION_LEVEL = 4


class ScanContainerWriter(FileWriter):
    """Writes blocks of waveforms to a scan container; to be used in a ``with`` statement.

    Parameters
    ----------
    path
        The file; it takes its name when the block of the ``with`` statement ends without an error.
    header
        LAS header that files of echoes should follow; None if the waveforms have no place in space.
    scanner
        Description of the scanner; None if nothing is known of it.

    `count` is of the waveforms written. Raises OSError if the file cannot be written.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        header: laspy.LasHeader | None,
        scanner: Scanner | None = None,
    ) -> None:
        super().__init__(path)
        self._header, self._scanner = header, scanner
        self._intervals: set[float] = set()
        self._last_shot: float | None = None
        self._stream: OutputFile | None = None
        self._file: h5py.File | None = None

    def write(self, block: WaveformBlock) -> None:
        """Append the waveforms of a block.

        Raises
        ------
        ValueError
            Outside the ``with`` statement, or if the block goes on with the last shot of the block
            before it.
        """
        if self._stream is None or self._file is None:
            raise ValueError(f"{self.path} is not open for writing")
        if len(block) == 0:
            return
        if block.shot_times[0] == self._last_shot:
            raise ValueError(
                f"the shot at {self._last_shot} s is spread over two blocks; blocks must be cut "
                "between shots"
            )
        for field in FIELDS:
            self._append(self._file, field, _column(block, field.column))
        self.count += len(block)
        self._last_shot = float(block.shot_times[-1])
        self._intervals.update(np.unique(block.sampling_intervals).tolist())
        self._stream.check()

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path) as self._stream:
            try:
                with h5py.File(self._stream, "w") as self._file:
                    yield
                    self._finish(self._file)
            finally:
                self._stream = self._file = None

    def _append(self, file: h5py.File, field: Field, values: npt.NDArray[Any]) -> None:
        if field.path not in file:
            _create(file, field, values.shape[1] if field.column == "samples" else 0)
        dataset = file[field.path]
        dataset.resize(self.count + len(values), axis=0)
        if field.column == "samples":
            dataset.resize(max(dataset.shape[1], values.shape[1]), axis=1)
            dataset[self.count :, : values.shape[1]] = values
        else:
            dataset[self.count :] = values

    def _finish(self, file: h5py.File) -> None:
        for field in FIELDS:
            if field.path not in file:  # no waveforms at all
                _create(file, field, 0)
        file.attrs["format"] = stored_text(FORMAT)
        file.attrs["format_version"] = np.int32(VERSION)
        file.attrs["software"] = stored_text(f"fullwaveform {fullwaveform.__version__}")
        file[SBL_TIME].attrs[REFERENCE_TIME_ATTRIBUTE] = 0.0
        if len(self._intervals) == 1:
            file[WAVEFORMS].attrs[INTERVAL_ATTRIBUTE] = self._intervals.pop()
        if self._scanner is not None:
            write_scanner(file, self._scanner)
        if self._header is not None:
            write_las_header(file, self._header)


def _create(file: h5py.File, field: Field, width: int) -> None:
    row = (width,) if field.column == "samples" else field.shape
    row_bytes = max(int(np.prod(row, dtype=np.int64)), 1) * np.dtype(field.dtype).itemsize
    rows = min(max(_CHUNK_BYTES // row_bytes, 1), _MOST_CHUNK_ROWS)
    dataset = file.create_dataset(
        field.path,
        shape=(0, *row),
        maxshape=(None, *((None,) if field.column == "samples" else field.shape)),
        dtype=field.dtype,
        chunks=(rows, *(max(size, 1) for size in row)),
        compression="gzip",
        compression_opts=_COMPRESSION_LEVEL,
        shuffle=True,
        track_times=False,
    )
    dataset.attrs["unit"] = stored_text(field.unit)


def _column(block: WaveformBlock, name: str) -> npt.NDArray[Any]:
    for part in (block, block.geometry, block.attributes):
        if hasattr(part, name):
            column: npt.NDArray[Any] = getattr(part, name)
            return column
    raise AttributeError(name)
