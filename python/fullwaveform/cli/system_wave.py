"""``fullwaveform system-wave``: recorded pulses in, a scanner description for deconvolution out."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console
from rich.table import Table

from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.cli.options import refuse_same_file, seconds_from, threshold_from
from fullwaveform.core.scanner import Scanner
from fullwaveform.plotting.style import PLOT_ENDINGS
from fullwaveform.plotting.system_wave import SystemWaveCurves, draw_system_wave
from fullwaveform.system_wave.averaging import AveragePulse
from fullwaveform.system_wave.description import with_system_wave, write_description
from fullwaveform.system_wave.exponentials import LARGEST_ORDER
from fullwaveform.system_wave.fitting import WINDOW_SAMPLES, SystemWave, fit_system_wave
from fullwaveform.system_wave.offset import (
    DeconvolutionOffset,
    measure_offset,
    offset_of_made_echoes,
)
from fullwaveform.system_wave.sources import Input, Source


def system_wave(
    source_file: Annotated[
        Path,
        typer.Argument(
            metavar="IN",
            help="PulseWaves, LAS, LAZ, HDF5 scan, .npz, or two columns of text (ns, amplitude).",
        ),
    ],
    output: Annotated[
        Path, typer.Option("-o", "--output", metavar="OUT.toml", help="Scanner description.")
    ],
    source: Annotated[
        Source | None,
        typer.Option(help="Pulses to average; by default outgoing ones where the file has them."),
    ] = None,
    order: Annotated[
        str, typer.Option(help="Number of exponentials; auto chooses by the misfit.")
    ] = "auto",
    begin: Annotated[
        float | None,
        typer.Option(help="Where the 12-sample window begins, samples from the pulse's maximum."),
    ] = None,
    scanner: Annotated[
        Path | None, typer.Option(help="Description to put the system wave into (TOML).")
    ] = None,
    plot: Annotated[
        Path | None, typer.Option(help="Plot of pulse and system wave (.png, .pdf, .svg).")
    ] = None,
    interval: Annotated[
        float | None, typer.Option(metavar="NS", help="Sampling interval, for .npz and text.")
    ] = None,
    array: Annotated[
        str | None, typer.Option(help="Array of an .npz with the pulses; else out_samples.")
    ] = None,
    noise: Annotated[
        str, typer.Option(help="Noise level in counts for finding echoes; auto estimates it.")
    ] = "auto",
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="No summary.")] = False,
) -> None:
    """Estimate the system wave that deconvolution needs, from the pulses of a file.

    Worked examples:

        fullwaveform system-wave scan.las -o scanner.toml --source echoes --noise 20

        fullwaveform system-wave pulse.csv --interval 1 -o scanner.toml --order 4 --plot wave.png
    """
    chosen_order, level = _order_from(order), threshold_from(noise)
    wanted = Input(source_file, source, array, seconds_from(interval), level)
    _check_files(source_file, output, plot)
    _check_options(wanted)
    with told_in_a_sentence():
        base = Scanner.default() if scanner is None else Scanner.from_toml(scanner)
        wave = fit_system_wave(wanted.averaged_pulse(base), order=chosen_order, begin=begin)
        described = with_system_wave(base, wave.in_seconds(), wave.pulse.sampling_interval)
        offset = _offset(described, wanted, wave.pulse)
        if plot is not None:
            draw_system_wave(plot, _curves(wave))
        write_description(output, described, offset, _remarks(wave, offset))
    if not quiet:
        _Summary(source_file, output, plot, wave, offset).show(Console())


def _order_from(text: str) -> int | None:
    if text == "auto":
        return None
    if not (text.isascii() and text.isdigit() and 1 <= int(text) <= LARGEST_ORDER):
        raise typer.BadParameter(
            f"{text!r} is neither auto nor a number of exponentials, 1 to {LARGEST_ORDER}",
            param_hint="--order",
        )
    return int(text)


def _check_files(source_file: Path, output: Path, plot: Path | None) -> None:
    if output.suffix.lower() != ".toml":
        raise typer.BadParameter(f"{output} must end in .toml", param_hint="-o")
    if plot is not None and plot.suffix.lower() not in PLOT_ENDINGS:
        raise typer.BadParameter(
            f"{plot} must end in {', '.join(PLOT_ENDINGS)}", param_hint="--plot"
        )
    refuse_same_file(source_file, output, "-o")


def _check_options(wanted: Input) -> None:
    """Refuses options that would be without effect."""
    if wanted.array is not None and (not wanted.is_arrays or wanted.source is Source.ECHOES):
        raise typer.BadParameter("arrays of pulses are those of an .npz", param_hint="--array")
    if wanted.source is not None and wanted.is_text:
        raise typer.BadParameter("a text holds one pulse, as it is", param_hint="--source")
    if wanted.interval is not None and not (wanted.is_arrays or wanted.is_text):
        raise typer.BadParameter("the file has its own", param_hint="--interval")


def _offset(scanner: Scanner, wanted: Input, pulse: AveragePulse) -> DeconvolutionOffset:
    """Measured on the file's own echoes where it has enough of them, else on the pulse."""
    parts = (part for part in wanted.records() if part.sampling_interval == pulse.sampling_interval)
    return measure_offset(scanner, parts, wanted.threshold) or offset_of_made_echoes(scanner, pulse)


