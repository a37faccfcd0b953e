"""A file of an open archive, cell by cell: echoes, metrics, one waveform and a picture of all.

python examples/python/archive_notebook.py FILE FOLDER

FILE is a NEON, GEDI, LVIS or LAS file; the tables and pictures go into FOLDER. Editors that know
cells (# %%) run it as a notebook.
"""

# %%
import sys
from pathlib import Path

import numpy as np
from matplotlib.figure import Figure

import fullwaveform as fw

if len(sys.argv) != 3:
    sys.exit(__doc__)
source, folder = sys.argv[1], Path(sys.argv[2])

# %% Echoes: a row for each, with its place, amplitude, width and uncertainty
extraction = fw.extract(source)
echoes = extraction.to_pandas()
print(extraction)
print(echoes[["z", "amplitude", "fwhm_ns", "sigma_range"]].describe().round(3))
extraction.write(folder / "echoes.parquet")

# %% Metrics: a row for each waveform, with heights of energy, cover and plant area
metrics = fw.metrics(source).to_pandas()
print(metrics[["ground_z", "rh_50", "rh_98", "cover", "pai"]].describe().round(2))
metrics.to_csv(folder / "metrics.csv", index=False)

# %% GEDI and LVIS number their shots, by which the tables are joined with other products
if "shot_number" in metrics:
    per_shot = echoes.groupby("shot_number").size().rename("echoes")
    joined = metrics.set_index("shot_number").join(per_shot)
    print(joined[["rh_98", "echoes"]].corr().round(2))

# %% The waveform that reaches highest above its ground, as a picture
tallest = int(metrics["waveform_number"].iloc[int(np.nanargmax(metrics["rh_98"]))])
fw.plot(source, tallest).savefig(folder / "tallest.png")

# %% Heights of ground, half of the energy and top along the flight
figure = Figure(figsize=(8.0, 4.0), layout="constrained")
axes = figure.subplots()
number, ground = metrics["waveform_number"], metrics["ground_z"]
for name, colour in (("rh_98", "#2f7d4f"), ("rh_50", "#c8501e")):
    axes.plot(number, ground + metrics[name], ".", ms=3, color=colour, label=name)
axes.plot(number, ground, ".", ms=3, color="#2f6690", label="ground")
axes.set(xlabel="waveform", ylabel="height [m]")
axes.legend(frameon=False)
figure.savefig(folder / "profile.png", dpi=150)
