"""``fullwaveform plot``: a waveform and what the methods make of it, as a picture."""

from __future__ import annotations

import math
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.analysis.waveform_selection import Selector, find_shot
from fullwaveform.analysis.waveform_views import WaveformView, waveform_views
from fullwaveform.cli.common_options import (
    AfterPulseWindow,
    ChannelTexts,
    IntervalNs,
    NoiseLevel,
    ScannerFile,
    SourceFile,
)
from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.cli.extract_options import open_checked, scanner_for
from fullwaveform.cli.options import (
    after_pulse_from,
    channel_flags_from,
    mode_from,
    refuse_same_file,
    seconds_from,
    threshold_from,
)
from fullwaveform.plotting.style import PLOT_ENDINGS
from fullwaveform.plotting.waveform import draw_waveforms


def plot(
    source: SourceFile,
    output: Annotated[
        Path, typer.Option("-o", "--output", metavar="OUT", help="Picture: .png, .pdf or .svg.")
    ],
    waveform: Annotated[
        int | None, typer.Option(min=0, metavar="N", help="Running number in the file, from 0.")
    ] = None,
    shot: Annotated[
        int | None,
        typer.Option(min=0, metavar="N", help="Number of a shot, from 0: all its waveforms."),
    ] = None,
    time: Annotated[
        float | None,
        typer.Option(metavar="T", help="The shot at GPS time T, s, to the microsecond."),
    ] = None,
    mode: Annotated[
        list[str] | None,
        typer.Option(help="As for extract; repeatable, the modes are drawn over one another."),
    ] = None,
    noise: NoiseLevel = "auto",
    scanner: ScannerFile = None,
    channel: ChannelTexts = None,
    after_pulse: AfterPulseWindow = None,
    interval: IntervalNs = None,
) -> None:
    """Draw a waveform, or all waveforms of a shot, with the echoes that the methods find.

    Worked examples:

        fullwaveform plot scan.las --waveform 2 -o waveform.png --noise 20

        fullwaveform plot scan.las --shot 12 --channel 2=high --mode 0 --mode 1 -o shot.pdf

        fullwaveform plot scan.las --time 300000000.00012 --mode 2 --scanner scanner.toml -o t.svg
    """
    selector, wanted = _wanted(waveform, shot, time)
    if output.suffix.lower() not in PLOT_ENDINGS:
        raise typer.BadParameter(f"{output} must end in {', '.join(PLOT_ENDINGS)}", param_hint="-o")
    refuse_same_file(source, output, "-o")
    seconds = seconds_from(interval)
    modes = list(dict.fromkeys(mode_from(text) for text in mode or ["three-point"]))
    level, channels = threshold_from(noise), channel_flags_from(channel or [])
    window = after_pulse_from(after_pulse)
    with told_in_a_sentence():
        with open_checked(source, channels, interval=seconds) as reader:
            described = scanner_for(scanner, window, [reader.scanner()])
            views = waveform_views(find_shot(reader, selector, wanted), described, modes, level)
        draw_waveforms(output, views)
    for view in views:
        typer.echo(_summary(view))
    typer.echo(f"picture: {output}")


def _wanted(waveform: int | None, shot: int | None, time: float | None) -> tuple[Selector, float]:
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
        said = " and ".join(f"--{selector.value}" for selector, _ in given) or "none of them"
        raise typer.BadParameter(f"say one of --waveform, --shot and --time, not {said}")
    if time is not None and not math.isfinite(time):
        raise typer.BadParameter(f"{time} is no time in seconds", param_hint="--time")
    return given[0]


def _summary(view: WaveformView) -> str:
    """Number of echoes by mode, or why there is none."""
    parts = []
    for method in view.methods:
        count = len(method.positions)
        found = f"{count} echo{'es' if count != 1 else ''}" if count else method.note
        parts.append(f"{method.name} {found}")
    return f"waveform {view.number}: {'; '.join(parts)}"
