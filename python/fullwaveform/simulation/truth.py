"""The true echoes of a simulated scan, as a table and as a CSV file."""

from __future__ import annotations

from dataclasses import dataclass, fields
from pathlib import Path

import numpy as np
import pyarrow as pa
from pyarrow import csv

from fullwaveform.data.arrays import BoolArray, FloatArray, IntArray, UInt8Array
from fullwaveform.data.errors import WaveformFileError


@dataclass(frozen=True, slots=True)
class TruthTable:
    """True echoes by shot, and along the flight of light within a shot.

    The names are the columns of the CSV file.
    """

    shot: IntArray  # number of the shot, from 0
    gps_time: FloatArray  # s, of the shot
    echo_number: IntArray  # 1 = nearest to the scanner within the shot
    time_in_record_ns: FloatArray  # ns after the first sample
    position_samples: FloatArray  # samples
    x: FloatArray  # m
    y: FloatArray  # m
    z: FloatArray  # m
    amplitude_low_power: FloatArray  # above the baseline, before clipping
    amplitude_high_power: FloatArray  # the same in the high-power channel
    sigma_samples: FloatArray  # standard deviation
    neighbour_distance_samples: FloatArray  # to the next echo of the shot; infinite if none
    overlapping: BoolArray  # nearest other echo closer than 4 standard deviations
    saturated: BoolArray  # low-power channel clipped within one width of the position
    classification: UInt8Array  # ASPRS class of the reflecting surface

    def __len__(self) -> int:
        return len(self.shot)

    @property
    def xyz(self) -> FloatArray:
        """Positions in space, (n, 3), m."""
        return np.column_stack([self.x, self.y, self.z])


_TYPES = {
    "shot": pa.int64(),
    "echo_number": pa.int64(),
    "overlapping": pa.bool_(),
    "saturated": pa.bool_(),
    "classification": pa.uint8(),
}  # every other column is double


def write_truth(truth: TruthTable, path: Path) -> None:
    """Write the table as CSV with a header line."""
    names = [column.name for column in fields(TruthTable)]
    csv.write_csv(pa.table({name: getattr(truth, name) for name in names}), path)


def is_truth(path: Path) -> bool:
    """Whether the file starts like one of `write_truth`, of any version."""
    with path.open(encoding="ascii") as file:
        names = file.readline(4096).rstrip("\n").replace('"', "").split(",")
    return names[:3] == ["shot", "gps_time", "echo_number"]


def read_truth(path: Path | str) -> TruthTable:
    """Read the table that `write_scan` wrote.

    Raises OSError if the file cannot be read, WaveformFileError if a column is missing or a value
    has a wrong type.
    """
    names = [column.name for column in fields(TruthTable)]
    types = {name: _TYPES.get(name, pa.float64()) for name in names}
    options = csv.ConvertOptions(column_types=types, include_columns=names)
    try:
        table = csv.read_csv(path, convert_options=options)
    except (pa.ArrowInvalid, pa.ArrowKeyError) as error:
        raise WaveformFileError(f"{path}: not a table of true echoes: {error}") from error
    columns = {name: table[name].to_numpy().copy() for name in names}
    return TruthTable(**columns)
