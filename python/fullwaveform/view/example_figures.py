"""Examples of waveforms as figures of a page: picture, table of echoes, command."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from html import escape

import numpy as np

from fullwaveform.analysis.waveform_views import MethodView, WaveformView
from fullwaveform.core.driver import Mode
from fullwaveform.data.counting import counted
from fullwaveform.plotting.waveform import waveform_title
from fullwaveform.view.example_kinds import ExampleKind
from fullwaveform.view.examples import EXAMPLES_PER_KIND, Example
from fullwaveform.view.waveform_svg import Detail, strongest, waveform_svg


@dataclass(frozen=True, slots=True)
class PageDetail:
    """How much of large waveforms a page shows.

    rows : of a table of echoes, the strongest
    """

    picture: Detail
    rows: int


_LARGE = 1e7  # values that would be long with decimals

#: From the best to the one that no input makes too large.
PAGE_DETAILS = (
    PageDetail(Detail(column=2, marks=400), rows=100),
    PageDetail(Detail(column=3, marks=100), rows=50),
    PageDetail(Detail(column=6, marks=40), rows=20),
)


@dataclass(frozen=True, slots=True)
class ExampleFigure:
    """An example, what the mode finds in it, and the command that draws it."""

    example: Example
    view: WaveformView
    command: str


def legend(mode: Mode) -> str:
    """What the marks of the pictures mean, as HTML."""
    marks = [
        ("dots", "samples; grey lines from the lowest to the highest where they are too dense"),
        ("dashed line", "threshold: samples at or below it are not searched for echoes"),
        ("dotted line", "baseline, from which amplitudes count"),
        ("bars on the line of 0", "parts above the threshold"),
        ("triangles", "returns that the scanner listed, if the file has them"),
        ("line in colour", _LINES[mode]),
        ("large dots with a stem", "echoes"),
        ("bars across the stems", "standard deviation of the echo to either side"),
        ("thin bars on the large dots", "standard uncertainty of position and amplitude"),
    ]
    if mode in (Mode.DECOMPOSITION, Mode.PULSE_FIT):
        marks.append(("bars of the lower picture", "residuals: samples minus fitted sum"))
    listed = "".join(f"<dt>{mark}<dd>{meaning}" for mark, meaning in marks)
    return (
        f"<dl>{listed}</dl><p>Long waveforms are cropped to their echoes and returns. "
        "The command below a picture draws it again, with the input in the same place.</p>"
    )


_LINES = {
    Mode.THREE_POINT: "Gaussians, each through the three samples of an echo",
    Mode.DECOMPOSITION: "fitted sum of Gaussians",
    Mode.DECONVOLUTION: "deconvolved signal",
    Mode.HYBRID: "fitted sum of Gaussians, or dashed the deconvolved signal",
    Mode.PULSE_FIT: "fitted sum of pulses",
}


def kind_section(
    kind: ExampleKind, mode: Mode, total: int, figures: Sequence[ExampleFigure], detail: PageDetail
) -> tuple[str, str]:
    """Heading and content of the section of a kind, as HTML."""
    heading, rule = _TEXTS[kind]
    if kind is ExampleKind.WORST:
        rule = _WORST_BY_MODE[mode]
    waveforms = counted(total, "waveform")
    if not figures:
        shown = "The file has no such waveform."
    elif len(figures) < EXAMPLES_PER_KIND:
        shown = f"The file has only {waveforms} of this kind, shown here."
    else:
        shown = f"{len(figures)} of {waveforms}."
    drawn = "".join(_figure(kind, mode, figure, detail) for figure in figures)
    return heading, f'<p>{rule} {shown}</p><div class="grid">{drawn}</div>'


_TEXTS = {
    ExampleKind.TYPICAL: (
        "Typical waveforms",
        "Drawn at random from the waveforms with echoes, the same ones every time.",
    ),
    ExampleKind.WEAKEST: (
        "Weakest echoes",
        "Waveforms with the smallest amplitude of an echo over the noise rms of the receiver.",
    ),
    ExampleKind.MOST: ("Most echoes", "Waveforms with the largest number of echoes."),
    ExampleKind.SATURATED: (
        "Saturated waveforms",
        "Waveforms with three or more consecutive samples at the largest count of the digitiser, "
        "those with the most such samples first.",
    ),
    ExampleKind.WORST: ("Worst fits", ""),
}
_RESIDUALS = (
    "Waveforms with the largest rms of the residuals within four standard deviations of an echo, "
    "over the noise rms of the receiver."
)
_WORST_BY_MODE = {
    Mode.THREE_POINT: f"{_RESIDUALS} The curve is the highest of the Gaussians of the echoes, "
    "which do not add up.",
    Mode.DECOMPOSITION: _RESIDUALS,
    Mode.DECONVOLUTION: f"{_RESIDUALS} An echo counts as a Gaussian of the width of the system "
    "wave.",
    Mode.HYBRID: f"{_RESIDUALS} A deconvolved echo counts as a Gaussian of the width of the system "
    "wave.",
    Mode.PULSE_FIT: "Waveforms with the largest reduced chi² of the fit.",
}


def _reason(kind: ExampleKind, mode: Mode, score: float) -> str:
    """Why a waveform is an example of a kind."""
    if kind is ExampleKind.WEAKEST:
        return f"weakest echo {-score:.3g} noise rms"
    if kind is ExampleKind.MOST:
        return counted(int(score), "echo", "echoes")
    if kind is ExampleKind.SATURATED:
        return f"{counted(int(score), 'sample')} at the limit"
    if kind is ExampleKind.WORST and mode is Mode.PULSE_FIT:
        return f"reduced chi² {score:.3g}"
    return f"residuals {score:.3g} noise rms" if kind is ExampleKind.WORST else ""


def _figure(kind: ExampleKind, mode: Mode, figure: ExampleFigure, detail: PageDetail) -> str:
    example, view = figure.example, figure.view
    title = waveform_title(view)
    reason = _reason(kind, mode, example.score)
    line = f"shot {example.shot_number}{f', {reason}' if reason else ''}"
    name = f"{kind.name.lower()}-{example.waveform}"
    return (
        f'<figure class="example" id="{name}" data-waveform="{example.waveform}" '
        f'data-shot="{example.shot_number}" data-score="{example.score:.6g}">'
        f"<h3>{escape(title[:1].upper() + title[1:])}</h3><p>{escape(line)}</p>"
        f"{waveform_svg(view, detail.picture)}{_table(view.methods[0], detail)}"
        f"<code>{escape(figure.command, quote=False)}</code></figure>\n"
    )


def _table(method: MethodView, detail: PageDetail) -> str:
    count = len(method.positions)
    title = f"{method.name}: {counted(count, 'echo', 'echoes') if count else method.note}"
    marked, listed = strongest(method, detail.picture.marks), strongest(method, detail.rows)
    if len(marked) < count:
        title += f"; the {len(marked)} strongest are drawn"
    if len(listed) < count:
        title += f"; the {len(listed)} strongest are listed"
    if not count:
        return f'<p class="faint">{escape(title)}</p>'
    rows = "".join(_row(method, at) for at in listed.tolist())
    return (
        f'<div class="scroll" tabindex="0" role="region" aria-label="Echoes"><table>'
        f"<caption>{escape(title)}</caption><thead><tr>"
        '<th scope="col">echo<th scope="col">position, samples<th scope="col">amplitude, counts'
        f'<th scope="col">width (σ), samples<tbody>{rows}</table></div>'
    )


def _row(method: MethodView, at: int) -> str:
    position, amplitude, width = method.uncertainties[at].tolist()
    return (
        f"<tr><td>{at + 1}<td>{_measured(method.positions[at], position, 3)}"
        f"<td>{_measured(method.amplitudes[at], amplitude, 1)}"
        f"<td>{_measured(method.widths[at], width, 3)}"
    )


def _measured(value: float, uncertainty: float, digits: int) -> str:
    if not np.isfinite(value):
        return "–"
    known = f" ± {_fixed(uncertainty, digits)}" if np.isfinite(uncertainty) else ""
    return f"{_fixed(value, digits)}{known}"


def _fixed(value: float, digits: int) -> str:
    return f"{value:.{digits}f}" if abs(value) < _LARGE else f"{value:.4g}"
