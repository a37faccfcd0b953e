"""Waveforms as a scan container, block by block."""

from __future__ import annotations

import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import h5py
import laspy
import numpy as np

from fullwaveform import __version__
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.atomic import FileKind, OutputFile
from fullwaveform.io.container.attributes import write_las_header, write_scanner
from fullwaveform.io.container.layout import (
    BEAM_TEXT,
    FIELDS,
    FORMAT,
    INTERVAL_ATTRIBUTE,
    NOISE_FIELDS,
    OUTGOING_FIELDS,
    REFERENCE_TIME_ATTRIBUTE,
    SBL_TIME,
    SHOT_FIELDS,
    SMOOTHING_ATTRIBUTE,
    VERSION,
    WAVEFORMS,
    Field,
)
from fullwaveform.io.container.values import plain_value, stored_text
from fullwaveform.io.file_writer import FileWriter
from fullwaveform.io.remote import path_or_stream

_CHUNK_BYTES = 1 << 19  # approximate limit of a chunk
_MAX_CHUNK_ROWS = 1 << 16
_COMPRESSION_LEVEL = 4


def _is_container(path: Path) -> bool:
    with h5py.File(path_or_stream(path)) as file:
        return bool(plain_value(file.attrs["format"]) == FORMAT)


class ScanContainerWriter(FileWriter):
    """Writes blocks of waveforms to a scan container.

    Parameters
    ----------
    path
        The file.
    header
        LAS header for files of echoes; None if the waveforms are not georeferenced.
    scanner
        Description of the scanner; None if unknown.

    `count` is the number of waveforms written.
    """

    kind = FileKind("a scan container", _is_container)
    _file: h5py.File

    def __init__(
        self,
        path: str | os.PathLike[str],
        header: laspy.LasHeader | None,
        scanner: Scanner | None = None,
    ) -> None:
        super().__init__(path)
        self._header, self._scanner = header, scanner
        self._intervals: set[float] = set()
        self._smoothings: set[float] = set()  # s
        self._last_shot: float | None = None
        self._has_outgoing: bool | None = None  # None before the first block

    def write(self, block: WaveformBlock) -> None:
        """Append the waveforms of a block.

        Raises
        ------
        ValueError
            Outside the ``with`` statement, if the block continues the last shot of the previous
            block, or if only some blocks have outgoing pulses.
        """
        stream = self._open_stream()
        if len(block) == 0:
            return
        if block.shot_times[0] == self._last_shot:
            raise ValueError(
                f"the shot at {self._last_shot} s is in two blocks; a block must hold whole shots"
            )
        if self._has_outgoing is None:
            self._has_outgoing = block.outgoing is not None
        if self._has_outgoing != (block.outgoing is not None):
            raise ValueError("either all blocks or none must have outgoing pulses")
        for field in FIELDS:
            self._append(field, _column(block, field.column))
        for field in SHOT_FIELDS:
            if (values := getattr(block, field.column)) is not None:
                self._append(field, values)
        if block.noise is not None:
            for field, values in zip(
                NOISE_FIELDS, (block.noise.mean, block.noise.rms), strict=True
            ):
                self._append(field, values)
        for field in OUTGOING_FIELDS if block.outgoing is not None else ():
            self._append(field, getattr(block.outgoing, field.column))
        self.count += len(block)
        self._last_shot = float(block.shot_times[-1])
        self._intervals.update(np.unique(block.sampling_intervals).tolist())
        self._smoothings.add(block.smoothing)
        stream.check()

    @contextmanager
    def _content(self, stream: OutputFile) -> Iterator[None]:
        with h5py.File(stream, "w") as self._file:
            yield
            self._finish(self._file)

    def _append(self, field: Field, values: AnyArray) -> None:
        file = self._file
        if field.path not in file:
            _create(file, field, values.shape[1] if field.column == "samples" else 0)
        dataset = file[field.path]
        dataset.resize(self.count + len(values), axis=0)
        if field.column == "samples":
            dataset.resize(max(dataset.shape[1], values.shape[1]), axis=1)
            dataset[self.count :, : values.shape[1]] = values
        else:
            dataset[self.count :] = values.astype(dataset.dtype, copy=False)

    def _finish(self, file: h5py.File) -> None:
        for field in FIELDS:
            if field.path not in file:  # no block was written
                _create(file, field, 0)
        file.attrs["format"] = stored_text(FORMAT)
        file.attrs["format_version"] = np.int32(VERSION)
        file.attrs["software"] = stored_text(f"fullwaveform {__version__}")
        file[SBL_TIME].attrs[REFERENCE_TIME_ATTRIBUTE] = 0.0
        if len(self._intervals) == 1:
            file[WAVEFORMS].attrs[INTERVAL_ATTRIBUTE] = self._intervals.pop()
        if len(self._smoothings) == 1 and (smoothing := self._smoothings.pop()) > 0.0:
            file[WAVEFORMS].attrs[SMOOTHING_ATTRIBUTE] = smoothing
        if self._scanner is not None:
            write_scanner(file, self._scanner)
        if self._header is not None:
            write_las_header(file, self._header)


def _create(file: h5py.File, field: Field, width: int) -> None:
    row = (width,) if field.column == "samples" else field.shape
    dtype = BEAM_TEXT if field.dtype is np.bytes_ else np.dtype(field.dtype)
    row_bytes = max(int(np.prod(row, dtype=np.int64)), 1) * dtype.itemsize
    rows = min(max(_CHUNK_BYTES // row_bytes, 1), _MAX_CHUNK_ROWS)
    dataset = file.create_dataset(
        field.path,
        shape=(0, *row),
        maxshape=(None, *((None,) if field.column == "samples" else field.shape)),
        dtype=dtype,
        chunks=(rows, *(max(size, 1) for size in row)),
        compression="gzip",
        compression_opts=_COMPRESSION_LEVEL,
        shuffle=True,
        track_times=False,
    )
    dataset.attrs["unit"] = stored_text(field.unit)


def _column(block: WaveformBlock, name: str) -> AnyArray:
    parts = (block, block.geometry, block.attributes)
    column: AnyArray = next(getattr(part, name) for part in parts if hasattr(part, name))
    return column
