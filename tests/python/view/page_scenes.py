"""A scan of sixty shots with known examples of each kind, and what a page without a server has."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from html.parser import HTMLParser
from pathlib import Path

import numpy as np

from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.view_page import write_page
from fullwaveform.core.driver import Mode

from ..support.las_scenes import Point, Scene

BASELINE, SAMPLES, LIMIT = 10, 64, 1023  # counts; samples; counts of a digitiser of 10 bits
WORST = 17  # a square pulse
WEAKEST = 31  # an echo of 12 counts
EMPTY = (5, 6, 50)  # without echoes
MOST = (20, 21, 22, 23, 24)  # three echoes each
SATURATED = (40, 41, 42, 43, 44, 45, 46)  # three samples at the limit each
COUNT = 60


def gaussians(echoes: Sequence[tuple[float, float]], count: int = SAMPLES) -> np.ndarray:
    """Samples (count,) of echoes (position, amplitude) of sigma 2 samples."""
    at = np.arange(count)
    height = np.full(count, float(BASELINE))
    for position, amplitude in echoes:
        height += amplitude * np.exp(-0.5 * ((at - position) / 2.0) ** 2)
    return np.minimum(np.round(height), LIMIT).astype(int)


def samples_of(shot: int) -> np.ndarray:
    if shot in EMPTY:
        return np.full(SAMPLES, BASELINE)
    if shot == WORST:
        square = np.full(SAMPLES, BASELINE)
        square[20:40] = 900
        return square
    if shot in MOST:
        return gaussians([(15.0, 300.0), (32.0, 200.0), (48.0, 100.0)])
    if shot in SATURATED:  # exceeds the limit at 23, 24 and 25
        return gaussians([(24.0, 1300.0)])
    return gaussians([(24.0, 12.0 if shot == WEAKEST else 100.0 + shot)])


def write_scan(path: Path, shots: Sequence[int] = tuple(range(COUNT))) -> Path:
    """The given shots of the scene, one waveform each, a second and 10 m apart."""
    return write_waveforms(path, [samples_of(shot) for shot in shots])


def write_waveforms(path: Path, waveforms: Sequence[np.ndarray]) -> Path:
    """Waveforms of equal length, one per shot, on a square grid of 10 m."""
    columns = int(np.ceil(np.sqrt(max(len(waveforms), 1))))
    points = [
        Point(
            number,
            gps_time=100.0 + number,
            xyz=(10.0 * (number % columns), 10.0 * (number // columns), 130.0),
        )
        for number in range(len(waveforms))
    ]
    packets = [(1, samples.tolist()) for samples in waveforms]
    return Scene([(1, 16, len(waveforms[0]), 1000)], packets, points).write(path)


def written_page(
    scan: Path,
    target: Path,
    mode: Mode = Mode.DECOMPOSITION,
    *,
    workers: int = 1,
    block: int = 20_000,
    echoes: Path | None = None,
    max_samples: int = 8192,
    scanner: Path | None = None,
) -> Page:
    """The page of a scan, read again."""
    options = ExtractOptions(
        mode=mode,
        block=block,
        max_samples=max_samples,
        scanner=scanner,
        skip_unreadable=True,
        allow_empty=True,
    )
    write_page(scan, target, options, echoes, plot_options=[], workers=workers, overwrite=False)
    return Page.of(target)


@dataclass
class Figure:
    """An example of a page."""

    attributes: dict[str, str]
    text: str = ""
    paths: dict[str, str] = field(default_factory=dict)  # class -> path

    @property
    def waveform(self) -> int:
        return int(self.attributes["data-waveform"])

    @property
    def score(self) -> float:
        return float(self.attributes["data-score"])


class Page(HTMLParser):
    """A page, taken apart: sections with their texts and examples, attributes of all elements."""

    def __init__(self) -> None:
        super().__init__()
        self.texts: dict[str, str] = {"": ""}  # by section
        self.figures: dict[str, list[Figure]] = {}
        self.elements: list[tuple[str, dict[str, str]]] = []
        self._section = ""
        self._figure: Figure | None = None

    @classmethod
    def of(cls, path: Path) -> Page:
        page = cls()
        page.feed(path.read_text(encoding="utf-8"))
        page.close()
        return page

    def waveforms(self, kind: str) -> list[int]:
        return [figure.waveform for figure in self.figures[kind]]

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        attributes = {name: value or "" for name, value in attrs}
        self.elements.append((tag, attributes))
        if tag == "section":
            self._section = attributes["id"]
            self.texts[self._section], self.figures[self._section] = "", []
        if tag == "figure" and "data-waveform" in attributes:
            self._figure = Figure(attributes)
            self.figures[self._section].append(self._figure)
        if tag == "path" and self._figure is not None:
            self._figure.paths[attributes["class"]] = attributes["d"]
        if tag in ("td", "th", "tr", "p", "li", "dt", "dd"):
            self.handle_data(" ")

    def handle_endtag(self, tag: str) -> None:
        if tag == "section":
            self._section = ""
        if tag == "figure":
            self._figure = None

    def handle_data(self, data: str) -> None:
        self.texts[self._section] += data
        if self._figure is not None:
            self._figure.text += data
