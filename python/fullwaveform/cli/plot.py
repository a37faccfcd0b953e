"""``fullwaveform plot``: waveforms of one shot with the echoes of one or more modes."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.analysis.waveform_selection import Selector, find_shot
from fullwaveform.analysis.waveform_views import WaveformView, waveform_views
from fullwaveform.calibration.calibration import measure
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.extract_options import check_mode_options, scanner_for
from fullwaveform.cli.option_values import integer_from, local_path
from fullwaveform.cli.options import (
    AfterPulseOption,
    AsOne,
    ChannelOption,
    IntervalOption,
    KeepDegraded,
    MaxSamples,
    RepeatedModeOption,
    ScannerFile,
    SmoothingOption,
    SourceFiles,
    ThresholdOption,
    TimeOption,
    require_suffix,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.reader_options import ReaderOptions, check_as_one
from fullwaveform.core.driver import Mode
from fullwaveform.data.counting import counted
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.plotting.style import PLOT_ENDINGS, plot_kind
from fullwaveform.plotting.waveform import draw_waveforms


def plot(
    sources: SourceFiles,
    output: Annotated[
        Path,
        typer.Option(
            "-o", "--output", metavar="OUT", parser=local_path, help="Plot: .png, .pdf or .svg"
        ),
    ],
    waveform: Annotated[
        int | None,
        typer.Option(parser=integer_from(0), metavar="N", help="Number of the waveform, from 0"),
    ] = None,
    shot: Annotated[
        int | None,
        typer.Option(
            parser=integer_from(0),
            metavar="N",
            help="Number of the shot, from 0; draws all channels",
        ),
    ] = None,
    time: TimeOption = None,
    as_one: AsOne = False,
    whole: Annotated[
        bool, typer.Option("--whole", help="Show the whole record, not only the part with echoes")
    ] = False,
    mode: RepeatedModeOption = None,
    threshold: ThresholdOption = None,
    smoothing: SmoothingOption = None,
    scanner: ScannerFile = None,
    channel: ChannelOption = None,
    after_pulse: AfterPulseOption = None,
    interval: IntervalOption = None,
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES,
    keep_degraded: KeepDegraded = False,
    overwrite: OverwriteOption = False,
) -> None:
    """Plot one waveform or the waveforms of a shot with their echoes.

    Select them with exactly one of --waveform, --shot and --time.

    Examples:

        fullwaveform plot scan.las --waveform 2 -o waveform.png

        fullwaveform plot scan.las --shot 12 --channel 2=high --mode 0 --mode 1 -o shot.pdf

        fullwaveform plot scan.las --time 300000000.00012 --mode 2 --scanner scanner.toml -o t.svg
    """
    check_as_one(sources, as_one)
    selector, value = _selection(waveform, shot, time)
    require_suffix(output, PLOT_ENDINGS, "-o")
    modes = list(dict.fromkeys(mode or [Mode.THREE_POINT]))
    if modes == [Mode.PULSE_FIT]:
        given = {"threshold": threshold, "smoothing": smoothing}
        check_mode_options(
            Mode.PULSE_FIT, [name for name, value in given.items() if value is not None]
        )
    options = ReaderOptions(
        interval=interval,
        channel=channel,
        max_samples=max_samples,
        skip_unreadable=True,
        keep_degraded=keep_degraded,
    )
    picture = Output(output, plot_kind(output), "-o")
    with (
        checked_outputs(picture, overwrite=overwrite, inputs=(*sources, scanner)),
        report_errors(),
    ):
        with options.open(sources) as reader:
            description = scanner_for(scanner, after_pulse, [reader.scanner()])
            has_fit = Mode.PULSE_FIT in modes
            pulses = ExtractionSettings(description, Mode.PULSE_FIT).pulses if has_fit else None
            settings = ExtractionSettings(
                description,
                threshold=threshold,
                smoothing=smoothing,
                calibration=measure(reader, "off", pulses),
            )
            views = waveform_views(find_shot(reader, selector, value), settings, modes)
        draw_waveforms(output, views, whole=whole, overwrite=overwrite)
    for view in views:
        typer.echo(_summary(view))
    typer.echo(f"result: {output}")


def _selection(
    waveform: int | None, shot: int | None, time: float | None
) -> tuple[Selector, float]:
    given = [
        (selector, value)
        for selector, value in (
            (Selector.WAVEFORM, waveform),
            (Selector.SHOT, shot),
            (Selector.TIME, time),
        )
        if value is not None
    ]
    if len(given) != 1:
        names = " and ".join(f"--{selector.value}" for selector, _ in given) or "none"
        raise typer.BadParameter(f"expected one of --waveform, --shot and --time, got {names}")
    return given[0]


def _summary(view: WaveformView) -> str:
    """Number of echoes per mode, or why there are none."""
    parts = []
    for method in view.methods:
        count = len(method.positions)
        found = counted(count, "echo", "echoes") if count else method.note
        parts.append(f"{method.name}: {found}")
    return f"waveform {view.number}, {'; '.join(parts)}"
