"""``fullwaveform system-wave``: scanner description for deconvolution from recorded pulses."""

from __future__ import annotations

import json
from dataclasses import asdict
from pathlib import Path
from typing import Annotated, Any

import typer

from fullwaveform.calibration.averaging import AveragePulse
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import local_path, parse_interval
from fullwaveform.cli.options import ThresholdOption, require_suffix
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.summary import Row, print_table
from fullwaveform.core.constants import SYSTEM_WAVE_SAMPLES
from fullwaveform.core.scanner import Scanner
from fullwaveform.io.remote import location
from fullwaveform.plotting.style import PLOT_ENDINGS, plot_kind
from fullwaveform.plotting.system_wave import SystemWaveCurves, draw_system_wave
from fullwaveform.system_wave.description import (
    DESCRIPTION_KIND,
    with_system_wave,
    write_description,
)
from fullwaveform.system_wave.exponentials import MAX_ORDER
from fullwaveform.system_wave.fitting import WINDOW_SAMPLES, SystemWave, fit_system_wave
from fullwaveform.system_wave.offset import (
    DeconvolutionOffset,
    measure_offset,
    offset_of_simulated_echoes,
)
from fullwaveform.system_wave.sources import Input, Source


def _order(text: str) -> int | None:
    if text == "auto":
        return None
    if not (text.isascii() and text.isdigit() and 1 <= int(text) <= MAX_ORDER):
        raise typer.BadParameter(f"{text!r} must be 'auto' or an integer from 1 to {MAX_ORDER}")
    return int(text)


def system_wave(
    source_file: Annotated[
        Path,
        typer.Argument(
            metavar="IN",
            parser=location,
            help="Waveform file as in extract, or text with two columns (ns, amplitude)",
        ),
    ],
    output: Annotated[
        Path,
        typer.Option(
            "-o", "--output", metavar="OUT.toml", parser=local_path, help="Scanner description"
        ),
    ],
    source: Annotated[
        Source | None,
        typer.Option(
            metavar="outgoing|echoes",
            help="Pulses to average. Default: outgoing if the file has them",
        ),
    ] = None,
    order: Annotated[
        int | None,
        typer.Option(
            parser=_order,
            metavar="N|auto",
            help=f"Number of exponentials, 1 to {MAX_ORDER}; auto: chosen by the misfit. "
            "Default: auto",
        ),
    ] = None,
    begin: Annotated[
        float | None,
        typer.Option(
            metavar="X",
            help=f"Start of the {SYSTEM_WAVE_SAMPLES}-sample window, samples from the maximum",
        ),
    ] = None,
    scanner: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE",
            parser=local_path,
            help="Scanner description (TOML) to add the system wave to",
        ),
    ] = None,
    plot: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE",
            parser=local_path,
            help="Plot of pulse and system wave: .png, .pdf or .svg",
        ),
    ] = None,
    interval: Annotated[
        float | None,
        typer.Option(
            parser=parse_interval, metavar="NS", help="Sampling interval in ns, for .npz and text"
        ),
    ] = None,
    array: Annotated[
        str | None,
        typer.Option(metavar="NAME", help="Array of an .npz with the pulses. Default: out_samples"),
    ] = None,
    threshold: ThresholdOption = None,
    overwrite: OverwriteOption = False,
    as_json: Annotated[bool, typer.Option("--json", help="Print machine-readable JSON")] = False,
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="Print no summary")] = False,
) -> None:
    """Estimate the system wave, needed for deconvolution, from pulses.

    Examples:

        fullwaveform system-wave scan.las -o scanner.toml --source echoes

        fullwaveform system-wave pulse.csv --interval 1 -o scanner.toml --order 4 --plot wave.png
    """
    pulses = Input(source_file, source, array, interval, threshold)
    require_suffix(output, (".toml",), "-o")
    outputs = [Output(output, DESCRIPTION_KIND, "-o")]
    if plot is not None:
        require_suffix(plot, PLOT_ENDINGS, "--plot")
        outputs.append(Output(plot, plot_kind(plot), "--plot"))
    _refuse_unused_options(pulses)
    with (
        checked_outputs(*outputs, overwrite=overwrite, inputs=(source_file, scanner)),
        report_errors(),
    ):
        base = Scanner.default() if scanner is None else Scanner.from_toml(scanner)
        wave = fit_system_wave(pulses.averaged_pulse(base), order=order, begin=begin)
        described = with_system_wave(base, wave.in_seconds(), wave.pulse.sampling_interval)
        offset = _offset(described, pulses, wave.pulse)
        if plot is not None:
            draw_system_wave(plot, _curves(wave), overwrite=overwrite)
        write_description(output, described, offset, _remarks(wave, offset), overwrite=overwrite)
    if as_json:
        typer.echo(json.dumps(_json(wave, offset), indent=2))
    elif not quiet:
        results = [output] if plot is None else [output, plot]
        rows = [*_pulse_rows(wave), *_fit_rows(wave), *_offset_rows(offset)]
        print_table(f"{source_file.name}: system wave", rows, _notes(wave), results)


