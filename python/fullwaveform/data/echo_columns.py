"""The columns of echo tables: each is described here, and computed by the compiled module."""

from __future__ import annotations

import math
from collections.abc import Callable
from dataclasses import dataclass
from typing import TYPE_CHECKING

import numpy as np

from fullwaveform.data.arrays import AnyArray, FloatArray, IntArray
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.data.columns import Column, Table, arrow_schema

if TYPE_CHECKING:
    import pyarrow as pa

#: Column of extra bytes of the discrete returns of echoes, structured by name; only if the input
#: has extra bytes.
EXTRA_BYTES = "extra_bytes"
_COORDINATE = "coordinate unit of the input"
#: Full width at half maximum of a Gaussian of standard deviation 1.
FWHM_PER_SIGMA = 2.0 * math.sqrt(2.0 * math.log(2.0))


@dataclass(frozen=True, slots=True)
class LasDimension:
    """An extra dimension of LAS points."""

    dtype: type[np.generic]
    description: str  # 32 characters at most
    #: Values of the dimension from those of the column, where they differ.
    numbers: Callable[[AnyArray], AnyArray] | None = None

    def of(self, column: AnyArray) -> AnyArray:
        """The values of the dimension, before their conversion to its type."""
        return column if self.numbers is None else self.numbers(column)


@dataclass(frozen=True, slots=True)
class EchoColumn(Column):
    """A column of an echo table."""

    in_tables: bool = True  # False: only for files of a fixed layout (LAS, ASCII)
    las: LasDimension | None = None


