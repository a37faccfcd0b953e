"""``fullwaveform report``: what the analysis found in single waveforms, as text."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import Annotated

import numpy as np
import typer

from fullwaveform.analysis.reports import block_reports
from fullwaveform.analysis.waveform_selection import TIME_TOLERANCE
from fullwaveform.cli.common_options import (
    AfterPulseWindow,
    ChannelTexts,
    IntervalNs,
    ModeName,
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
from fullwaveform.core.driver import Mode, Threshold, check_system_wave
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import WaveformBlock
from fullwaveform.io.atomic import atomic_open
from fullwaveform.io.base import WaveformReader


def report(
    source: SourceFile,
    waveform: Annotated[
        list[int] | None,
        typer.Option(min=0, metavar="N", help="Running number in the file, from 0; repeatable."),
    ] = None,
    time: Annotated[
        float | None,
        typer.Option(metavar="T", help="The shot at GPS time T, s, to the microsecond."),
    ] = None,
    extent: Annotated[
        bool, typer.Option("--extent", help="One line per waveform: how far its echoes reach.")
    ] = False,
    scanner_report: Annotated[
        bool, typer.Option("--scanner-report", help="The scanner's parameters, before the rest.")
    ] = False,
    mode: ModeName = "three-point",
    noise: NoiseLevel = "auto",
    scanner: ScannerFile = None,
    channel: ChannelTexts = None,
    after_pulse: AfterPulseWindow = None,
    interval: IntervalNs = None,
    output: Annotated[
        Path | None, typer.Option("-o", "--output", metavar="FILE", help="Else standard output.")
    ] = None,
) -> None:
    """Show what the analysis found in single waveforms: levels, segments, echoes.

    Positions are the library's own: no offset of deconvolved echoes is taken off.

    Worked examples:

        fullwaveform report scan.las --waveform 2 --waveform 40 --noise 20

        fullwaveform report scan.las --waveform 2 --mode decomposition --extent -o extent.txt

        fullwaveform report scan.las --scanner-report
    """
    if not (waveform or time is not None or scanner_report):
        raise typer.BadParameter("say what to report: --waveform, --time or --scanner-report")
    if extent and not (waveform or time is not None):
        raise typer.BadParameter("needs --waveform or --time", param_hint="--extent")
    if time is not None and not np.isfinite(time):
        raise typer.BadParameter(f"{time} is no time in seconds", param_hint="--time")
    if output is not None:
        refuse_same_file(source, output, "-o")
    chosen = _Method(mode_from(mode), threshold_from(noise), extent)
    channels, seconds = channel_flags_from(channel or []), seconds_from(interval)
    chosen_after_pulse = after_pulse_from(after_pulse)
    wanted = _Wanted(set(waveform or ()), time, scanner_report)
    with told_in_a_sentence():
        with open_checked(source, channels, interval=seconds) as reader:
            described = scanner_for(scanner, chosen_after_pulse, [reader.scanner()])
            check_system_wave(chosen.mode, described)
            text, notes = _report(reader, wanted, described, chosen)
        _deliver(text, output)
    for note in notes:
        typer.echo(f"note: {note}", err=True)


@dataclass(frozen=True)
class _Method:
    """How waveforms are analysed and shown."""

    mode: Mode
    threshold: Threshold
    extent: bool


@dataclass
class _Wanted:
    """What is to be reported, and what of it was met."""

    numbers: set[int]
    time: float | None  # s, GPS time of a shot
    scanner: bool
    waveforms: int = 0  # of the file, so far
    nearest: float = np.inf  # s, shot time nearest to the wanted one, so far

    def rows(self, block: WaveformBlock) -> np.ndarray[tuple[int], np.dtype[np.intp]]:
        """Rows of the block that are wanted."""
        chosen = np.isin(block.waveform_numbers, list(self.numbers))
        if self.time is not None:
            times = block.attributes.gps_time
            known = np.append(times[np.isfinite(times)], self.nearest)
            self.nearest = float(known[np.argmin(np.abs(known - self.time))])
            if self._has_the_time:
                chosen |= times == self.nearest
        self.waveforms += len(block)
        return np.flatnonzero(chosen)

    @property
    def _has_the_time(self) -> bool:
        """Whether a shot has been met that the time names, which people round."""
        return self.time is not None and abs(self.nearest - self.time) <= TIME_TOLERANCE

    @property
    def is_complete(self) -> bool:
        """Whether no later block can hold more; shots of equal time may stand anywhere."""
        enough = not self.numbers or self.waveforms > max(self.numbers)
        return self.time is None and enough and self.waveforms > 0

    def check(self, path: Path) -> None:
        """ValueError if the whole file was visited and something is not there."""
        if missing := sorted(number for number in self.numbers if number >= self.waveforms):
            known = (
                f"its {self.waveforms:,} waveforms are numbered 0 to {self.waveforms - 1}"
                if self.waveforms
                else "it has none"
            )
            raise ValueError(f"{path} has no waveform {', '.join(map(str, missing))}: {known}")
        if self.time is not None and not self._has_the_time:
            known = f"; the nearest is at {self.nearest!r} s" if np.isfinite(self.nearest) else ""
            raise ValueError(f"{path} has no shot at {self.time!r} s{known}")
        if self.waveforms == 0:
            raise ValueError(f"{path} has no waveforms, and so no sampling interval to report")


def _report(
    reader: WaveformReader, wanted: _Wanted, scanner: Scanner, method: _Method
) -> tuple[str, list[str]]:
    """The text, and a sentence for each waveform that has no report."""
    source = reader.path
    found, interval = _waveforms(reader, wanted, scanner, method)
    wanted.check(source)
    notes = [f"waveform {number}: {state}" for number, text, state in found if text is None]
    texts = [text for _, text, _ in found if text is not None]
    if wanted.scanner:
        texts.insert(0, scanner.at_interval(interval).report().removesuffix("\n"))
    if not texts:
        raise ValueError(f"{source}: nothing to report, {'; '.join(notes)}")
    return "".join(f"{text}\n" for text in texts), notes


def _waveforms(
    reader: WaveformReader, wanted: _Wanted, scanner: Scanner, method: _Method
) -> tuple[list[tuple[int, str | None, str]], float]:
    """Reports in the order of the file, and the sampling interval (s) of the first waveform."""
    found: list[tuple[int, str | None, str]] = []
    interval = np.nan
    for block in reader.blocks():
        rows = wanted.rows(block)
        if np.isnan(interval) and len(block):
            interval = float(block.sampling_intervals[rows[0] if len(rows) else 0])
        found += block_reports(
            block, rows, scanner, method.mode, method.threshold, extent=method.extent
        )
        if wanted.is_complete:
            break
    return sorted(found, key=lambda one: one[0]), interval


def _deliver(text: str, output: Path | None) -> None:
    if output is None:
        typer.echo(text, nl=False)
        return
    with atomic_open(output) as stream:
        stream.write(text.encode("utf-8"))
    typer.echo(f"result: {output}")