def _refuse_unused_options(pulses: Input) -> None:
    """BadParameter for options without effect on this input."""
    if pulses.array is not None and (not pulses.is_arrays or pulses.source is Source.ECHOES):
        raise typer.BadParameter("applies only to pulses of an .npz", param_hint="--array")
    if pulses.source is not None and pulses.is_text:
        raise typer.BadParameter(
            "does not apply to text, which is one pulse", param_hint="--source"
        )
    if pulses.interval is not None and not (pulses.is_arrays or pulses.is_text):
        raise typer.BadParameter(
            "applies only to .npz and text; the file contains its interval",
            param_hint="--interval",
        )


def _offset(scanner: Scanner, pulses: Input, pulse: AveragePulse) -> DeconvolutionOffset:
    """Measured on isolated echoes of the file, or, if too few, on echoes made of the pulse."""
    interval = pulse.sampling_interval
    parts = (part for part in pulses.waveforms() if part.sampling_interval == interval)
    measured = measure_offset(scanner, parts, pulses.threshold)
    return measured or offset_of_simulated_echoes(scanner, pulse)


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
    """Comments of the description on how it was estimated."""
    pulse, misfit = wave.pulse, wave.fit.misfit
    which = "echoes computed from the pulse" if offset.simulated else "isolated echoes of the file"
    return (
        f"System wave: {pulse.origin}, average of {pulse.used}; {misfit.order} exponentials, "
        f"misfit {misfit.rms:.2g} rms, {misfit.largest:.2g} largest, relative to the maximum.",
        f"The window starts {-wave.begin:.2f} samples before the pulse maximum.",
        f"Offset of deconvolved echoes measured on {which}.",
    )


def _pulse_rows(wave: SystemWave) -> list[Row]:
    pulse = wave.pulse
    rows = [("pulses used", f"{pulse.used:,}", pulse.origin)]
    rows += [("skipped", f"{count:,}", reason) for reason, count in pulse.rejected.items()]
    if pulse.used > 1:
        rows.append(("scatter", f"{pulse.scatter:.2%}", "of single samples about the average"))
    return rows


def _fit_rows(wave: SystemWave) -> list[Row]:
    misfit = wave.fit.misfit
    return [
        ("start of window", f"{wave.begin:+.2f}", "samples from the pulse maximum"),
        ("pulse inside", f"{wave.contained:.1%}", "of its energy"),
        ("exponentials", f"{misfit.order}", ""),
        ("misfit, rms", f"{misfit.rms:.3%}", "of the maximum"),
        ("misfit, largest", f"{misfit.largest:.3%}", "of the maximum"),
    ]


def _offset_rows(offset: DeconvolutionOffset) -> list[Row]:
    echoes = "computed from the pulse" if offset.simulated else "isolated echoes of the file"
    return [
        ("offset", f"{offset.position:+.3f}", "samples, deconvolution minus three-point fit"),
        ("offset, hybrid", f"{offset.hybrid:+.3f}", "samples, deconvolution minus decomposition"),
        ("spread", f"{offset.spread:.3f}", "samples"),
        ("echoes", f"{offset.echoes:,}", echoes),
    ]


def _json(wave: SystemWave, offset: DeconvolutionOffset) -> dict[str, Any]:
    """The figures of the table; positions in samples, misfits as shares of the maximum."""
    pulse, misfit = wave.pulse, wave.fit.misfit
    return {
        "pulses": {
            "origin": pulse.origin,
            "used": pulse.used,
            "skipped": dict(pulse.rejected),
            "scatter": pulse.scatter if pulse.used > 1 else None,
            "sampling_interval": pulse.sampling_interval,
        },
        "window_start": wave.begin,
        "energy_inside": wave.contained,
        "exponentials": misfit.order,
        "misfit": {"rms": misfit.rms, "largest": misfit.largest},
        "offset": asdict(offset),
        "notes": _notes(wave),
    }


def _notes(wave: SystemWave) -> list[str]:
    if wave.is_contained:
        return []
    return [
        f"pulse longer than the {SYSTEM_WAVE_SAMPLES} samples of the system wave; deconvolution "
        "with a truncated pulse sharpens less and may split strong echoes"
    ]
