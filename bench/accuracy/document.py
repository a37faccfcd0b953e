"""The document with all tables and pictures, from the figures of a run."""

from __future__ import annotations

import re
from collections.abc import Callable
from pathlib import Path

from accuracy import pictures, tables
from accuracy.plan import Row
from accuracy.results import Results
from fullwaveform.plotting.style import save_figure

TEMPLATE = Path(__file__).with_name("template.md")
_PLACE = re.compile(r"<!-- (table|figure): ([\w ]+) -->")
_TABLES: dict[str, Callable[[Results], str]] = {
    "targets": tables.targets,
    "isolated positions": tables.isolated_positions,
    "isolated uncertainties": tables.isolated_uncertainties,
    "pulse fit details": tables.pulse_fit_details,
    "pair separations": tables.pair_separations,
    "pairs of the pulse fit": tables.pairs_of_pulse_fit,
    "noise": tables.noise,
    "saturated": tables.saturated,
    "scan": tables.scan,
    "ringing": tables.ringing,
    "real": tables.real,
}


def document(results: Results) -> str:
    """The text of the template with the tables and figures in their places."""

    def fill(place: re.Match[str]) -> str:
        kind, name = place.groups()
        return _TABLES[name](results) if kind == "table" else _figure(results.settings, name)

    return _PLACE.sub(fill, TEMPLATE.read_text(encoding="utf-8"))


def write_document(results: Results, folder: Path) -> None:
    """Write accuracy.md and its pictures."""
    (folder / "accuracy.md").write_text(document(results), encoding="utf-8")
    for name, draw in pictures.PICTURES.items():
        save_figure(draw(results), folder / f"{name}.png", overwrite=True)


def _figure(settings: Row, name: str) -> str:
    value = settings[name]
    return f"{value:,}" if isinstance(value, int) else str(value)
