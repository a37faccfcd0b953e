"""Waveforms of a scan container, block by block."""

from __future__ import annotations

import os
from collections.abc import Mapping
from dataclasses import replace
from pathlib import Path
from typing import Any

import h5py
import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.attributes import read_las_header, read_scanner_attributes
from fullwaveform.io.container.layout import (
    AFTER_PULSE,
    DECONVOLUTION,
    FIELDS,
    FORMAT,
    VERSION,
    WAVEFORMS,
    Field,
)
from fullwaveform.io.container.values import damage_told, plain_value
from fullwaveform.io.las.waveform_packets import MAX_SAMPLES
from fullwaveform.io.waveform_rows import RowReader, Rows, WaveformRows

_MOST_ROWS_PER_BYTE = 100  # gzip makes a thousandth of equal values; a row has fifteen columns
_LARGEST_CHUNK = 1 << 28  # bytes; HDF5 holds whole chunks in memory


class ScanContainerReader(RowReader):
    """Reads the waveforms of a scan container, an HDF5 file as docs/file-formats.md describes it.

    Parameters
    ----------
    path
        The file.
    waveforms_per_block
        As in `WaveformReader`.
    channel_flags
        Taken as in `WaveformReader`, but the file itself says the flag of every waveform; a note in
        the tally says so if flags other than 1 are given.

    Raises as `RowReader`.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        waveforms_per_block: int = 20_000,
        channel_flags: Mapping[int, int] | int = 1,
    ) -> None:
        super().__init__(path, waveforms_per_block, channel_flags)
        self._file = _open(self._path)
        try:
            with damage_told(self._path, "the structure of the file"):
                _check_format(self._file, self._path)
                self._columns = _columns(self._file, self._path)
                rows, width = self._file[WAVEFORMS].shape
                self._size = int(rows), int(width)
                self._header = read_las_header(self._file, self._path)
        except BaseException:
            self._file.close()
            raise
        self._begin_anew(self._note_on_unused_flags())

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._file.close()

    @property
    def header(self) -> laspy.LasHeader | None:
        """The LAS header that files of its echoes follow; None without a place in space."""
        return self._header

    def scanner_attributes(self) -> dict[str, Any] | None:
        """The scanner's attributes by the names of the host's grids; None if the file has none.

        `Scanner.from_attributes` takes them. Raises WaveformFileError for an attribute that cannot
        be read.
        """
        self._check_that_it_is_open()
        return read_scanner_attributes(self._file, self._path)

    def scanner(self) -> Scanner | None:
        """The scanner's description with its after-pulse and offsets; None if the file has none.

        Raises
        ------
        ValueError
            If attributes are missing or of a wrong type.
        """
        attributes = self.scanner_attributes()
        if attributes is None:
            return None
        with damage_told(self._path, "the scanner's description"):
            scanner = Scanner.from_attributes(attributes)
            if AFTER_PULSE in self._file:
                values = {name: int(value) for name, value in self._file[AFTER_PULSE].attrs.items()}
                scanner = replace(scanner, after_pulse=AfterPulse(**values))
            if DECONVOLUTION in self._file:
                offsets = self._file[DECONVOLUTION].attrs
                hybrid = offsets.get("position_offset_hybrid")
                scanner = replace(
                    scanner,
                    deconvolution_offset=float(offsets["position_offset"]),
                    deconvolution_offset_hybrid=None if hybrid is None else float(hybrid),
                )
        return scanner

    @property
    def _shape(self) -> tuple[int, int]:
        return self._size

    def _rows(self) -> WaveformRows:
        return self._columns

    def _read(self, column: Rows, rows: slice) -> npt.NDArray[Any]:
        with damage_told(self._path, f"a dataset from row {rows.start} to {rows.stop}"):
            values = column[rows]
        return values.astype(values.dtype.newbyteorder("="), copy=False)


def _open(path: Path) -> h5py.File:
    with path.open("rb"):  # a missing file or a folder has its own error
        pass
    with damage_told(path, "its HDF5 structure"):
        return h5py.File(path, "r")


def _check_format(file: h5py.File, path: Path) -> None:
    found = plain_value(file.attrs.get("format"))
    if not isinstance(found, str) or found != FORMAT:
        raise WaveformFileError(
            f"{path} is an HDF5 file but no scan container: its attribute format is {found!r}, "
            f"must be {FORMAT!r}"
        )
    version = plain_value(file.attrs.get("format_version"))
    if not isinstance(version, int) or version != VERSION:
        raise WaveformFileError(
            f"{path} has format_version {version!r}; version {VERSION} can be read"
        )


def _columns(file: h5py.File, path: Path) -> WaveformRows:
    datasets: dict[str, h5py.Dataset] = {}
    for field in FIELDS:
        dataset = _dataset(file, field, path)
        if field.column == "samples":
            rows, width = dataset.shape
            if rows > _MOST_ROWS_PER_BYTE * path.stat().st_size:
                raise WaveformFileError(
                    f"{path} announces {rows} waveforms, more than a file of "
                    f"{path.stat().st_size} bytes can hold"
                )
            if width > MAX_SAMPLES:
                raise WaveformFileError(
                    f"{path}: rows of {width} samples; at most {MAX_SAMPLES} can be read"
                )
        elif dataset.shape != (rows, *field.shape):
            raise WaveformFileError(
                f"{path}: dataset {field.path} has the shape {dataset.shape}, must have "
                f"{(rows, *field.shape)} like the {rows} rows of {WAVEFORMS}"
            )
        datasets[field.column] = dataset
    return WaveformRows(**datasets)


def _dataset(file: h5py.File, field: Field, path: Path) -> h5py.Dataset:
    dataset = file.get(field.path)
    if not isinstance(dataset, h5py.Dataset):
        raise WaveformFileError(f"{path}: the dataset {field.path} is missing")
    if dataset.dtype.newbyteorder("=") != np.dtype(field.dtype):
        raise WaveformFileError(
            f"{path}: dataset {field.path} holds {dataset.dtype}, must hold {np.dtype(field.dtype)}"
        )
    if field.column == "samples" and dataset.ndim != 2:
        raise WaveformFileError(
            f"{path}: dataset {field.path} has the shape {dataset.shape}, must have the "
            "dimensions waveforms and samples"
        )
    if dataset.chunks and int(np.prod(dataset.chunks)) * dataset.dtype.itemsize > _LARGEST_CHUNK:
        raise WaveformFileError(
            f"{path}: chunks of dataset {field.path} have the shape {dataset.chunks}; a chunk may "
            f"take {_LARGEST_CHUNK >> 20} MiB at most"
        )
    return dataset
