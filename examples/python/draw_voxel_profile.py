"""Draw the picture of docs/voxels.md: a profile through the voxels of a simulated forest.

python examples/python/draw_voxel_profile.py PICTURE.png
"""

from __future__ import annotations

import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import numpy.typing as npt
import zarr
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.colors import LogNorm
from matplotlib.figure import Figure

import fullwaveform as fw
from fullwaveform.plotting import style
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

FloatArray = npt.NDArray[np.float64]

SIZE = 0.5  # m
#: A flight to the north: the scan lines, and the profile, lie from west to east.
SCAN = ScanSettings(shots=10_000, heading=0.0)
SHOWN = (60.0, 190.0)  # m east of the flight line


@dataclass(frozen=True, slots=True)
class Profile:
    """Values summed from north to south, (layers, columns)."""

    east: FloatArray  # (columns,), m from the flight line
    height: FloatArray  # (layers,), m
    mean: FloatArray  # counts, mean of the samples above the baseline; NaN without samples
    pulses: FloatArray  # pulses that pass through


def main(picture: Path) -> None:
    """Simulate the scan, sum it per voxel, and draw the profile."""
    with tempfile.TemporaryDirectory() as folder:
        draw(forest_profile(Path(folder)), picture)


def forest_profile(folder: Path) -> Profile:
    """The profile of the simulated scan, whose files are written to the folder."""
    scan, volume = folder / "forest.las", folder / "forest.zarr"
    write_scan(simulate_scan(SCAN), scan)
    fw.voxels(scan, volume, size=SIZE, channel="low", channel_flags={1: 1, 2: 0})
    group = zarr.open_group(volume, mode="r")
    east = group["x"][:] - SCAN.easting
    shown = (east > SHOWN[0]) & (east < SHOWN[1])
    total, samples, pulses = (
        group[name][:].sum(axis=1, dtype=np.float64)[:, shown]
        for name in ("sum", "samples", "pulses")
    )
    mean = np.divide(total, samples, out=np.full(total.shape, np.nan), where=samples > 0)
    return Profile(east[shown], group["z"][:], mean, pulses)


def draw(profile: Profile, picture: Path) -> None:
    """Two panels, one above the other: the light, and the paths of the pulses."""
    figure = Figure(figsize=(9.0, 5.2), dpi=130, layout="constrained")
    FigureCanvasAgg(figure)
    upper, lower = figure.subplots(2, 1, sharex=True)
    light = np.where(profile.mean >= 1.0, profile.mean, np.nan)
    panel(upper, profile, light, "mean above the baseline [counts]", "Light of the waveforms", True)
    paths = np.where(profile.pulses > 0.0, profile.pulses, np.nan)
    panel(lower, profile, paths, "pulses", "Pulses that pass through", False)
    lower.set_xlabel("distance from the flight line [m]", fontsize=style.TEXT_SIZE)
    figure.savefig(picture)


def panel(
    axes: Axes, profile: Profile, values: FloatArray, name: str, title: str, is_logarithmic: bool
) -> None:
    """Values as colours, with a scale; NaN stays white."""
    image = axes.pcolormesh(
        profile.east,
        profile.height,
        values,
        cmap="viridis",
        norm=LogNorm(1.0, float(np.nanmax(values))) if is_logarithmic else None,
        rasterized=True,
    )
    style.label_axes(axes, "", "height [m]", title)
    bar = axes.figure.colorbar(image, ax=axes, pad=0.01, aspect=18)
    bar.set_label(name, fontsize=style.TEXT_SIZE, color=style.INK)


if __name__ == "__main__":
    main(Path(sys.argv[1]))
