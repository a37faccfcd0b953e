"""Estimation of a scanner's system wave from recorded pulses, as a sum of exponentials."""

from __future__ import annotations

from fullwaveform.calibration.averaging import AveragePulse, average, pulse_of_curve
from fullwaveform.calibration.isolated import Waveforms
from fullwaveform.calibration.pulses import Pulses, pulses_of_rows
from fullwaveform.system_wave.description import (
    description_text,
    with_system_wave,
    write_description,
)
from fullwaveform.system_wave.exponentials import ExponentialSum, fit_exponentials
from fullwaveform.system_wave.fitting import SystemWave, fit_system_wave
from fullwaveform.system_wave.offset import (
    DeconvolutionOffset,
    measure_offset,
    offset_of_simulated_echoes,
)

__all__ = [
    "AveragePulse",
    "DeconvolutionOffset",
    "ExponentialSum",
    "Pulses",
    "SystemWave",
    "Waveforms",
    "average",
    "description_text",
    "fit_exponentials",
    "fit_system_wave",
    "measure_offset",
    "offset_of_simulated_echoes",
    "pulse_of_curve",
    "pulses_of_rows",
    "with_system_wave",
    "write_description",
]
