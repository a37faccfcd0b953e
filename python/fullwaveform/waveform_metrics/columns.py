"""The columns of the table of metrics: each is described here and nowhere else."""

from __future__ import annotations

from enum import IntFlag

import numpy as np

from fullwaveform.data.columns import Column
from fullwaveform.waveform_metrics.settings import MetricsSettings

_COORDINATE = "coordinate unit of the input"


class MetricsFlag(IntFlag):
    """What is unusual about the metrics of a waveform."""

    NO_SIGNAL = 1
    CUT_OFF = 2
    NO_HEIGHT = 4
    NOISE_MEASURED = 8
    SYMMETRIC_GROUND = 16


#: Bit -> meaning, as in the documents.
FLAG_MEANINGS = {
    MetricsFlag.NO_SIGNAL: "no mode above the threshold; all metrics are NaN",
    MetricsFlag.CUT_OFF: "the signal reaches the first or last sample of the waveform",
    MetricsFlag.NO_HEIGHT: "no place in space; heights are distances along the pulse",
    MetricsFlag.NOISE_MEASURED: "the file records no noise; it was measured on the waveforms",
    MetricsFlag.SYMMETRIC_GROUND: "no outgoing pulse; the return of the ground is a Gaussian",
}

_LEADING = (
    Column("x", np.float64, _COORDINATE, "Easting of the ground"),
    Column("y", np.float64, _COORDINATE, "Northing of the ground"),
    Column("ground_z", np.float64, _COORDINATE, "Height of the ground: the lowest mode"),
    Column("top_z", np.float64, _COORDINATE, "Height of the top of the canopy"),
    Column("bottom_z", np.float64, _COORDINATE, "Height of the end of the signal"),
    Column("gps_time", np.float64, "s", "Time of the shot, as in the input"),
    Column("waveform_number", np.int64, "1", "Running number of the waveform in the input, from 0"),
    Column("channel_flag", np.uint8, "1", "Channel of the waveform: 1 low power, 0 high power"),
    Column("descriptor", np.uint8, "1", "Number of the packet descriptor or channel in the input"),
    Column("flags", np.uint8, "1", "Sum of the bits of `MetricsFlag`; 0: nothing unusual"),
    Column("noise_mean", np.float32, "counts", "Baseline of the waveform"),
    Column("noise_rms", np.float32, "counts", "Noise rms of the waveform"),
    Column("amplitude", np.float32, "counts", "Largest sample above the baseline"),
    Column("mode_count", np.int64, "1", "Modes: local maxima of the smoothed waveform"),
    Column("energy", np.float32, "counts ns", "Area of the signal above the baseline"),
    Column("centroid", np.float32, "m", "Height of the centre of the energy above the ground"),
    Column("variance", np.float32, "m2", "Variance of the heights of the energy"),
    Column("skewness", np.float32, "1", "Skewness of the heights; positive with a tail upwards"),
    Column("kurtosis", np.float32, "1", "Kurtosis of the heights; 3 for a Gaussian"),
    Column("front_slope", np.float32, "counts/m", "Rise from the top to the highest mode"),
    Column("pulse_decay", np.float32, "ns", "Decay of the outgoing pulse; 0 if it is unknown"),
    Column("ground_width", np.float32, "ns", "Standard deviation of the return of the ground"),
    Column("ground_energy", np.float32, "counts ns", "Area of the return of the ground"),
    Column("canopy_energy", np.float32, "counts ns", "Area above the return of the ground"),
    Column("cover", np.float32, "1", "Canopy cover: share of the ground that is covered"),
    Column("gap", np.float32, "1", "Probability of a gap through the whole canopy"),
    Column("pai", np.float32, "m2/m2", "Plant area index"),
    Column("fhd", np.float32, "1", "Foliage height diversity"),
)
_HEIGHTS = tuple(
    Column(
        f"rh_{percent}",
        np.float32,
        "m",
        f"Height above the ground below which {percent} % of the energy was returned",
    )
    for percent in range(101)
)
#: Columns that only inputs with beams or numbers of shots have, by name.
SHOT_COLUMNS = {
    "beam": Column("beam", np.str_, "1", "Beam of the shot, by its name in the input"),
    "shot_number": Column("shot_number", np.uint64, "1", "Number of the shot in the input"),
}


def metrics_columns(
    settings: MetricsSettings, shot_columns: tuple[str, ...] = ()
) -> tuple[Column, ...]:
    """The columns of a table of metrics.

    `shot_columns` names those of beams and shots that the input has.
    """
    heights = settings.profile_heights[1:].tolist()
    return (
        *_LEADING,
        *_HEIGHTS,
        *(
            Column(gap_name(height), np.float32, "1", f"Probability of a gap above {height:g} m")
            for height in heights
        ),
        *(
            Column(area_name(height), np.float32, "m2/m2", f"Plant area index above {height:g} m")
            for height in heights
        ),
        *(SHOT_COLUMNS[name] for name in shot_columns),
    )


def gap_name(height: float) -> str:
    """Name of the column with the gap probability above a height in m."""
    return f"gap_{height:g}m"


def area_name(height: float) -> str:
    """Name of the column with the plant area index above a height in m."""
    return f"pai_{height:g}m"
