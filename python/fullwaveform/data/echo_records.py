"""Echoes or discrete returns of a file of any format, as the comparison needs them."""

from __future__ import annotations

from collections.abc import Callable, Collection, Iterator, Mapping
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from fullwaveform.data.arrays import AnyArray, RecordArray

#: Columns (n,) of consecutive rows of a file, by their names.
Rows = Mapping[str, AnyArray]

#: Quantities of an echo that two files may both have; NaN where a file has none.
QUANTITIES = {"amplitude": "counts", "amplitude_db": "dB", "fwhm_ns": "ns", "intensity": "1"}

#: One echo or discrete return; places in the coordinate unit of the file.
ECHO_RECORD = np.dtype(
    [
        ("row", np.int64),  # number in its file, from 0
        ("gps_time", np.float64),  # s, NaN if unknown
        ("xyz", np.float64, 3),
        ("flight", np.float64, 3),  # unit vector along the flight of light, NaN if unknown
        ("shot", np.int64),  # bits of the unsigned number of the shot
        ("is_numbered", np.bool_),  # whether the file numbers its shots
        ("beam", np.int64),  # number; -1 if the file has no beams
        ("channel", np.uint8),  # packet descriptor of a discrete return, else 0
        *((name, np.float64) for name in QUANTITIES),
    ]
)


@dataclass(frozen=True)
class EchoFile:
    """A file whose records can be read block by block, any number of times."""

    path: Path
    has_returns: bool  # discrete returns of the scanner's electronics, not echoes of waveforms
    blocks: Callable[[], Iterator[RecordArray]]  # of `ECHO_RECORD`, in the order of the file
    #: Of all rows or points, also those that are no echoes, the columns with one of the names;
    #: those that the file does not have are missing.
    rows: Callable[[Collection[str]], Iterator[Rows]]
    settings: dict[str, str] = field(default_factory=dict)  # of the extraction that wrote the file


def unknown_records(count: int, first_row: int) -> RecordArray:
    """Records of which only the row is known; all other values are NaN or 0."""
    records = np.zeros(count, ECHO_RECORD)
    records["row"] = np.arange(first_row, first_row + count)
    for name in ("gps_time", "xyz", "flight", *QUANTITIES):
        records[name] = np.nan
    records["beam"] = -1
    return records
