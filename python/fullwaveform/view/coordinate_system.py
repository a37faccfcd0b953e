"""Coordinate system of echoes, as a map names it."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import laspy

from fullwaveform.analysis.origin import origin_of
from fullwaveform.view.axes import Axes

_LAS_ENDINGS = (".las", ".laz")


@dataclass(frozen=True, slots=True)
class CoordinateSystem:
    """Name and axes of the coordinate system of a file.

    name : with its code if it has one; empty if the file has none
    """

    name: str
    axes: Axes

    @classmethod
    def of(cls, header: laspy.LasHeader | None) -> CoordinateSystem:
        """That of a header."""
        origin = origin_of(header)
        return cls("" if origin is None else origin.reference_system or "", Axes.of(header))


def system_of_echoes(path: Path, otherwise: CoordinateSystem) -> CoordinateSystem:
    """That of a LAS file of echoes; of other files, which do not name it, the given one."""
    if path.suffix.lower() not in _LAS_ENDINGS:
        return otherwise
    with laspy.open(path.open("rb")) as reader:
        return CoordinateSystem.of(reader.header)
