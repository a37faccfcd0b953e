"""The choice of the pulses of which a pulse model is made."""

from __future__ import annotations

from typing import Literal, get_args

#: Isolated echoes if there are enough, else outgoing pulses; or one of them.
PulseChoice = Literal["auto", "returned", "outgoing"]
PULSE_CHOICES: tuple[PulseChoice, ...] = get_args(PulseChoice)


def checked_pulse_choice(value: object) -> PulseChoice:
    """The choice; ValueError if it is none."""
    if value not in PULSE_CHOICES:
        raise ValueError(f"invalid pulse {value!r}; expected 'auto', 'returned' or 'outgoing'")
    return value
