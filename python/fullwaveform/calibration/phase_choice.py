"""The choice whether the phase of the outgoing pulses is taken off."""

from __future__ import annotations

from typing import Literal, get_args

#: Whether the phase is taken off: by the scatter of the ranges, always, or never.
PhaseChoice = Literal["auto", "on", "off"]
PHASE_CHOICES: tuple[PhaseChoice, ...] = get_args(PhaseChoice)


def checked_phase_choice(value: object) -> PhaseChoice:
    """The choice; ValueError if it is none."""
    if value not in PHASE_CHOICES:
        raise ValueError(f"invalid outgoing_phase {value!r}; expected 'auto', 'on' or 'off'")
    return value
