"""Coordinate system of echoes, as a map names it."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import laspy

from fullwaveform.analysis.origin import origin_of
from fullwaveform.io.reference_system import reference_system

_SHORT_NAMES = {"metre": "m", "degree": "°"}
_LAS_ENDINGS = (".las", ".laz")


@dataclass(frozen=True, slots=True)
class CoordinateSystem:
    """What x and y are.

    name : of the system, with its code if it has one; empty if unknown
    unit : of x and y; empty if unknown
    """

    name: str
    unit: str

    @property
    def in_degrees(self) -> bool:
        """Whether x and y are longitude and latitude."""
        return self.unit == "°"

    @classmethod
    def of(cls, header: laspy.LasHeader | None) -> CoordinateSystem:
        """That of a header."""
        origin, system = origin_of(header), reference_system(header)
        name = "" if origin is None else origin.reference_system or ""
        unit = system.axis_info[0].unit_name if system is not None and system.axis_info else ""
        return cls(name, _SHORT_NAMES.get(unit, unit))


def system_of_echoes(path: Path, otherwise: CoordinateSystem) -> CoordinateSystem:
    """That of a LAS file of echoes; of other files, which do not name it, the given one."""
    if path.suffix.lower() not in _LAS_ENDINGS:
        return otherwise
    with laspy.open(path.open("rb")) as reader:
        return CoordinateSystem.of(reader.header)
