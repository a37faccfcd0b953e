"""The echoes a simulated scan was made of, as a table and as a CSV file."""

from __future__ import annotations

from dataclasses import dataclass, fields
from pathlib import Path

import numpy as np
import numpy.typing as npt
import pyarrow as pa
from pyarrow import csv

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.errors import WaveformFileError


@dataclass(frozen=True, slots=True)
class TruthTable:
    """True echoes, one entry each, by shot and then along the flight of light.

    The names are the columns of the CSV file.
    """

    shot: npt.NDArray[np.int64]  # running number of the shot, from 0
    gps_time: FloatArray  # s, of the shot, as in the points
    echo_number: npt.NDArray[np.int64]  # 1 = nearest to the scanner within the shot
    time_in_record_ns: FloatArray  # ns after the record's first sample
    position_samples: FloatArray  # the same in samples
    x: FloatArray  # m
    y: FloatArray  # m
    z: FloatArray  # m
    amplitude_low_power_counts: FloatArray  # above the baseline, before clipping
    amplitude_high_counts: FloatArray  # the same in the less sensitive channel
    width_samples: FloatArray  # standard deviation
    neighbour_distance_samples: FloatArray  # to the shot's nearest other echo, infinite if alone
    overlapping: npt.NDArray[np.bool_]  # neighbour closer than 4 of the echo's standard deviations
    saturated: npt.NDArray[np.bool_]  # low-power channel clips within one width of the position
    classification: npt.NDArray[np.uint8]  # ASPRS class of what reflected

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
    """The table as CSV with one line of names; numbers in the shortest form that reads back."""
    names = [column.name for column in fields(TruthTable)]
    csv.write_csv(pa.table({name: getattr(truth, name) for name in names}), path)


def read_truth(path: Path | str) -> TruthTable:
    """The table that `write_scan` put beside a scan.

    Raises OSError when there is no such file, WaveformFileError when a column is missing or a
    value is not of its kind.
    """
    names = [column.name for column in fields(TruthTable)]
    types = {name: _TYPES.get(name, pa.float64()) for name in names}
    options = csv.ConvertOptions(column_types=types, include_columns=names)
    try:
        table = csv.read_csv(path, convert_options=options)
    except (pa.ArrowInvalid, pa.ArrowKeyError) as error:
        raise WaveformFileError(f"{path} is not a table of true echoes: {error}") from error
    columns = {name: table[name].to_numpy().copy() for name in names}
    return TruthTable(**columns)
