"""Compare extracted echoes with the discrete returns of the same pulses."""

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

# Required for a scanner, but ranges do not depend on it.
_ANY_INTERVAL = 1e-9  # s


@dataclass(frozen=True)
class PulseFrames:
    """Line of each pulse, along which ranges are measured; ascending by time."""

    gps_time: FloatArray  # (shots,), s
    origin: FloatArray  # (shots, 3), a point on the pulse, coordinate units
    along: FloatArray  # (shots, 3), unit vectors along the flight of light

    def ranges(self, gps_time: FloatArray, xyz: FloatArray) -> FloatArray:
        """Distance of points from the origin of their pulse; NaN for unknown shots."""
        shot = np.searchsorted(self.gps_time, gps_time)
        shot = np.minimum(shot, len(self.gps_time) - 1)
        known = self.gps_time[shot] == gps_time
        distance = np.einsum("ij,ij->i", xyz - self.origin[shot], self.along[shot])
        return np.where(known, distance, np.nan)


@dataclass(frozen=True)
class Comparison:
    """Extracted echoes and discrete returns of the same pulses."""

    returns: Columns  # as `evaluate_online` returns them; times from the first return of each pulse
    duplicate_returns: int  # returns skipped because another channel of the shot has them, too
    extracted_ranges: FloatArray  # m along the pulse, in the order of the file
    matching: Matching  # found: extracted echoes, ref: returns; differences in m of range


def compare_with_returns(scan: Path, echoes: Path, tolerance: float) -> Comparison:
    """Compare extracted echoes with the discrete returns of their scan.

    Parameters
    ----------
    scan : LAS file with waveform packets
    echoes : LAS file of echoes extracted from it
    tolerance : largest difference of range of a pair, m

    Raises
    ------
    OSError
        A file cannot be read.
    ValueError
        A file is not valid, or the files have no shot in common.
    """
    returns, found = _read(scan), _read_echoes(echoes)
    frames = _frames(returns, scan)
    scanner = Scanner.default(_ANY_INTERVAL)
    time = np.asarray(returns.gps_time, dtype=np.float64)
    distance = frames.ranges(time, _coordinates(returns))
    unique = _is_unique(time, distance, np.asarray(returns.wavepacket_index), tolerance)
    returned = evaluate_online(
        scanner,
        time[unique],
        distance[unique],
        np.asarray(returns.intensity, dtype=np.float32)[unique],
    )
    found_time = np.asarray(found.gps_time, dtype=np.float64)
    ranges = frames.ranges(found_time, _coordinates(found))
    if len(ranges) and np.isnan(ranges).all():
        raise WaveformFileError(f"{echoes} and {scan} have no GPS time in common")
    metres_per_second = float(scanner.device().group_velocity) / 2.0
    matching = match_echoes(
        found_time, ranges, returned["shotTime"], returned["time"] * metres_per_second, tolerance
    )
    return Comparison(returned, int(np.count_nonzero(~unique)), ranges, matching)


def _read(path: Path) -> laspy.ScaleAwarePointRecord:
    """Discrete returns with a packet, which holds the direction of their pulse."""
    reader, _ = open_las(path)
    with reader:
        points = reader.read_points(reader.header.point_count)
    chosen = points[np.asarray(points.wavepacket_index) != 0]
    withheld = np.asarray(chosen.withheld).astype(bool)  # points of waveforms without a return
    if not len(chosen[~withheld]):
        raise WaveformFileError(f"{path}: no discrete return has a waveform packet")
    return chosen[~withheld]


def _read_echoes(path: Path) -> laspy.LasData:
    try:
        return laspy.read(path)
    except OSError:
        raise
    except Exception as error:  # laspy raises errors of many types
        raise WaveformFileError(f"{path}: not a readable LAS file: {error}") from error


def _is_unique(
    time: FloatArray, distance: FloatArray, channel: npt.NDArray[np.uint8], tolerance: float
) -> npt.NDArray[np.bool_]:
    """Which returns to keep, so that a return in several channels counts once."""
    kept = np.ones(len(time), dtype=bool)
    for later in np.unique(channel)[1:]:
        before, now = np.flatnonzero(kept & (channel < later)), np.flatnonzero(channel == later)
        repeated = match_echoes(time[now], distance[now], time[before], distance[before], tolerance)
        kept[now[repeated.found_index]] = False
    return kept


def _coordinates(points: laspy.ScaleAwarePointRecord | laspy.LasData) -> FloatArray:
    return np.stack([np.asarray(points[name], dtype=np.float64) for name in "xyz"], axis=1)


def _frames(returns: laspy.ScaleAwarePointRecord, path: Path) -> PulseFrames:
    time = np.asarray(returns.gps_time, dtype=np.float64)
    shots, first = np.unique(time, return_index=True)
    if len(shots) == 1 and len(time) > 1:
        raise WaveformFileError(
            f"{path}: all points have the same GPS time, shots cannot be distinguished"
        )
    to_scanner = np.stack(
        [np.asarray(returns[name])[first] for name in ("x_t", "y_t", "z_t")], axis=1
    )
    to_scanner = to_scanner.astype(np.float64)
    length = np.linalg.norm(to_scanner, axis=1, keepdims=True)
    if not (length > 0).all():
        raise WaveformFileError(f"{path}: a pulse has no direction")
    xyz = _coordinates(returns)[first]
    return PulseFrames(shots, xyz, -to_scanner / length)
