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
from fullwaveform.data.blocks import MAX_SMOOTHING
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.array_reader import (
    ArrayReader,
    OutgoingArrays,
    SliceableArray,
    WaveformArrays,
)
from fullwaveform.io.container.attributes import read_las_header, read_scanner_attributes
from fullwaveform.io.container.layout import (
    AFTER_PULSE,
    DECONVOLUTION,
    FIELDS,
    FORMAT,
    NOISE_FIELDS,
    OUTGOING,
    OUTGOING_FIELDS,
    SHOT_FIELDS,
    SMOOTHING_ATTRIBUTE,
    SPACE,
    VERSION,
    WAVEFORMS,
    Field,
)
from fullwaveform.io.container.values import damaged_file_errors, plain_value
from fullwaveform.io.hdf5.datasets import check_chunks, check_rows, check_text
from fullwaveform.io.limits import MAX_SAMPLES
from fullwaveform.io.remote import path_or_stream


class ScanContainerReader(ArrayReader):
    """Reads the waveforms of a scan container, the HDF5 layout in docs/file-formats.md.

    Parameters
    ----------
    path
        The file.
    waveforms_per_block
        As in `WaveformReader`.
    channel_flags
        Ignored: the file stores the flag of every waveform. A note in the tally says so if flags
        other than 1 are given.

    Raises as `ArrayReader`.
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
            with damaged_file_errors(self._path, "file structure"):
                _check_format(self._file, self._path)
                self._columns = _columns(self._file, self._path)
                rows, width = self._file[WAVEFORMS].shape
                self._shape = int(rows), int(width)
                self._sent = _outgoing_columns(self._file, int(rows), self._path)
                self._smoothing = _smoothing(self._file, self._path)
                self._header = read_las_header(self._file, self._path)
        except BaseException:
            self._file.close()
            raise
        self._set_notes(self._note_on_unused_flags())

    def close(self) -> None:
        """Close the file; may be called twice."""
        super().close()
        self._file.close()

    @property
    def header(self) -> laspy.LasHeader | None:
        """LAS header for files of its echoes; None if the waveforms are not georeferenced."""
        return self._header

    @property
    def has_outgoing(self) -> bool:
        """Whether the file has the group of outgoing pulses."""
        return self._sent is not None

    def _outgoing_arrays(self) -> OutgoingArrays:
        assert self._sent is not None  # has_outgoing
        return self._sent

    def scanner_attributes(self) -> dict[str, Any] | None:
        """Attributes of the scanner as named in the host's grids; None if the file has none.

        They are arguments of `Scanner.from_attributes`. Raises WaveformFileError for an unreadable
        attribute.
        """
        self._check_open()
        return read_scanner_attributes(self._file, self._path)

    def scanner(self) -> Scanner | None:
        """The scanner description with after-pulse and offsets; None if the file has none.

        Raises
        ------
        ValueError
            If attributes are missing or have the wrong type.
        """
        attributes = self.scanner_attributes()
        if attributes is None:
            return None
        with damaged_file_errors(self._path, "scanner description"):
            try:
                return self._described(Scanner.from_attributes(attributes))
            except ValueError as error:
                message = f"{self._path}: invalid scanner description: {error}"
                raise WaveformFileError(message) from error

    def _described(self, scanner: Scanner) -> Scanner:
        """The scanner with after-pulse and offsets of the file."""
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

    def _read(self, column: SliceableArray, rows: slice) -> npt.NDArray[Any]:
        with damaged_file_errors(self._path, f"rows {rows.start} to {rows.stop} of a dataset"):
            values = column[rows]
        return values.astype(values.dtype.newbyteorder("="), copy=False)


def _open(path: Path) -> h5py.File:
    with path.open("rb"):  # a clear error for a missing file or a folder
        pass
    with damaged_file_errors(path, "HDF5 structure"):
        return h5py.File(path_or_stream(path), "r")


def _check_format(file: h5py.File, path: Path) -> None:
    found = plain_value(file.attrs.get("format"))
    if not isinstance(found, str) or found != FORMAT:
        raise WaveformFileError(
            f"{path} is an HDF5 file but not a scan container: attribute format is {found!r}; "
            f"must be {FORMAT!r}"
        )
    version = plain_value(file.attrs.get("format_version"))
    if not isinstance(version, int) or version != VERSION:
        raise WaveformFileError(
            f"{path}: unsupported format_version {version!r}; must be {VERSION}"
        )


def _columns(file: h5py.File, path: Path) -> WaveformArrays:
    rows = _dataset(file, FIELDS[0], path).shape[0]
    check_rows(rows, path)
    known = tuple(field for field in SHOT_FIELDS if field.path in file)
    if any(field.path in file for field in NOISE_FIELDS):
        known += NOISE_FIELDS
    return WaveformArrays(**_datasets(file, (*FIELDS, *known), rows, path))


def _smoothing(file: h5py.File, path: Path) -> float:
    """Standard deviation in s; 0: none."""
    found = plain_value(file[WAVEFORMS].attrs.get(SMOOTHING_ATTRIBUTE, 0.0))
    if not isinstance(found, float) or not 0.0 <= found <= MAX_SMOOTHING:
        raise WaveformFileError(
            f"{path}: attribute {SMOOTHING_ATTRIBUTE} of {WAVEFORMS} is {found!r}; must be 0 to "
            f"{MAX_SMOOTHING:g} s"
        )
    return found


def _outgoing_columns(file: h5py.File, rows: int, path: Path) -> OutgoingArrays | None:
    if OUTGOING not in file:
        return None
    return OutgoingArrays(**_datasets(file, OUTGOING_FIELDS, rows, path))


def _datasets(
    file: h5py.File, fields: tuple[Field, ...], rows: int, path: Path
) -> dict[str, SliceableArray]:
    datasets: dict[str, SliceableArray] = {}
    for field in fields:
        in_missing_group = field.path.startswith(f"{SPACE}/") and SPACE not in file
        if in_missing_group or (field.is_optional and field.path not in file):
            missing = field.dtype(field.missing)
            datasets[field.column] = np.broadcast_to(missing, (rows, *field.shape))
            continue
        dataset = _dataset(file, field, path)
        width = dataset.shape[1:2] if field.column == "samples" else field.shape
        if dataset.shape != (rows, *width):
            raise WaveformFileError(
                f"{path}: dataset {field.path} has shape {dataset.shape}; expected "
                f"{(rows, *width)} for the {rows} rows of {WAVEFORMS}"
            )
        if field.column == "samples" and width > (MAX_SAMPLES,):
            raise WaveformFileError(
                f"{path}: rows of {width[0]} samples; at most {MAX_SAMPLES} are allowed"
            )
        datasets[field.column] = dataset
    return datasets


def _dataset(file: h5py.File, field: Field, path: Path) -> h5py.Dataset:
    dataset = file.get(field.path)
    if not isinstance(dataset, h5py.Dataset):
        raise WaveformFileError(f"{path}: missing dataset {field.path}")
    if field.dtype is np.bytes_:
        check_text(dataset, path)
    elif dataset.dtype.newbyteorder("=") != np.dtype(field.dtype):
        raise WaveformFileError(
            f"{path}: dataset {field.path} has type {dataset.dtype}; must be "
            f"{np.dtype(field.dtype)}"
        )
    if field.column == "samples" and dataset.ndim != 2:
        raise WaveformFileError(
            f"{path}: dataset {field.path} has shape {dataset.shape}; must have 2 dimensions, "
            "waveforms and samples"
        )
    check_chunks(dataset, field.path, path)
    return dataset
