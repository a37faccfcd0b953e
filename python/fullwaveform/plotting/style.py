"""Look of all plots, and their files."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import matplotlib as mpl
from matplotlib.axes import Axes
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.figure import Figure

from fullwaveform.io.atomic import FileKind, atomic_open

INK, GREY, FAINT = "#1f2a36", "#7b8794", "#dfe4e8"
#: Colours of what was measured, and of what was found in it.
MEASURED, FOUND = "#2f6690", "#c8501e"
TEXT_SIZE, SMALL_TEXT_SIZE = 8.5, 7.5  # points
DASHED = (0, (4, 2))
_DOTS_PER_INCH = 160
_FORMATS = {".png": "png", ".pdf": "pdf", ".svg": "svg"}
_SIGNATURES = {"png": b"\x89PNG", "pdf": b"%PDF-", "svg": b"<?xml"}
_SEARCHED = 1 << 16  # bytes at either end of a plot file, for the name of the library that drew it
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


def plot_kind(path: str | os.PathLike[str]) -> FileKind:
    """Plots of the format of `plot_format`; ValueError for an unknown ending."""
    signature = _SIGNATURES[plot_format(path)]

    def is_plot(existing: Path) -> bool:
        with existing.open("rb") as file:
            content = file.read(_SEARCHED)
            file.seek(max(len(content), file.seek(0, os.SEEK_END) - _SEARCHED))
            return content.startswith(signature) and b"atplotlib" in content + file.read()

    return FileKind(f"a plot ({Path(path).suffix})", is_plot)


def save_figure(figure: Figure, path: str | os.PathLike[str], *, overwrite: bool = False) -> None:
    """Write the figure in the format of `plot_format`; the file appears when it is complete.

    Raises ValueError for an unknown ending, OSError if the file cannot be written, FileExistsError
    for an existing file, unless `overwrite` is set and it is a plot of the same format.
    """
    kind = plot_format(path)
    output = atomic_open(path, plot_kind(path), overwrite=overwrite)
    with mpl.rc_context(_SVG_SETTINGS), output as stream:
        figure.savefig(stream, format=kind, metadata=_NO_DATE.get(kind, {}))


def legend_below(figure: Figure) -> None:
    """List the labelled curves below all axes, where the legend cannot cover them."""
    figure.legend(
        loc="outside lower center",
        ncols=2,
        frameon=False,
        fontsize=SMALL_TEXT_SIZE,
        labelcolor=INK,
    )


def label_axes(axes: Axes, x: str = "", y: str = "", title: str = "") -> None:
    """Set labels and title, and the common look of axes."""
    axes.set_xlabel(x, fontsize=TEXT_SIZE, color=INK)
    axes.set_ylabel(y, fontsize=TEXT_SIZE, color=INK)
    axes.set_title(title, loc="left", fontsize=TEXT_SIZE, color=INK)
    axes.spines[["top", "right"]].set_visible(False)
    axes.spines[["left", "bottom"]].set_color(GREY)
    axes.tick_params(labelsize=SMALL_TEXT_SIZE, labelcolor=INK, color=GREY, length=2.5)
