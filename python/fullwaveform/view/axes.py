"""What the coordinates of a file are, for the axes of the map."""

from __future__ import annotations

import math
from dataclasses import dataclass

import laspy

from fullwaveform.io.reference_system import reference_system

_UNKNOWN = "coordinate units"
_SHORT = {"metre": "m", "degree": "°", "foot": "ft", "US survey foot": "US survey ft"}
_NAMES, _GEOGRAPHIC_NAMES = ("x", "y", "z"), ("longitude", "latitude", "height")


@dataclass(frozen=True, slots=True)
class Axes:
    """The axes of a file."""

    described: list[dict[str, str]]  # name and unit of x, y and z, for the page
    is_geographic: bool  # x and y are longitude and latitude, degrees

    @classmethod
    def of(cls, header: laspy.LasHeader | None) -> Axes:
        """The axes of a file with this header."""
        system = reference_system(header)
        if system is None:
            return cls([{"name": name, "unit": _UNKNOWN} for name in _NAMES], False)
        units = [_SHORT.get(axis.unit_name, axis.unit_name) for axis in system.axis_info]
        # Heights above the ellipsoid are in metres where the system does not mention them.
        height = units[2] if len(units) > 2 else "m" if system.is_geographic else units[0]
        names = _GEOGRAPHIC_NAMES if system.is_geographic else _NAMES
        labelled = zip(names, (*units[:2], height), strict=True)
        return cls([{"name": name, "unit": unit} for name, unit in labelled], system.is_geographic)


def degree_ratio(latitude: float) -> float:
    """Length of a degree of longitude divided by that of a degree of latitude, on a sphere."""
    return max(math.cos(math.radians(latitude)), 0.01)
