"""Layout of the scan container, an HDF5 file; docs/file-formats.md describes it."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

FORMAT = "fullwaveform scan"
VERSION = 1

SCANNER = "scanner"  # the scanner's grid: its attributes
AFTER_PULSE = "scanner/after_pulse"
DECONVOLUTION = "scanner/deconvolution"
REPRESENTATION = "waveforms/StandardCartesianChart3D"  # of the waveforms' grid: its fields
WAVEFORMS = f"{REPRESENTATION}/Waveforms"
SBL_TIME = f"{REPRESENTATION}/SBL_Time"
SPACE = "space"  # optional: without it, places and times of waveforms are unknown
OUTGOING = "outgoing"  # optional
LAS = "las"

INTERVAL_ATTRIBUTE = "WaveformSampleInterval"
SMOOTHING_ATTRIBUTE = "Smoothing"  # s, of the dataset of samples; optional
REFERENCE_TIME_ATTRIBUTE = "t_ref"


@dataclass(frozen=True, slots=True)
class Field:
    """A dataset with one row per waveform."""

    column: str  # of `WaveformArrays` or `OutgoingPulses`
    path: str
    dtype: type[np.generic]
    unit: str
    shape: tuple[int, ...] = ()  # of a row; samples have the width of the file instead
    is_optional: bool = False
    missing: float = 0.0  # value of every row of a file without the dataset


FIELDS = (
    Field("samples", WAVEFORMS, np.uint16, "counts"),
    Field("counts", f"{REPRESENTATION}/SampleCount", np.uint16, "samples"),
    Field("shot_times", f"{REPRESENTATION}/ShotTime", np.float64, "s"),
    Field("sbl_times", SBL_TIME, np.float64, "s"),
    Field("channel_flags", f"{REPRESENTATION}/ChannelFlag", np.uint8, "1 low power, 0 other"),
    Field("descriptors", f"{REPRESENTATION}/Descriptor", np.uint8, "number", is_optional=True),
    Field("sampling_intervals", f"{REPRESENTATION}/SampleInterval", np.float64, "s"),
    Field("anchor", f"{SPACE}/anchor", np.float64, "coordinate units", (3,), missing=math.nan),
    Field("location", f"{SPACE}/location", np.float64, "ps", missing=math.nan),
    Field(
        "direction",
        f"{SPACE}/direction",
        np.float64,
        "coordinate units per ps",
        (3,),
        missing=math.nan,
    ),
    Field("gps_time", f"{SPACE}/gps_time", np.float64, "s", missing=math.nan),
    Field("scan_angle", f"{SPACE}/scan_angle", np.float32, "degrees"),
    Field("scan_direction_flag", f"{SPACE}/scan_direction_flag", np.uint8, "0 or 1"),
    Field("edge_of_flight_line", f"{SPACE}/edge_of_flight_line", np.uint8, "0 or 1"),
    Field("user_data", f"{SPACE}/user_data", np.uint8, "as in LAS"),
    Field("point_source_id", f"{SPACE}/point_source_id", np.uint16, "as in LAS"),
)

# Columns of shots, of inputs that have them; a missing dataset leaves out the column.
SHOT_FIELDS = (
    Field("beams", f"{SPACE}/beam", np.bytes_, "name"),
    Field("shot_numbers", f"{SPACE}/shot_number", np.uint64, "number"),
    Field("origins", f"{SPACE}/origin", np.float64, "coordinate units", (3,)),
)
# Noise that the source states, of inputs that state it.
NOISE_FIELDS = (
    Field("noise_mean", f"{REPRESENTATION}/NoiseMean", np.float64, "counts"),
    Field("noise_rms", f"{REPRESENTATION}/NoiseRms", np.float64, "counts"),
)
BEAM_TEXT = np.dtype("S16")

# The outgoing pulse of each waveform; columns of `OutgoingPulses`.
OUTGOING_FIELDS = (
    Field("samples", f"{OUTGOING}/samples", np.uint16, "counts"),
    Field("counts", f"{OUTGOING}/sample_count", np.uint16, "samples"),
    Field("sampling_intervals", f"{OUTGOING}/sampling_interval", np.float64, "s"),
    Field("durations", f"{OUTGOING}/duration", np.float64, "s"),
)
