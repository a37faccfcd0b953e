"""Scanner description and LAS header in a scan container."""

from __future__ import annotations

import uuid
from collections.abc import Mapping
from datetime import date
from pathlib import Path
from typing import Any

import h5py
import laspy
import numpy as np
from laspy.vlrs.known import vlr_factory

from fullwaveform.core.scanner import Scanner
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.container.layout import (
    AFTER_PULSE,
    DECONVOLUTION,
    INTERVAL_ATTRIBUTE,
    LAS,
    REFERENCE_TIME_ATTRIBUTE,
    SBL_TIME,
    SCANNER,
    WAVEFORMS,
)
from fullwaveform.io.container.values import damaged_file_errors, plain_value, stored_text
from fullwaveform.io.las.points import WAVEFORM_POINT_FORMATS

_SUMS = ("a_real", "a_imag", "b_real", "b_imag")
_SINGLE_PRECISION = ("Wavelength[nm]", "reflectance_calculation_table")
_PROJECTION = "LASF_Projection"


def write_scanner(file: h5py.File, scanner: Scanner) -> None:
    """Store the attributes where the host's grids have them, except the sampling interval."""
    group = file.create_group(SCANNER)
    for name, value in scanner.attributes.items():
        if name in _SUMS:
            file[WAVEFORMS].attrs[name] = np.asarray(value, dtype=np.float64)
        elif name == REFERENCE_TIME_ATTRIBUTE:
            file[SBL_TIME].attrs[name] = np.float64(value)  # type: ignore[arg-type]
        elif isinstance(value, str):
            group.attrs[name] = stored_text(value)
        elif name != INTERVAL_ATTRIBUTE:
            kind = np.float32 if name in _SINGLE_PRECISION else np.float64
            group.attrs[name] = np.asarray(value, dtype=kind)
    if scanner.after_pulse is not None:
        after_pulse = file.create_group(AFTER_PULSE).attrs
        after_pulse["offset"] = np.uint32(scanner.after_pulse.offset)
        after_pulse["width"] = np.uint32(scanner.after_pulse.width)
    if scanner.deconvolution_offset or scanner.deconvolution_offset_hybrid is not None:
        offsets = file.create_group(DECONVOLUTION).attrs
        offsets["position_offset"] = scanner.deconvolution_offset
        if scanner.deconvolution_offset_hybrid is not None:
            offsets["position_offset_hybrid"] = scanner.deconvolution_offset_hybrid


def read_scanner_attributes(file: h5py.File, path: Path) -> dict[str, Any] | None:
    """The attributes of both grids as Python types; None if the file describes no scanner."""
    if SCANNER not in file:
        return None
    with damaged_file_errors(path, "scanner description"):
        found = _plain_attributes(file[SCANNER].attrs)
        waveforms, times = (_plain_attributes(file[name].attrs) for name in (WAVEFORMS, SBL_TIME))
    found |= {
        name: value for name, value in waveforms.items() if name in (*_SUMS, INTERVAL_ATTRIBUTE)
    }
    if REFERENCE_TIME_ATTRIBUTE in times:
        found[REFERENCE_TIME_ATTRIBUTE] = times[REFERENCE_TIME_ATTRIBUTE]
    return found


