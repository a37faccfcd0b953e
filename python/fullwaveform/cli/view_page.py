"""``fullwaveform view IN --html FILE``: the page without a server."""

from __future__ import annotations

import shlex
from collections import Counter
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path

import numpy as np
import typer

from fullwaveform.analysis.waveform_views import WaveformView, waveform_views
from fullwaveform.calibration.calibration import measure
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.progress import followed_blocks, progress_bar
from fullwaveform.cli.summary import RunSummary
from fullwaveform.core.driver import MODE_NAMES, RunMonitor
from fullwaveform.core.messages import counted_messages
from fullwaveform.data.echo_records import EchoFile
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.atomic import atomic_open
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.echo_readers.opening import open_echoes
from fullwaveform.view.coordinate_system import CoordinateSystem, system_of_echoes
from fullwaveform.view.example_figures import ExampleFigure
from fullwaveform.view.examples import Example
from fullwaveform.view.static_page import PAGE_KIND, PageContent, page
from fullwaveform.view.survey import Survey, summary_of_file, survey
from fullwaveform.view.value_counts import Histogram, ValueCounts


def write_page(
    source: Path,
    target: Path,
    options: ExtractOptions,
    echoes: Path | None,
    *,
    plot_options: Sequence[str],
    workers: int,
    overwrite: bool,
) -> None:
    """Write the page of a file.

    Parameters
    ----------
    echoes
        File of echoes for map and histograms; None for those of the extraction.
    plot_options
        Options of the command plot that open the input in the same way.
    workers
        Threads.

    Raises OSError and ValueError if a file cannot be read, is invalid, or cannot be written.
    """
    file = None if echoes is None else open_echoes(echoes)  # errors before the time of the run
    with options.open([source]) as reader:
        settings = options.settings([reader.scanner()])
        noise = ValueCounts()
        calibration = measure(
            reader,
            options.outgoing_phase,
            settings.pulses,
            lambda levels: noise.add(np.sqrt(levels.mean_square)),
        )
        settings = replace(settings, calibration=calibration)
        found, messages = _survey(reader, settings, workers)
        content = _content(reader, settings, found, noise.histogram(), file, plot_options)
    summary = RunSummary(
        name=source.name,
        destination=target,
        settings=settings,
        read=reader.tally,
        extracted=found.tally,
        calibrations={source.name: calibration},
        written=found.tally.echoes,
        notes=(),
        messages=messages,
        statistics=None,
        seconds=0.0,
    )
    with atomic_open(target, PAGE_KIND, overwrite=overwrite) as stream:
        stream.write(page(replace(content, summary=summary.rows(), notes=summary.all_notes())))
    typer.echo(f"result: {target}")


def _survey(
    reader: WaveformReader, settings: ExtractionSettings, workers: int
) -> tuple[Survey, Counter[str]]:
    """The survey, and the messages of the library by kind."""
    monitor, system = RunMonitor(), CoordinateSystem.of(reader.header)
    with (
        counted_messages() as messages,
        progress_bar(False) as progress,
        followed_blocks(reader, progress, False, monitor) as blocks,
    ):
        found = survey(
            reader,
            blocks,
            settings,
            in_degrees=system.axes.is_geographic,
            workers=workers,
            monitor=monitor,
        )
    return found, Counter({kind: messages[kind] for kind in sorted(messages)})


def _content(
    reader: WaveformReader,
    settings: ExtractionSettings,
    found: Survey,
    noise_rms: Histogram,
    file: EchoFile | None,
    plot_options: Sequence[str],
) -> PageContent:
    """The page without its summary."""
    system, echoes = CoordinateSystem.of(reader.header), found.echoes
    if file is not None:
        system = system_of_echoes(file.path, system)
        echoes = summary_of_file(file, in_degrees=system.axes.is_geographic)

    views: dict[int, WaveformView] = {}  # a waveform may be an example of several kinds

    def figure(example: Example) -> ExampleFigure:
        number = example.waveform
        if number not in views:
            (views[number],) = waveform_views(example.shot, settings, (settings.mode,))
        words = ["--waveform", str(number), "--mode", MODE_NAMES[settings.mode], *plot_options]
        command = ["fullwaveform", "plot", str(reader.path), *words]
        return ExampleFigure(
            example, views[number], shlex.join([*command, "-o", f"waveform-{number}.png"])
        )

    with counted_messages():
        figures = {
            kind: [figure(example) for example in chosen.examples]
            for kind, chosen in found.examples.items()
        }
    return PageContent(
        reader.path.name, settings.mode, (), (), found, noise_rms, echoes, system, figures
    )
