"""Echoes of a file as a pandas table, and a picture of them.

python examples/python/file_to_table.py SCAN.las PICTURE.png
"""

import sys

import pandas as pd
from matplotlib.figure import Figure

import fullwaveform as fw


def main(scan: str, picture: str) -> None:
    """Print the table by echo number and draw amplitude over height."""
    result = fw.extract(scan, channel_flags={1: 1, 2: 0})
    echoes = result.to_pandas()
    print(result)
    columns = ["amplitude", "fwhm_ns", "z"]
    print(echoes.groupby("echo_number")[columns].median().round(2))
    silent = result.to_pandas("waveforms").query("echo_count == 0")
    print(f"waveforms without echoes: {len(silent)}")
    draw(echoes, picture)


def draw(echoes: pd.DataFrame, picture: str) -> None:
    """Plot last echoes, which are mostly ground, in another colour than earlier ones."""
    last = echoes["echo_number"] == echoes["echo_count"]
    figure = Figure(figsize=(6.4, 4.0), layout="constrained")
    axes = figure.subplots()
    for chosen, colour, name in ((last, "#2f6690", "last"), (~last, "#c8501e", "before the last")):
        axes.plot(
            echoes["z"][chosen], echoes["amplitude"][chosen], "o", ms=2, color=colour, label=name
        )
    axes.set(xlabel="height [m]", ylabel="amplitude [counts]")
    axes.legend(frameon=False, loc="upper right")
    figure.savefig(picture, dpi=150)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
