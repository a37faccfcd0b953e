"""Time and memory of C++ `apply` against waveforms, samples, echoes and shots per block.

Usage: growth.py MEASURE    (MEASURE: the program fullwaveform_measure of the bench build)
Prints a table and writes growth.png next to this file.
"""

from __future__ import annotations

import sys
from pathlib import Path

import matplotlib as mpl

mpl.use("Agg")

from matplotlib import pyplot as plt
from scenes import cpp_apply, waveforms

ROWS, SAMPLES, ECHOES = 4000, 80, 2
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


def main(program: Path) -> None:
    """Measure, print and plot."""
    figure, panels = plt.subplots(2, len(GROWTH), figsize=(13, 6), layout="constrained")
    print("quantity         value  mode 0 ms  mode 1 ms  result MB")
    for column, (quantity, values) in enumerate(GROWTH.items()):
        times: dict[int, list[float]] = {0: [], 1: []}
        memory = []
        for value in values:
            rows, samples, echoes, per_shot = scene(quantity, value)
            block = waveforms(rows, samples, echoes)
            for mode, series in times.items():
                measured = cpp_apply(program, block, mode, per_shot=per_shot, threshold=20, runs=12)
                series.append(measured.apply * 1e3)
            memory.append(measured.memory / 1e6)
            print(
                f"{quantity:15}  {value:5}  {times[0][-1]:9.2f}  {times[1][-1]:9.2f}  "
                f"{memory[-1]:9.2f}"
            )
        for mode, series in times.items():
            panels[0, column].loglog(values, series, "o-", label=f"mode {mode}")
        panels[1, column].loglog(values, memory, "o-", color="black")
        panels[1, column].set_xlabel(quantity)
    panels[0, 0].set_ylabel("time of apply, ms")
    panels[1, 0].set_ylabel("memory of the result, MB")
    panels[0, 0].legend()
    figure.savefig(Path(__file__).with_name("growth.png"), dpi=110)


if __name__ == "__main__":
    main(Path(sys.argv[1]))
