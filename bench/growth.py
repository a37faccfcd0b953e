"""Time and memory of the methods against waveforms, samples, echoes and shots per block.

Usage: growth.py MEASURE    (MEASURE: the program fullwaveform_measure of the bench build)
The times of modes 0 to 2 are those of C++ `apply`, that of the pulse fit is its compiled part
without the driver's rules. Prints a table and writes growth.png next to this file.
"""

from __future__ import annotations

import sys
from pathlib import Path

import matplotlib as mpl

mpl.use("Agg")

import numpy as np
from matplotlib import pyplot as plt
from scenes import Samples, cpp_apply, fastest, waveforms

from fullwaveform.core.pulse_fit import PulseFit, PulseModel

ROWS, SAMPLES, ECHOES = 4000, 80, 2
RUNS, PULSE_FIT_RUNS = 12, 3
MODES = (0, 1, 2)
PULSE_FIT = "pulse fit"
GROWTH = {
    "waveforms": (1000, 2000, 4000, 8000, 16000, 32000, 64000),
    "samples": (40, 80, 160, 320, 640, 1280),
    "echoes": (1, 2, 4, 8, 16),
    "shots per block": (40, 400, 1000, 2000, 4000),
}


def scene(quantity: str, value: int) -> tuple[int, int, int, int]:
    """Rows, samples, echoes and waveforms per shot, with one quantity varied."""
    if quantity == "waveforms":
        return value, SAMPLES, ECHOES, 1
    if quantity == "samples":
        return ROWS, value, ECHOES, 1
    if quantity == "echoes":
        return ROWS, 400, value, 1
    return ROWS, SAMPLES, ECHOES, ROWS // value


def pulse_model() -> PulseModel:
    """The narrowest pulse of the scene; the others are wider by a variance of 0 to 5."""
    lags = np.arange(-12.0, 12.0625, 0.0625)
    return PulseModel(
        pulse=tuple(np.exp(-0.5 * (lags / 2.0) ** 2).tolist()),
        first_lag=-12.0,
        lag_step=0.0625,
        baseline=14.0,
        baseline_spread=0.5,
        noise_rms=1.0,
        noise_correlation=1.0,
        scatter=0.0,
        variance_spread=0.05,
        widening=2.5,
        sampling_interval=1e-9,
    )


def pulse_fit(block: Samples) -> float:
    """Processor time of the pulse fit in ms."""
    fit = PulseFit(pulse_model())
    seconds: float = fastest(lambda: fit.apply(block), PULSE_FIT_RUNS)
    return 1e3 * seconds


def main(program: Path) -> None:
    """Measure, print and plot."""
    figure, panels = plt.subplots(
        2, len(GROWTH), figsize=(13, 6), layout="constrained", sharey="row"
    )
    methods = [*(f"mode {mode}" for mode in MODES), PULSE_FIT]
    print(
        "quantity         value  " + "  ".join(f"{name:>9} ms" for name in methods) + "  result MB"
    )
    for column, (quantity, values) in enumerate(GROWTH.items()):
        times: dict[str, list[float]] = {name: [] for name in methods}
        memory = []
        for value in values:
            rows, samples, echoes, per_shot = scene(quantity, value)
            block = waveforms(rows, samples, echoes)
            for mode in MODES:
                measured = cpp_apply(
                    program, block, mode, per_shot=per_shot, threshold=20, runs=RUNS
                )
                times[f"mode {mode}"].append(measured.apply * 1e3)
                if mode == 1:
                    memory.append(measured.memory / 1e6)
            times[PULSE_FIT].append(pulse_fit(block))
            found = "  ".join(f"{series[-1]:12.2f}" for series in times.values())
            print(f"{quantity:15}  {value:5}  {found}  {memory[-1]:9.2f}")
        for name, series in times.items():
            panels[0, column].loglog(values, series, "o-", label=name)
        panels[1, column].loglog(values, memory, "o-", color="black")
        panels[1, column].set_xlabel(quantity)
    panels[0, 0].set_ylabel("time, ms")
    panels[1, 0].set_ylabel("memory of the result, MB")
    panels[0, 0].legend()
    figure.savefig(Path(__file__).with_name("growth.png"), dpi=110)


if __name__ == "__main__":
    main(Path(sys.argv[1]))
