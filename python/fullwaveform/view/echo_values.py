"""What the map shows of each echo, from the columns of files of any format."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from dataclasses import dataclass

import numpy as np

from fullwaveform.data.arrays import AnyArray, BoolArray
from fullwaveform.data.echo_columns import FWHM_PER_SIGMA
from fullwaveform.data.echo_records import EchoFile, Rows


@dataclass(frozen=True, slots=True)
class EchoValue:
    """A value by which echoes are coloured and counted."""

    name: str
    label: str
    unit: str
    dtype: str
    #: Columns that may hold it, the first one found is used, and the factor to the unit.
    sources: tuple[tuple[str, float], ...]
    is_category: bool = False  # a class or number, not a quantity


#: The values of an echo other than its place.
ECHO_VALUES = (
    EchoValue(
        "amplitude",
        "amplitude",
        "counts",
        "<f4",
        (("amplitude", 1.0), ("intensity", 1.0)),
    ),
    EchoValue(
        "width",
        "width (full, at half maximum)",
        "ns",
        "<f4",
        (("fwhm_ns", 1.0), ("sigma_ns", FWHM_PER_SIGMA)),
    ),
    EchoValue(
        "echo_number",
        "echo number",
        "",
        "u1",
        (("echo_number", 1.0), ("return_number", 1.0)),
        is_category=True,
    ),
    # Counted in the index, so that it is that of the echoes of the file.
    EchoValue("shot_echoes", "echoes of the shot", "", "u1", (), is_category=True),
    EchoValue("class", "class", "", "u1", (("classification", 1.0),), is_category=True),
    EchoValue("chi_square", "reduced chi²", "", "<f4", (("reduced_chi_square", 1.0),)),
    EchoValue("sigma", "uncertainty of range", "m", "<f4", (("sigma_range", 1.0),)),
)
_FARTHEST = 1e9  # coordinate units; larger coordinates are no places on Earth
_SHOT = ("gps_time", "waveform_number", "echo_count", "number_of_returns", "wavepacket_index")
_WANTED = frozenset(
    {"x", "y", "z", *_SHOT}.union(*({name for name, _ in value.sources} for value in ECHO_VALUES))
)


def value_rows(file: EchoFile) -> Iterator[tuple[int, BoolArray, dict[str, AnyArray]]]:
    """Number of the first row, which rows are echoes, and columns of those, block by block.

    The columns are x, y, z and the `ECHO_VALUES` that the file has, also gps_time and
    waveform_number if it has them.
    """
    first = 0
    for rows in file.rows(_WANTED):
        count = len(rows["x"])
        chosen = _are_echoes(rows, file.has_returns)
        columns = {name: rows[name][chosen] for name in ("x", "y", "z")}
        for name in ("gps_time", "waveform_number"):
            if name in rows:
                columns[name] = rows[name][chosen]
        for value in ECHO_VALUES:
            for name, factor in value.sources:
                if name in rows:
                    columns[value.name] = _converted(rows[name][chosen], factor, value.dtype)
                    break
        yield first, chosen, columns
        first += count


def have_places(x: AnyArray, y: AnyArray, z: AnyArray) -> BoolArray:
    """Which echoes (m,) have coordinates that are known and can be those of a place on Earth."""
    known: BoolArray = (np.abs(x) < _FARTHEST) & (np.abs(y) < _FARTHEST) & (np.abs(z) < _FARTHEST)
    return known


def _are_echoes(rows: Rows, has_returns: bool) -> BoolArray:
    """Not the rows of waveforms without echoes, nor points without a packet of a scan."""
    chosen = np.ones(len(rows["x"]), np.bool_)
    if "echo_number" in rows:
        chosen &= rows["echo_number"] != 0
    if has_returns:
        chosen &= rows["wavepacket_index"] != 0
    return chosen


def _converted(column: AnyArray, factor: float, dtype: str) -> AnyArray:
    if dtype == "u1":
        values: AnyArray = np.clip(np.nan_to_num(column), 0, 255).astype(dtype)
    else:
        values = (column * factor).astype(dtype)
    return values


def described_values(present: Mapping[str, object]) -> list[dict[str, object]]:
    """The values among `present` as the page needs them."""
    return [
        {
            "name": value.name,
            "label": value.label,
            "unit": value.unit,
            "type": value.dtype,
            "category": value.is_category,
        }
        for value in ECHO_VALUES
        if value.name in present
    ]
