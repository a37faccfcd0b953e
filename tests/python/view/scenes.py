"""A scan of five shots and its echoes, worked out by hand."""

from __future__ import annotations

from pathlib import Path

import numpy as np

from fullwaveform.view.selection import Selection

from ..support.las_scenes import Point, Scene

BASELINE = 10  # counts
SAMPLES = 64
#: Position (samples) and amplitude (counts) of the echoes of each shot; all have sigma 2 samples.
SHOTS = (
    ((20.0, 100.0),),
    ((20.0, 200.0), (40.0, 80.0)),
    ((12.0, 300.0), (30.0, 150.0), (48.0, 60.0)),
    (),
    ((24.0, 1000.0),),
)
PLACES = ((10.0, 10.0), (90.0, 10.0), (10.0, 90.0), (50.0, 50.0), (90.0, 90.0))
#: Class and reduced chi square of the echoes of each shot.
CLASSES, CHI = (1, 2, 3, 0, 4), (1.0, 1.5, 2.5, np.nan, 9.0)
#: Of the two eastern shots, from the place of the first one, and the rows of their echoes.
EAST, EAST_ROWS = Selection((70.0, -10.0, 90.0, 90.0)), [1, 2, 6]
_TOP, _PER_SAMPLE = 130.0, 0.15  # height of the first sample and m per sample


def waveform(echoes: tuple[tuple[float, float], ...]) -> list[int]:
    at = np.arange(SAMPLES)
    height = np.full(SAMPLES, float(BASELINE))
    for position, amplitude in echoes:
        height += amplitude * np.exp(-0.5 * ((at - position) / 2.0) ** 2)
    return np.round(height).astype(int).tolist()


def write_scan(path: Path) -> Path:
    """One waveform per shot, a second apart."""
    packets = [(1, waveform(echoes)) for echoes in SHOTS]
    points = [
        Point(number, gps_time=100.0 + number, xyz=(x, y, _TOP))
        for number, (x, y) in enumerate(PLACES)
    ]
    return Scene([(1, 16, SAMPLES, 1000)], packets, points).write(path)


def write_echoes(path: Path) -> Path:
    """The seven echoes as a CSV file."""
    lines = [
        "x,y,z,gps_time,echo_number,amplitude,fwhm_ns,classification,reduced_chi_square,"
        "waveform_number"
    ]
    for shot, ((x, y), echoes) in enumerate(zip(PLACES, SHOTS, strict=True)):
        for number, (position, amplitude) in enumerate(echoes, start=1):
            z = _TOP - _PER_SAMPLE * position
            lines.append(
                f"{x},{y},{z},{100.0 + shot},{number},{amplitude},4.7,{CLASSES[shot]},{CHI[shot]},"
                f"{shot}"
            )
    path.write_text("\n".join(lines) + "\n", encoding="ascii")
    return path