def write_las_header(file: h5py.File, header: laspy.LasHeader) -> None:
    """Store what files of echoes need: version, scales, offsets, type of time, projection."""
    group = file.create_group(LAS)
    group.attrs["version"] = stored_text(str(header.version))
    group.attrs["point_format"] = np.uint8(header.point_format.id)
    group.attrs["scales"] = np.asarray(header.scales, dtype=np.float64)
    group.attrs["offsets"] = np.asarray(header.offsets, dtype=np.float64)
    group.attrs["file_source_id"] = np.uint16(header.file_source_id)
    group.attrs["system_identifier"] = stored_text(_text(header.system_identifier))
    group.attrs["generating_software"] = stored_text(_text(header.generating_software))
    if header.creation_date is not None:
        group.attrs["creation_date"] = stored_text(header.creation_date.isoformat())
    group.attrs["mins"] = np.asarray(header.mins, dtype=np.float64)
    group.attrs["maxs"] = np.asarray(header.maxs, dtype=np.float64)
    group.attrs["guid"] = stored_text(str(header.uuid))
    group.attrs["global_encoding"] = np.uint16(header.global_encoding.value)
    if header.version.minor >= 5:
        group.attrs["gps_time_offset"] = np.int32(header.gps_time_offset)
    for kind, records in (("records", header.vlrs), ("extended_records", header.evlrs or [])):
        for record in (one for one in records if one.user_id == _PROJECTION):
            content = np.frombuffer(record.record_data_bytes(), dtype=np.uint8)
            dataset = group.require_group(kind).create_dataset(
                f"{record.record_id}", data=content, track_times=False
            )
            dataset.attrs["description"] = stored_text(record.description)


def read_las_header(file: h5py.File, path: Path) -> laspy.LasHeader | None:
    """The LAS header for files of echoes; None if the file has none.

    Raises
    ------
    WaveformFileError
        If an attribute is missing or invalid.
    """
    if LAS not in file:
        return None
    with damaged_file_errors(path, f"group {LAS}"):
        group = file[LAS]
        values = _plain_attributes(group.attrs)
        header = laspy.LasHeader(
            version=values["version"], point_format=int(values["point_format"])
        )
        header.scales, header.offsets = _triple(values["scales"]), _triple(values["offsets"])
        header.file_source_id = int(values["file_source_id"])
        header.uuid = uuid.UUID(values["guid"])
        header.global_encoding.value = int(values["global_encoding"])
        if header.version.minor >= 5:
            header.gps_time_offset = int(values["gps_time_offset"])
        _read_origin(values, header)
        header.vlrs.extend(_records(group, "records"))
        if extended := _records(group, "extended_records"):
            header.evlrs = laspy.vlrs.vlrlist.VLRList(extended)
    _check_header(header, path)
    return header


def _read_origin(values: Mapping[str, Any], header: laspy.LasHeader) -> None:
    """Set what the first containers did not store."""
    header.system_identifier = values.get("system_identifier", "")
    header.generating_software = values.get("generating_software", "")
    header.creation_date = None
    if "creation_date" in values:
        header.creation_date = date.fromisoformat(values["creation_date"])
    if "mins" in values and "maxs" in values:
        header.mins, header.maxs = _triple(values["mins"]), _triple(values["maxs"])


def _text(value: str | bytes) -> str:
    return value.decode("ascii", "replace") if isinstance(value, bytes) else value


def _triple(values: Any) -> np.ndarray[Any, np.dtype[np.float64]]:
    triple = np.asarray(values, dtype=np.float64)
    if triple.shape != (3,):
        raise ValueError(f"invalid scales or offsets {values!r}; must be three numbers")
    return triple


def _check_header(header: laspy.LasHeader, path: Path) -> None:
    if header.point_format.id not in WAVEFORM_POINT_FORMATS:
        raise WaveformFileError(
            f"{path}: invalid point_format {header.point_format.id} in group {LAS}; must be "
            "4, 5, 9 or 10"
        )
    valid = np.isfinite(header.scales) & np.isfinite(header.offsets) & (header.scales != 0)
    if not valid.all():
        raise WaveformFileError(
            f"{path}: invalid scales {header.scales} and offsets {header.offsets} of the "
            "coordinates; must be finite, scales not 0"
        )


def _records(group: h5py.Group, kind: str) -> list[laspy.VLR]:
    if kind not in group:
        return []
    return [
        vlr_factory(
            laspy.VLR(
                _PROJECTION,
                int(name),
                plain_value(dataset.attrs["description"]),
                dataset[:].tobytes(),
            )
        )
        for name, dataset in sorted(group[kind].items(), key=lambda item: int(item[0]))
    ]


def _plain_attributes(attributes: Mapping[str, Any]) -> dict[str, Any]:
    """Texts, numbers and lists of numbers as Python types."""
    return {name: plain_value(value) for name, value in attributes.items()}
