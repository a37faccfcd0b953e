"""Limits, sizes and enumerations of the compiled library."""

from __future__ import annotations

from enum import IntEnum

from fullwaveform import _core

MAX_COUNT = _core.MAX_COUNT
SPEED_OF_LIGHT_IN_AIR = _core.SPEED_OF_LIGHT_IN_AIR  # m/s
SYSTEM_WAVE_SAMPLES = _core.SYSTEM_WAVE_SAMPLES
UP_SAMPLING = _core.UP_SAMPLING


class EchoType(IntEnum):
    """How an echo was found: the types of the library, and that of the pulse fit."""

    UNBORN = _core.EchoType.UNBORN
    RAW = _core.EchoType.RAW
    GAUSS_3POINTS = _core.EchoType.GAUSS_3POINTS
    GAUSS_DECOMPOSITION_1 = _core.EchoType.GAUSS_DECOMPOSITION_1
    GAUSS_DECOMPOSITION_2 = _core.EchoType.GAUSS_DECOMPOSITION_2
    RICHARDSON_LUCY = _core.EchoType.RICHARDSON_LUCY
    ONLINE_OWP = _core.EchoType.ONLINE_OWP
    FLAW = _core.EchoType.FLAW
    PULSE_FIT = 8

    @property
    def description(self) -> str:
        """The type in words."""
        return "pulse fit" if self is EchoType.PULSE_FIT else _core.EchoType(self).description


#: Types of echoes whose amplitude is above the threshold.
DECOMPOSED_TYPES = (EchoType.GAUSS_DECOMPOSITION_1, EchoType.GAUSS_DECOMPOSITION_2)
