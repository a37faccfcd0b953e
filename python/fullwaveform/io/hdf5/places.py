"""Where the waveforms of HDF5 files lie: degrees and metres, or a projected system."""

from __future__ import annotations

from functools import cache
from typing import Any

import laspy
import numpy as np

from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.blocks import PulseGeometry

GEOGRAPHIC = 4979  # EPSG: WGS 84, degrees and metres above the ellipsoid
_DEGREE_SCALE, _METRE_SCALE = 1e-7, 1e-3  # about 1 cm and 1 mm
_OFFSET_STEP = 1000.0  # m
_LARGEST = 2.0**31  # multiple of a scale
_MAX_HEIGHT = 1e6  # m, above that of the space station; fill values have no valid latitude either
_PICOSECONDS = 1e12


class Places:
    """Coordinates of first and last samples in the system that was asked for.

    `crs` is a code as EPSG:32610, with longitude, latitude and height transformed by PROJ; None for
    longitude and latitude in degrees with heights in m (EPSG:4979).

    Raises ValueError if PROJ does not know the system, or cannot transform to it.
    """

    def __init__(self, crs: str | None = None) -> None:
        self._system = _system(crs)
        self._transformer = None if crs is None else _transformer(crs)

    @property
    def is_geographic(self) -> bool:
        """Whether coordinates are in degrees."""
        return bool(self._system.is_geographic)

    def of(self, degrees: FloatArray) -> FloatArray:
        """Coordinates (n, 3) of longitudes, latitudes and heights (n, 3); NaN stays NaN."""
        if self._transformer is None:
            return degrees
        # PROJ has infinity for what it cannot transform.
        axes = np.column_stack(self._transformer.transform(*degrees.T))
        found: FloatArray = np.where(np.isfinite(axes).all(axis=1, keepdims=True), axes, np.nan)
        return found

    def geometry(self, first: FloatArray, last: FloatArray, durations: FloatArray) -> PulseGeometry:
        """Geometry of waveforms from the degrees (n, 3) of their first and last samples.

        `durations` (n,) are the times between these in s. The waveform lies on the straight line
        between them: over the few hundred metres of a waveform it differs from the true one by less
        than a micrometre.
        """
        turned = last - first
        # A waveform may cross the longitude of 180 degrees.
        turned[:, 0] -= 360.0 * np.rint(turned[:, 0] / 360.0)
        anchor = self.of(first)
        step = turned if self._transformer is None else self.of(first + turned) - anchor
        direction = -step / (durations * _PICOSECONDS)[:, np.newaxis]
        return PulseGeometry(anchor, np.zeros(len(anchor)), direction)

    def header(self, lower: FloatArray, upper: FloatArray) -> laspy.LasHeader:
        """LAS header for echoes between these coordinates (3,), NaN if unknown."""
        header = laspy.LasHeader(version="1.4", point_format=9)
        header.add_crs(self._system, keep_compatibility=False)
        header.creation_date = None
        if not (np.isfinite(lower).all() and np.isfinite(upper).all()):
            lower = upper = np.zeros(3)
        horizontal = _DEGREE_SCALE if self.is_geographic else _METRE_SCALE
        scales, offsets = np.array([horizontal, horizontal, _METRE_SCALE]), np.zeros(3)
        if not self.is_geographic:
            middle = (lower + upper) / 2.0
            offsets[:2] = np.rint(middle[:2] / _OFFSET_STEP) * _OFFSET_STEP
            # An orbit is longer than millimetres reach.
            reach = np.maximum(upper - offsets, offsets - lower)
            scales *= np.where(reach > 0.9 * scales * _LARGEST, 10.0, 1.0)
        header.scales, header.offsets = scales, offsets
        header.mins, header.maxs = lower, upper
        return header


def known_degrees(longitude: FloatArray, latitude: FloatArray, height: FloatArray) -> FloatArray:
    """Longitudes from -180 to 180, latitudes and heights (n, 3); NaN for all that is no place."""
    with np.errstate(invalid="ignore"):
        known = (np.abs(longitude) <= 360.0) & (np.abs(latitude) <= 90.0)
        known &= np.abs(height) < _MAX_HEIGHT
        around = np.where(longitude > 180.0, longitude - 360.0, longitude)
    places = np.column_stack([around, latitude, height])
    places[~known] = np.nan
    return places


def checked_crs(crs: str | None) -> str | None:
    """The code; ValueError if PROJ does not know the system or cannot transform to it."""
    if crs is not None:
        Places(crs)
    return crs


def _system(crs: str | None) -> Any:
    pyproj = _pyproj()
    if crs is None:
        return pyproj.CRS.from_epsg(GEOGRAPHIC)
    try:
        return pyproj.CRS.from_user_input(crs)
    except pyproj.exceptions.CRSError as error:
        raise ValueError(
            f"unknown coordinate reference system {crs!r}; expected a code as EPSG:32610"
        ) from error


@cache
def _transformer(crs: str) -> Any:
    pyproj = _pyproj()
    try:
        return pyproj.Transformer.from_crs(
            _system(None), _system(crs), always_xy=True, allow_ballpark=False
        )
    except pyproj.exceptions.ProjError as error:
        raise ValueError(f"cannot transform from EPSG:{GEOGRAPHIC} to {crs}: {error}") from error


def _pyproj() -> Any:
    # Imported on demand: loading it takes longer than reading many a file.
    import pyproj
    import pyproj.exceptions

    return pyproj