ECHO_COLUMNS: tuple[EchoColumn, ...] = (
    EchoColumn("x", np.float64, _COORDINATE, "Easting of the echo"),
    EchoColumn("y", np.float64, _COORDINATE, "Northing of the echo"),
    EchoColumn("z", np.float64, _COORDINATE, "Height of the echo"),
    EchoColumn("gps_time", np.float64, "s", "Time of the shot, as in the input"),
    EchoColumn(
        "echo_number",
        np.int64,
        "1",
        "Number of the echo within its shot, 1 nearest to the scanner; 0 in the row of a waveform "
        "without echoes",
    ),
    EchoColumn("echo_count", np.int64, "1", "Echoes of the shot"),
    EchoColumn(
        "amplitude",
        np.float32,
        "counts",
        "Height of the echo above the baseline",
        las=LasDimension(np.float32, "Height above baseline, counts"),
    ),
    EchoColumn(
        "amplitude_db",
        np.float32,
        "dB",
        "Amplitude relative to the amplitude unit of the scanner; NaN if that unit is unknown",
        las=LasDimension(np.float32, "Echo amplitude, dB"),
    ),
    EchoColumn(
        "amplitude_library_db",
        np.float32,
        "dB",
        "The library's own amplitude, of the fitted or deconvolved signal; an unknown amplitude "
        "unit counts as 1",
        las=LasDimension(np.float32, "Library's own amplitude, dB"),
    ),
    EchoColumn(
        "sigma_ns",
        np.float64,
        "ns",
        "Standard deviation of the echo; NaN for deconvolved echoes, which have no width",
        las=LasDimension(np.float32, "Echo standard deviation, ns"),
    ),
    EchoColumn(
        "fwhm_ns",
        np.float64,
        "ns",
        "Full width at half maximum of the echo, 2 sqrt(2 ln 2) times its standard deviation",
        las=LasDimension(np.float32, "Echo full width at half max, ns"),
    ),
    EchoColumn(
        "sigma_samples",
        np.float64,
        "samples",
        "Standard deviation of the echo; NaN for deconvolved echoes",
        in_tables=False,
    ),
    EchoColumn(
        "position",
        np.float64,
        "samples",
        "Fractional sample index in the waveform, 0 at its first sample",
        las=LasDimension(np.float64, "Fractional sample index"),
    ),
    EchoColumn(
        "position_library",
        np.float64,
        "samples",
        "The library's own position: that of deconvolved echoes is not refined, and includes their "
        "offset",
    ),
    EchoColumn(
        "sigma_position_ns",
        np.float32,
        "ns",
        "Uncertainty of the position: its standard deviation by the noise of the samples",
        las=LasDimension(np.float32, "Uncertainty of position, ns"),
    ),
    EchoColumn(
        "sigma_amplitude",
        np.float32,
        "counts",
        "Uncertainty of the amplitude",
        las=LasDimension(np.float32, "Uncertainty of amplitude, counts"),
    ),
    EchoColumn(
        "sigma_width_ns",
        np.float32,
        "ns",
        "Uncertainty of the full width at half maximum; NaN for deconvolved echoes",
        las=LasDimension(np.float32, "Uncertainty of fwhm_ns, ns"),
    ),
    EchoColumn(
        "sigma_range",
        np.float32,
        "m",
        "Uncertainty of the range: that of the position times half the group velocity of the "
        "scanner",
        las=LasDimension(np.float32, "Uncertainty of range, m"),
    ),
    EchoColumn(
        "significance",
        np.float32,
        "1",
        "Amplitude over its uncertainty, of the pulse fit; NaN in other modes",
        las=LasDimension(np.float32, "Amplitude over its uncertainty"),
    ),
    EchoColumn(
        "fit_flags",
        np.uint8,
        "1",
        "Sum of: 1 width fitted freely, 2 clipped samples, 4 at an end of the waveform, 8 fit not "
        "converged; 0 in other modes than the pulse fit",
        las=LasDimension(np.uint8, "Flags of the pulse fit"),
    ),
    EchoColumn(
        "reduced_chi_square",
        np.float32,
        "1",
        "Of the waveform in the pulse fit, 1 if it explains the samples; NaN in other modes",
        las=LasDimension(np.float32, "Reduced chi square, waveform"),
    ),
    EchoColumn(
        "echo_type",
        np.uint8,
        "1",
        "How the echo was found: 2 three-point fit, 3 and 4 first and second loop of the "
        "decomposition, 5 deconvolution, 6 on board, 8 pulse fit; 0 no echo",
        las=LasDimension(np.uint8, "How the echo was found"),
    ),
    EchoColumn(
        "quality",
        np.uint8,
        "1",
        "0 good; after-pulses (1) and echoes out of range (2) are removed before",
        las=LasDimension(np.uint8, "Quality of the echo"),
    ),
    EchoColumn(
        "reflectance",
        np.float32,
        "dB",
        "Relative reflectance; NaN except for on-board echoes",
        las=LasDimension(np.float32, "Reflectance"),
    ),
    EchoColumn(
        "time",
        np.float64,
        "s",
        "Time of the echo since the first sample of its waveform or, where the input has one, "
        "since the reference time of the pulse",
    ),
    EchoColumn(
        "waveform_number",
        np.int64,
        "1",
        "Running number of the waveform in the input, from 0",
        las=LasDimension(np.uint64, "Number of the waveform, from 0"),
    ),
    EchoColumn(
        "channel_flag",
        np.uint8,
        "1",
        "Channel of the waveform: 1 low power, 0 high power",
        las=LasDimension(np.uint8, "Channel, 1 low and 0 high power"),
    ),
    EchoColumn(
        "descriptor",
        np.uint8,
        "1",
        "Number of the packet descriptor or channel of the waveform in the input; 0 where it has "
        "none",
        las=LasDimension(np.uint8, "Descriptor in the input, 0 none"),
    ),
    EchoColumn(
        "classification",
        np.uint8,
        "1",
        "Class of the discrete return of the scanner within half the width of the echo; 0 without "
        "one",
    ),
    EchoColumn(
        "original_return_number",
        np.uint8,
        "1",
        "Return number of that discrete return; 0 without one",
        las=LasDimension(np.uint8, "Return number in the input"),
    ),
    EchoColumn("scan_angle", np.float32, "degrees", "Scan angle of the shot", in_tables=False),
    EchoColumn(
        "scan_direction_flag", np.uint8, "1", "Scan direction of the shot, 0 or 1", in_tables=False
    ),
    EchoColumn(
        "edge_of_flight_line",
        np.uint8,
        "1",
        "1 for a shot at the edge of the scan, else 0",
        in_tables=False,
    ),
    EchoColumn("user_data", np.uint8, "1", "User data of the shot", in_tables=False),
    EchoColumn("point_source_id", np.uint16, "1", "Point source ID of the shot", in_tables=False),
)


