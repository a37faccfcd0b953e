"""A page with the results of a file; it needs no server, network or scripts."""

from __future__ import annotations

import base64
import hashlib
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from html import escape
from pathlib import Path

from fullwaveform import __version__
from fullwaveform.core.driver import Mode
from fullwaveform.io.atomic import FileKind
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.view.coordinate_system import CoordinateSystem
from fullwaveform.view.example_figures import (
    PAGE_DETAILS,
    ExampleFigure,
    PageDetail,
    kind_section,
    legend,
)
from fullwaveform.view.example_kinds import ExampleKind
from fullwaveform.view.histogram_svg import histogram_figure
from fullwaveform.view.legible import legible
from fullwaveform.view.map_svg import map_svg
from fullwaveform.view.survey import EchoSummary, Survey
from fullwaveform.view.value_counts import Histogram

#: Bytes of a page, at most.
MAX_BYTES = 5_000_000
_LIGHT, _DARK = "#eef1f4", "#232a32"  # behind the examples, as in the style sheet
_GENERATOR = '<meta name="generator" content="fullwaveform view">'
_STYLE = Path(__file__).parent / "page" / "static_page.css"


def _is_page(path: Path) -> bool:
    with path.open(encoding="utf-8") as file:
        return _GENERATOR in file.read(4096)


PAGE_KIND = FileKind("a page of fullwaveform view", _is_page)


@dataclass(frozen=True)
class PageContent:
    """What a page shows.

    summary : label, value and remark of each row; `notes` are lines below
    noise_rms : of waveforms spread over the file, counts
    echoes : for map and histograms of amplitude and width
    figures : of the examples of each kind
    """

    title: str
    mode: Mode
    summary: Sequence[tuple[str, str, str]]
    notes: Sequence[str]
    survey: Survey
    noise_rms: Histogram
    echoes: EchoSummary
    system: CoordinateSystem
    figures: Mapping[ExampleKind, Sequence[ExampleFigure]]


def page(content: PageContent) -> bytes:
    """The page as HTML in UTF-8, with as much detail as `MAX_BYTES` allow."""
    for detail in PAGE_DETAILS:
        text = _page(content, detail).encode("utf-8", "replace")
        if len(text) < MAX_BYTES:
            break
    return text


def _page(content: PageContent, detail: PageDetail) -> str:
    style = _style(content.mode)
    digest = base64.b64encode(hashlib.sha256(style.encode()).digest()).decode("ascii")
    policy = (
        f"default-src 'none'; style-src 'sha256-{digest}'; img-src data:; base-uri 'none'; "
        "form-action 'none'"
    )
    title = escape(content.title)
    survey = content.survey
    sections = [
        ("summary", "Summary", _summary(content)),
        ("statistics", "Statistics", _statistics(content)),
        ("map", "Map", _map(content)),
        ("reading", "How to read the waveforms", legend(content.mode)),
        *(
            (
                kind.name.lower(),
                *kind_section(
                    kind, content.mode, survey.examples[kind].total, content.figures[kind], detail
                ),
            )
            for kind in ExampleKind
        ),
    ]
    links = "".join(f'<li><a href="#{name}">{heading}</a>' for name, heading, _ in sections)
    body = "".join(
        f'<section id="{name}" aria-labelledby="{name}-heading">'
        f'<h2 id="{name}-heading">{heading}</h2>{text}</section>\n'
        for name, heading, text in sections
    )
    return (
        '<!doctype html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n'
        f'<meta http-equiv="Content-Security-Policy" content="{policy}">\n{_GENERATOR}\n'
        '<meta name="viewport" content="width=device-width, initial-scale=1">\n'
        f"<title>{title} – waveforms and echoes</title>\n<style>{style}</style>\n</head>\n"
        f'<body>\n<header><h1>{title}</h1>\n<nav aria-label="Sections"><ul>{links}</ul></nav>'
        f"</header>\n<main>\n{body}</main>\n"
        f'<footer class="faint">Made by fullwaveform {escape(__version__)}.</footer>\n'
        "</body>\n</html>\n"
    )


def _style(mode: Mode) -> str:
    colour = METHOD_COLOURS[mode]
    return (
        _STYLE.read_text(encoding="utf-8")
        .replace("ECHO_ON_LIGHT", legible(colour, _LIGHT))
        .replace("ECHO_ON_DARK", legible(colour, _DARK))
    )


def _summary(content: PageContent) -> str:
    rows = "".join(
        f"<tr><td>{escape(label)}<td>{escape(value)}<td>{escape(remark)}"
        for label, value, remark in content.summary
    )
    notes = "".join(f"<li>{escape(note)}" for note in content.notes)
    listed = f"<ul>{notes}</ul>" if notes else ""
    return (
        f"<p>Echoes of mode {escape(content.mode.title)}.</p>"
        f'<table class="summary"><tbody>{rows}</table>{listed}'
    )


def _statistics(content: PageContent) -> str:
    survey, echoes = content.survey, content.echoes
    of_file = f"<p>Amplitudes and widths are those of {escape(echoes.source)}.</p>"
    return (
        (of_file if echoes.source else "")
        + '<div class="grid">'
        + histogram_figure(echoes.amplitudes, "amplitude", "counts", "echoes")
        + histogram_figure(echoes.widths, "width (full, at half maximum)", "ns", "echoes")
        + histogram_figure(survey.echoes_per_shot, "echoes per shot", "", "shots")
        + histogram_figure(
            content.noise_rms, "noise rms", "counts", "waveforms spread over the file"
        )
        + "</div>"
    )


def _map(content: PageContent) -> str:
    echoes, system = content.echoes, content.system
    picture, note = map_svg(echoes.raster, system)
    if not picture:
        return "<p>No echo has a place in space.</p>"
    source = f" of {escape(echoes.source)}" if echoes.source else ""
    named = (
        f"Coordinate system of the file: {escape(system.name)}."
        if system.name
        else ("The file does not name its coordinate system.")
    )
    lost = echoes.raster.without_place
    missing = f" {lost:,} echoes without a usable place are missing." if lost else ""
    return (
        f"<figure>{picture}<figcaption>{echoes.raster.placed:,} echoes{source} from above, "
        "coloured by height; where several fall on a spot, the highest is shown. "
        f"{named} {note}{missing}"
        "</figcaption></figure>"
    )
