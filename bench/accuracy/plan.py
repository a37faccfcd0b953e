"""How many waveforms a run has, and what each table is made of."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from functools import cache
from pathlib import Path

from accuracy.pulses import Pulse

Row = dict[str, str | float]
#: Part of a table that can be computed on its own.
Task = Callable[[], list[Row]]

PULSE_FWHM = 4.0  # samples, of the Gaussian pulse


@dataclass(frozen=True)
class Plan:
    """Numbers of waveforms; the seeds are fixed."""

    methods: tuple[str, ...]
    file: Path | None = None  # whose pulse and echoes are used, too
    isolated: int = 20_000  # per SNR
    pairs: int = 2_000  # per separation, heights and SNR
    alarms: int = 100  # false alarms that are expected at the stated rate
    noise: int = 100_000  # for the methods without a stated rate
    saturated: int = 5_000  # per height
    shots: int = 20_000  # of the simulated scan
    ringing: int = 20_000  # per number of echoes
    real: int = 4_000  # pairs of real echoes per separation
    separations: tuple[float, ...] = (
        *(0.3, 0.4, 0.5, 0.55, 0.6, 0.7, 0.75, 0.8, 0.9, 1.0),
        *(1.2, 1.5, 2.0, 2.5, 3.0),
    )  # FWHM
    rates: tuple[float, ...] = (10.0, 1.0, 0.1)  # stated false alarms per 1,000 waveforms

    @classmethod
    def quick(cls, methods: tuple[str, ...], file: Path | None) -> Plan:
        """A run of less than a minute."""
        return cls(
            methods=methods,
            file=file,
            isolated=2_000,
            pairs=400,
            alarms=40,
            noise=2_000,
            saturated=500,
            shots=1_500,
            ringing=2_000,
            real=400,
            separations=(0.4, 0.55, 0.75, 0.9, 1.5, 2.5),
            rates=(10.0, 1.0),
        )


@cache
def gaussian_pulse() -> Pulse:
    """The pulse of most constructed scenes."""
    return Pulse.gaussian("Gaussian", PULSE_FWHM)