def _beam_numbers(names: AnyArray) -> IntArray:
    """The number in the binary digits at the end of each name; 0 without one."""
    distinct, which = np.unique(names, return_inverse=True)
    digits = [str(name)[len(str(name).rstrip("01")) :] for name in distinct]
    numbers = np.array([int(text[-8:], 2) if text else 0 for text in digits], np.int64)
    return numbers[which]


#: Columns that only inputs with beams or numbers of shots have; they follow the others.
SHOT_COLUMNS: tuple[EchoColumn, ...] = (
    EchoColumn(
        "beam",
        np.str_,
        "1",
        "Beam of the shot, by its name in the input",
        las=LasDimension(np.uint8, "Number of the beam", _beam_numbers),
    ),
    EchoColumn(
        "shot_number",
        np.uint64,
        "1",
        "Number of the shot in the input",
        las=LasDimension(np.uint64, "Number of the shot in the input"),
    ),
)


def shot_columns_of(block: WaveformBlock) -> tuple[str, ...]:
    """Names of those of `SHOT_COLUMNS` that the waveforms of a block have."""
    return tuple(shot_values_of(block))


def shot_values_of(block: WaveformBlock) -> dict[str, AnyArray]:
    """The values (n,) of those of `SHOT_COLUMNS` that the waveforms of a block have."""
    known = {"beam": block.beams, "shot_number": block.shot_numbers}
    return {name: values for name, values in known.items() if values is not None}


def echo_columns(shot_columns: tuple[str, ...] = ()) -> tuple[EchoColumn, ...]:
    """All columns of an echo table; `shot_columns` names those of `SHOT_COLUMNS` that it has."""
    return (*ECHO_COLUMNS, *(column for column in SHOT_COLUMNS if column.name in shot_columns))


class EchoTable(Table):
    """Echoes with the columns of `ECHO_COLUMNS`, and of `SHOT_COLUMNS` those that the input has.

    The echoes of a shot are consecutive, ordered along the flight of light. The column EXTRA_BYTES
    is there if the input has extra bytes and echoes take them over.
    """

    @property
    def shot_columns(self) -> tuple[str, ...]:
        """Names of those of `SHOT_COLUMNS` that the table has."""
        return tuple(column.name for column in SHOT_COLUMNS if column.name in self.columns)

    @property
    def xyz(self) -> FloatArray:
        """Coordinates (m, 3)."""
        return np.column_stack([self["x"], self["y"], self["z"]])


def table_columns(shot_columns: tuple[str, ...] = ()) -> tuple[EchoColumn, ...]:
    """The columns of CSV, Parquet and HDF5 files and of Arrow tables.

    `shot_columns` names those of `SHOT_COLUMNS` that the input has.
    """
    return tuple(column for column in echo_columns(shot_columns) if column.in_tables)


def las_dimensions(shot_columns: tuple[str, ...] = ()) -> dict[str, LasDimension]:
    """The extra dimensions of LAS files of echoes, by name of the column; see `table_columns`."""
    columns = echo_columns(shot_columns)
    return {column.name: column.las for column in columns if column.las is not None}


def echo_schema(shot_columns: tuple[str, ...] = ()) -> pa.Schema:
    """Schema of Arrow tables of echoes; see `table_columns`."""
    return arrow_schema(table_columns(shot_columns))


def echo_table_to_arrow(echoes: EchoTable) -> pa.Table:
    """The echoes as a table of pyarrow with `echo_schema`, one row each, NaN where undefined."""
    return echoes.to_arrow(table_columns(echoes.shot_columns))
