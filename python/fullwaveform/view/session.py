"""The files of one run of the viewer, opened and indexed."""

from __future__ import annotations

import time
from collections.abc import Callable, Mapping, Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any, Self

from fullwaveform.core.driver import MODE_NAMES, Mode
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.view.axes import Axes, degree_ratio
from fullwaveform.view.directory import WaveformDirectory
from fullwaveform.view.echo_index import MAX_POINTS, EchoIndex
from fullwaveform.view.export import SelectionExport
from fullwaveform.view.noise import WaveformNoise
from fullwaveform.view.panel import WaveformPanel, offered_scanners

#: Colours of classes and numbers (Okabe and Ito 2008), light enough for a dark page.
CATEGORIES = (
    "#999999",
    "#e69f00",
    "#56b4e9",
    "#009e73",
    "#f0e442",
    "#0072b2",
    "#d55e00",
    "#cc79a7",
)


@dataclass(frozen=True, slots=True)
class Layer:
    """A file of echoes on the map."""

    label: str
    echoes: EchoIndex
    export: SelectionExport


class ViewSession:
    """What the server answers from; to be used in a ``with`` statement.

    Parameters
    ----------
    reader
        The waveforms, in blocks of `directory.BLOCK`; closed with the session.
    identified
        Options of the reader that decide which waveforms it has, as JSON data.
    echo_files
        Files of echoes of these waveforms, with their labels.
    scanners
        Scanner descriptions to choose from, before that of the file.
    plot_options
        Options of the command plot that open the file in the same way.
    report
        Called with a line for each index that was made, with its time.
    as_las
        Makes a LAS file with the same echoes in the same order, with waveforms if its argument is
        true; for one file of echoes, a table.

    Raises as `EchoIndex.of`, `WaveformDirectory.of` and `offered_scanners`.
    """

    def __init__(
        self,
        reader: WaveformReader,
        identified: Mapping[str, Any],
        echo_files: Sequence[tuple[str, Path]],
        scanners: Sequence[Path] = (),
        plot_options: Sequence[str] = (),
        report: Callable[[str], None] = lambda line: None,
        as_las: Callable[[bool], Path] | None = None,
    ) -> None:
        self.path = reader.path
        with ExitStack() as opened:
            opened.callback(reader.close)
            offered = offered_scanners(reader, scanners)
            for _, path in echo_files:  # errors before the time that the first index takes
                open_echoes(path)
            start = time.perf_counter()
            waveforms = WaveformDirectory.of(reader, dict(identified))
            opened.callback(waveforms.close)
            _report(report, reader.path.name, len(waveforms), "waveforms", start)
            self.noise = WaveformNoise(reader, waveforms)
            self.layers: list[Layer] = []
            for label, path in echo_files:
                start = time.perf_counter()
                echoes = EchoIndex.of(path, waveforms)
                opened.callback(echoes.close)
                echoes.noise = self.noise
                self.layers.append(Layer(label, echoes, SelectionExport(path, echoes, as_las)))
                _report(report, label, len(echoes), "echoes", start)
            self.waveforms = waveforms
            self._axes = Axes.of(reader.header)
            self.panel = WaveformPanel(reader, waveforms, offered, plot_options)
            self._opened = opened.pop_all()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._opened.close()

    @property
    def described(self) -> dict[str, Any]:
        """What the page needs at its start, as JSON data."""
        return {
            "title": self.path.name,
            "waveforms": len(self.waveforms),
            "max_points": MAX_POINTS,
            "noise": self.noise.histogram,
            "axes": self._axes.described,
            "layers": [self._layer(layer) for layer in self.layers],
            "modes": [
                {"mode": int(mode), "name": name, "colour": METHOD_COLOURS[mode]}
                for mode, name in MODE_NAMES.items()
            ],
            "default_mode": int(Mode.THREE_POINT),
            "scanners": [scanner.label for scanner in self.panel.scanners],
            "categories": CATEGORIES,
        }

    def _layer(self, layer: Layer) -> dict[str, Any]:
        described = layer.echoes.described
        ratio = 1.0
        if self._axes.is_geographic and described["ranges"]["y"] is not None:
            ratio = degree_ratio(described["origin"][1] + sum(described["ranges"]["y"]) / 2)
        return {
            "label": layer.label,
            "echoes": len(layer.echoes),
            "columns": layer.echoes.columns,
            "nodes": layer.echoes.nodes(),
            "ratio": ratio,
            **described,
        }


def _report(report: Callable[[str], None], label: str, count: int, what: str, start: float) -> None:
    report(f"{label}: {count:,} {what}, index ready after {time.perf_counter() - start:.1f} s")
