"""Extracted echoes beside the echoes that the scanner's own electronics found."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

import laspy
import numpy as np
import numpy.typing as npt

from fullwaveform.analysis.matching import Matching, match_echoes
from fullwaveform.core.online import evaluate_online
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.data.columns import Columns
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.las.points import open_las

# A scanner must have a sampling interval; ranges do not depend on it.
_ANY_INTERVAL = 1e-9  # s


@dataclass(frozen=True)
class PulseFrames:
    """A line per shot to measure ranges along; shots ascending by time."""

    gps_time: FloatArray  # (shots,), s
    origin: FloatArray  # (shots, 3), a point of the pulse, coordinate units
    along: FloatArray  # (shots, 3), unit vectors with the flight of light

    def ranges(self, gps_time: FloatArray, xyz: FloatArray) -> FloatArray:
        """Distance of points along their pulse from its origin; NaN where the shot is not known."""
        shot = np.searchsorted(self.gps_time, gps_time)
        shot = np.minimum(shot, len(self.gps_time) - 1)
        known = self.gps_time[shot] == gps_time
        distance = np.einsum("ij,ij->i", xyz - self.origin[shot], self.along[shot])
        return np.where(known, distance, np.nan)


@dataclass(frozen=True)
class Comparison:
    """Extracted against on-board echoes of the same pulses."""

    on_board: Columns  # as `evaluate_online` gives them; times from each pulse's first echo
    duplicate_returns: int  # returns left out because another channel of the shot had them too
    extracted_ranges: FloatArray  # m along the pulse, in the order of the file
    matching: Matching  # found: extracted, ref: on board; differences in m of range


def compare_with_returns(scan: Path, echoes: Path, tolerance: float) -> Comparison:
    """Sets the echoes of a file beside the discrete returns of the scan they came from.

    Parameters
    ----------
    scan : LAS file with waveform packets
    echoes : LAS file of echoes extracted from it
    tolerance : m of range within which two echoes are the same

    Raises
    ------
    OSError
        A file cannot be read.
    ValueError
        A file is not what it must be, or no shot of the one is in the other.
    """
    returns, found = _read(scan), _read_echoes(echoes)
    frames = _frames(returns, scan)
    scanner = Scanner.default(_ANY_INTERVAL)
    time = np.asarray(returns.gps_time, dtype=np.float64)
    distance = frames.ranges(time, _coordinates(returns))
    once = _once(time, distance, np.asarray(returns.wavepacket_index), tolerance)
    on_board = evaluate_online(
        scanner,
        time[once],
        distance[once],
        np.asarray(returns.intensity, dtype=np.float32)[once],
    )
    found_time = np.asarray(found.gps_time, dtype=np.float64)
    ranges = frames.ranges(found_time, _coordinates(found))
    if len(ranges) and np.isnan(ranges).all():
        raise WaveformFileError(f"no GPS time of {echoes} is one of {scan}")
    metres_per_second = float(scanner.device().group_velocity) / 2.0
    matching = match_echoes(
        found_time, ranges, on_board["shotTime"], on_board["time"] * metres_per_second, tolerance
    )
    return Comparison(on_board, int(np.count_nonzero(~once)), ranges, matching)


def _read(path: Path) -> laspy.ScaleAwarePointRecord:
    """Points that have a packet: those carry the direction of their pulse."""
    reader, _ = open_las(path)
    with reader:
        points = reader.read_points(reader.header.point_count)
    chosen = points[np.asarray(points.wavepacket_index) != 0]
    withheld = np.asarray(chosen.withheld).astype(bool)  # stand for waveforms without a return
    if not len(chosen[~withheld]):
        raise WaveformFileError(f"{path} has no discrete return with a waveform packet")
    return chosen[~withheld]


def _read_echoes(path: Path) -> laspy.LasData:
    try:
        return laspy.read(path)
    except OSError:
        raise
    except Exception as error:  # laspy lets through whatever its parsing steps raise
        raise WaveformFileError(f"{path} is not a readable LAS file: {error}") from error


def _once(
    time: FloatArray, distance: FloatArray, channel: npt.NDArray[np.uint8], tolerance: float
) -> npt.NDArray[np.bool_]:
    """Which returns to keep so that an echo that several channels saw counts once."""
    kept = np.ones(len(time), dtype=bool)
    for later in np.unique(channel)[1:]:
        before, now = np.flatnonzero(kept & (channel < later)), np.flatnonzero(channel == later)
        again = match_echoes(time[now], distance[now], time[before], distance[before], tolerance)
        kept[now[again.found_index]] = False
    return kept


def _coordinates(points: laspy.ScaleAwarePointRecord | laspy.LasData) -> FloatArray:
    return np.stack([np.asarray(points[name], dtype=np.float64) for name in "xyz"], axis=1)


def _frames(returns: laspy.ScaleAwarePointRecord, path: Path) -> PulseFrames:
    time = np.asarray(returns.gps_time, dtype=np.float64)
    shots, first = np.unique(time, return_index=True)
    if len(shots) == 1 and len(time) > 1:
        raise WaveformFileError(f"all points of {path} have the same GPS time: no shots to compare")
    against = np.stack([np.asarray(returns[name])[first] for name in ("x_t", "y_t", "z_t")], axis=1)
    against = against.astype(np.float64)
    length = np.linalg.norm(against, axis=1, keepdims=True)
    if not (length > 0).all():
        raise WaveformFileError(f"{path} has a pulse without a direction")
    xyz = _coordinates(returns)[first]
    return PulseFrames(shots, xyz, -against / length)
