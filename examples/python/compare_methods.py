"""One waveform, four methods: three echoes, two of which touch.

python examples/python/compare_methods.py
"""

import numpy as np

from fullwaveform import Driver, Scanner
from fullwaveform.core.constants import EchoType
from fullwaveform.core.driver import DRIVER_MODES
from fullwaveform.system_wave import (
    average,
    fit_system_wave,
    offset_of_simulated_echoes,
    pulses_of_rows,
    with_system_wave,
)

INTERVAL = 1e-9  # s


def pulse_at(position: np.ndarray) -> np.ndarray:
    """Rows of 80 samples with a pulse of 1.6 samples standard deviation."""
    return np.exp(-0.5 * ((np.arange(80) - position[:, np.newaxis]) / 1.6) ** 2)


def main() -> None:
    """Print the echoes that each method finds."""
    noise = np.random.default_rng(1).normal(0.0, 1.5, (201, 80))
    # The system wave comes from 200 recorded pulses at different places between the samples.
    pulses = np.rint(12 + 2000 * pulse_at(np.linspace(24.5, 25.5, 200)) + noise[1:])
    pulse = average(pulses_of_rows(pulses, None, INTERVAL, "recorded pulses"))
    wave = fit_system_wave(pulse).in_seconds()
    scanner = with_system_wave(Scanner.default(), wave, INTERVAL)
    offset = offset_of_simulated_echoes(scanner, pulse).position  # of deconvolved echoes, samples
    true = np.array([20.3, 40.0, 45.2])
    samples = np.rint(12 + np.array([250, 120, 480]) @ pulse_at(true) + noise[0])
    print(f"true positions: {true}")
    for mode in DRIVER_MODES:
        peaks = (
            Driver(mode, scanner).apply(samples[np.newaxis].astype(np.uint16), threshold=20).peaks
        )
        print(f"\n{mode.title}")
        print(
            "  position ",
            np.round(peaks["idx"] - offset * (peaks["type"] == EchoType.RICHARDSON_LUCY), 2),
        )
        print("  amplitude", np.round(peaks["amplitudeCounts"]))
        print("  width    ", np.round(peaks["std"], 2))


if __name__ == "__main__":
    main()
