"""Limits, sizes and enumerations of the compiled library."""

from __future__ import annotations

from fullwaveform import _core

MAX_COUNT = _core.MAX_COUNT
SPEED_OF_LIGHT_IN_AIR = _core.SPEED_OF_LIGHT_IN_AIR  # m/s
SYSTEM_WAVE_SAMPLES = _core.SYSTEM_WAVE_SAMPLES
UP_SAMPLING = _core.UP_SAMPLING
EchoType = _core.EchoType

#: Types of echoes whose amplitude is above the threshold.
DECOMPOSED_TYPES = (EchoType.GAUSS_DECOMPOSITION_1, EchoType.GAUSS_DECOMPOSITION_2)
