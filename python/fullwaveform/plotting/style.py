"""Look of all plots, and their files."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import matplotlib as mpl
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.figure import Figure

from fullwaveform.io.atomic import atomic_open

INK, GREY, FAINT = "#1f2a36", "#7b8794", "#dfe4e8"
#: Colours of what was measured, and of what was found in it.
MEASURED, FOUND = "#2f6690", "#c8501e"
TEXT_SIZE, SMALL_TEXT_SIZE = 8.5, 7.5  # points
DASHED = (0, (4, 2))
_DOTS_PER_INCH = 160
_FORMATS = {".png": "png", ".pdf": "pdf", ".svg": "svg"}
#: Name endings of plot files.
PLOT_ENDINGS = tuple(_FORMATS)
# Equal plots are equal files: no dates, and no random identifiers in SVG.
_NO_DATE: dict[str, dict[str, Any]] = {"pdf": {"CreationDate": None}, "svg": {"Date": None}}
_SVG_SETTINGS: dict[Any, str] = {"svg.fonttype": "none", "svg.hashsalt": "fullwaveform"}


def new_figure(width: float, height: float) -> Figure:
    """An empty figure; sizes in inches."""
    figure = Figure(figsize=(width, height), dpi=_DOTS_PER_INCH, layout="constrained")
    FigureCanvasAgg(figure)
    return figure


def plot_format(path: str | os.PathLike[str]) -> str:
    """Format of a plot file by its ending, one of `PLOT_ENDINGS`; ValueError for another ending."""
    ending = Path(path).suffix.lower()
    if ending not in _FORMATS:
        raise ValueError(f"unknown plot format {Path(path).name!r}; use {', '.join(PLOT_ENDINGS)}")
    return _FORMATS[ending]


def save_figure(figure: Figure, path: str | os.PathLike[str]) -> None:
    """Write the figure in the format of `plot_format`; the file appears when it is complete.

    Raises ValueError for an unknown ending, OSError if the file cannot be written.
    """
    kind = plot_format(path)
    with mpl.rc_context(_SVG_SETTINGS), atomic_open(Path(path)) as stream:
        figure.savefig(stream, format=kind, metadata=_NO_DATE.get(kind, {}))


def label_axes(axes: Axes, x: str = "", y: str = "", title: str = "") -> None:
    """Set labels and title, and the common look of axes."""
    axes.set_xlabel(x, fontsize=TEXT_SIZE, color=INK)
    axes.set_ylabel(y, fontsize=TEXT_SIZE, color=INK)
    axes.set_title(title, loc="left", fontsize=TEXT_SIZE, color=INK)
    axes.spines[["top", "right"]].set_visible(False)
    axes.spines[["left", "bottom"]].set_color(GREY)
    axes.tick_params(labelsize=SMALL_TEXT_SIZE, labelcolor=INK, color=GREY, length=2.5)