def _curves(wave: SystemWave) -> SystemWaveCurves:
    """Pulse and system wave as they are plotted."""
    pulse, fit = wave.pulse, wave.fit
    position = wave.plotted_positions()
    nanoseconds = pulse.sampling_interval * 1e9
    return SystemWaveCurves(
        time_ns=(position - wave.begin) * nanoseconds,
        pulse=pulse.at(position),
        wave=wave.at(position),
        window_ns=WINDOW_SAMPLES * nanoseconds,
        pulse_label=f"average of {pulse.used:,} pulses",
        wave_label=f"sum of {fit.sum.order} exponentials",
        title=f"System wave from {pulse.origin}: misfit {fit.misfit.rms:.2%} rms, "
        f"maximum {fit.misfit.largest:.2%}",
    )


def _remarks(wave: SystemWave, offset: DeconvolutionOffset) -> tuple[str, ...]:
    """What the description says about its own making."""
    pulse, misfit = wave.pulse, wave.fit.misfit
    which = "echoes computed from the pulse" if offset.made else "isolated echoes of the file"
    return (
        f"System wave: {pulse.origin}, average of {pulse.used}; {misfit.order} exponentials, "
        f"misfit {misfit.rms:.2g} rms, {misfit.largest:.2g} at most, of the maximum.",
        f"The window begins {-wave.begin:.2f} samples before the pulse's maximum.",
        f"Offset of deconvolved echoes measured on {which}.",
    )


@dataclass(frozen=True)
class _Summary:
    """What a person wants to know when a system wave is estimated."""

    source: Path
    output: Path
    plot: Path | None
    wave: SystemWave
    offset: DeconvolutionOffset

    def show(self, console: Console) -> None:
        table = Table(title=f"{self.source.name}: system wave", show_header=False)
        table.add_column(style="bold", no_wrap=True)
        table.add_column(justify="right", no_wrap=True)
        table.add_column()
        for label, value, remark in [*self._pulse_rows(), *self._fit_rows(), *self._offset_rows()]:
            table.add_row(label, value, remark)
        console.print(table)
        for note in self._notes():
            console.print(f"note: {note}", soft_wrap=True, markup=False, highlight=False)
        for path in (self.output, self.plot):
            if path is not None:
                console.print(f"result: {path}", soft_wrap=True, markup=False, highlight=False)

    def _pulse_rows(self) -> list[tuple[str, str, str]]:
        pulse = self.wave.pulse
        rows = [("pulses used", f"{pulse.used:,}", pulse.origin)]
        rows += [("left out", f"{count:,}", why) for why, count in pulse.rejected.items()]
        if pulse.used > 1:
            rows.append(("scatter", f"{pulse.scatter:.2%}", "of single samples about the average"))
        return rows

    def _fit_rows(self) -> list[tuple[str, str, str]]:
        wave, misfit = self.wave, self.wave.fit.misfit
        return [
            ("window begins", f"{wave.begin:+.2f}", "samples from the pulse's maximum"),
            ("pulse inside", f"{wave.contained:.1%}", "of its energy"),
            ("exponentials", f"{misfit.order}", ""),
            ("misfit, rms", f"{misfit.rms:.3%}", "of the maximum"),
            ("misfit, largest", f"{misfit.largest:.3%}", "of the maximum"),
        ]

    def _offset_rows(self) -> list[tuple[str, str, str]]:
        echoes = "computed from the pulse" if self.offset.made else "isolated ones of the file"
        return [
            ("offset", f"{self.offset.position:+.3f}", "samples, deconvolved less Gauss-fitted"),
            (
                "offset, hybrid",
                f"{self.offset.hybrid:+.3f}",
                "samples, deconvolved less decomposed",
            ),
            ("its spread", f"{self.offset.spread:.3f}", "samples"),
            ("echoes", f"{self.offset.echoes:,}", echoes),
        ]

    def _notes(self) -> list[str]:
        notes = []
        if not self.wave.is_contained:
            notes.append(
                "the pulse is longer than the 12 samples of the system wave; a deconvolution with "
                "the part inside sharpens less and may split strong echoes"
            )
        return notes
