"""``fullwaveform pulse-model``: scanner description for the pulse fit from the echoes of a file."""

from __future__ import annotations

import json
import tomllib
from collections.abc import Mapping, Sequence
from dataclasses import replace
from pathlib import Path
from typing import Annotated, Any

import numpy as np
import typer

from fullwaveform.calibration.levels import measure_levels
from fullwaveform.calibration.pulse_model import MeasuredPulse, measure_pulse_models
from fullwaveform.calibration.receiver_names import receiver_name
from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import local_path
from fullwaveform.cli.options import (
    ChannelOption,
    IntervalOption,
    MaxSamples,
    PulseOption,
    SourceFile,
    require_suffix,
)
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.cli.reader_options import ReaderOptions
from fullwaveform.cli.summary import PULSE_KINDS, Row, print_table, pulse_model_rows
from fullwaveform.core.pulse_models import ReceiverModel, full_width
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.arrays import FloatArray
from fullwaveform.io.atomic import FileKind
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.scanner_file import scanner_text, write_text
from fullwaveform.plotting.pulse_model import PulseModelCurves, draw_pulse_models
from fullwaveform.plotting.style import PLOT_ENDINGS, plot_kind

_NANOSECONDS = 1e9
_DESCRIPTION_KIND = FileKind(
    "a scanner description with a pulse model",
    lambda path: "pulse_model" in tomllib.loads(path.read_text(encoding="utf-8")),
)
_BAND_SHARE = 0.68  # of the residuals at a lag
_PRIOR_VALUES = 400


def pulse_model(
    source: SourceFile,
    output: Annotated[
        Path,
        typer.Option(
            "-o", "--output", metavar="OUT.toml", parser=local_path, help="Scanner description"
        ),
    ],
    pulse: PulseOption = "auto",
    scanner: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE",
            parser=local_path,
            help="Scanner description (TOML) to add the model to",
        ),
    ] = None,
    plot: Annotated[
        Path | None,
        typer.Option(
            metavar="FILE", parser=local_path, help="Plot of the model: .png, .pdf or .svg"
        ),
    ] = None,
    channel: ChannelOption = None,
    interval: IntervalOption = None,
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES,
    overwrite: OverwriteOption = False,
    as_json: Annotated[bool, typer.Option("--json", help="Print machine-readable JSON")] = False,
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="Print no summary")] = False,
) -> None:
    """Measure the pulse and the noise of a scanner, for the pulse fit.

    Uses waveforms that are spread over the file.

    Examples:

        fullwaveform pulse-model scan.las -o pulse.toml --plot model.png

        fullwaveform pulse-model scan.las -o both.toml --scanner scanner.toml --channel 2=high
    """
    require_suffix(output, (".toml",), "-o")
    outputs = [Output(output, _DESCRIPTION_KIND, "-o")]
    if plot is not None:
        require_suffix(plot, PLOT_ENDINGS, "--plot")
        outputs.append(Output(plot, plot_kind(plot), "--plot"))
    options = ReaderOptions(
        interval=interval, channel=channel, max_samples=max_samples, skip_unreadable=True
    )
    with (
        checked_outputs(*outputs, overwrite=overwrite, inputs=(source, scanner)),
        report_errors(),
    ):
        base = Scanner.default() if scanner is None else Scanner.from_toml(scanner)
        with options.open([source]) as reader:
            reader.with_outgoing = reader.has_outgoing
            blocks, names = list(reader.spread_blocks()), reader.receiver_names
        measured = measure_pulse_models(blocks, measure_levels(blocks), str(source), pulse)
        described = replace(base, pulse_models=tuple(each.entry for each in measured))
        if plot is not None:
            titles = _titles([each.entry for each in measured], names)
            curves = list(map(_curves, measured, titles))
            draw_pulse_models(plot, curves, overwrite=overwrite)
        text = scanner_text(described, [f"Pulse model: measured on {source.name}."])
        write_text(output, text, _DESCRIPTION_KIND, overwrite=overwrite)
    if as_json:
        typer.echo(json.dumps({"models": [_json(each) for each in measured]}, indent=2))
    elif not quiet:
        models = pulse_model_rows([each.entry for each in measured], names, "of the file")
        rows = [
            row
            for each, model in zip(measured, models, strict=True)
            for row in (model, *_rows(each))
        ]
        results = [output] if plot is None else [output, plot]
        print_table(f"{source.name}: pulse model", rows, [], results)


def _rows(measured: MeasuredPulse) -> list[Row]:
    model, nanoseconds = measured.entry.model, measured.entry.model.sampling_interval * _NANOSECONDS
    rejected = measured.pulses.rejected.items()
    return [
        *(("skipped", f"{count:,}", reason) for reason, count in rejected),
        ("length", f"{_length(measured) * nanoseconds:.1f} ns", "with its tail"),
        ("scatter", f"{model.scatter:.2%}", "rms residual of echoes, of their amplitude"),
        ("widths", f"{model.variance_spread:.3f}", "samples squared, scatter of flat surfaces"),
        ("widening", f"{model.widening:.3f}", "samples squared, mean by slopes and roughness"),
        ("baseline", f"{model.baseline:.2f}", f"counts, spread {model.baseline_spread:.2f}"),
        ("noise rms", f"{model.noise_rms:.3f}", "counts"),
        ("correlation", f"{model.noise_correlation:.2f}", "of the noise behind a matched filter"),
    ]


def _length(measured: MeasuredPulse) -> float:
    model = measured.entry.model
    return model.lag_step * (len(model.pulse) - 1)


def _json(measured: MeasuredPulse) -> dict[str, Any]:
    """The figures of the table; lengths in samples, levels in counts, scatter as a share."""
    entry, model = measured.entry, measured.entry.model
    return {
        "channel_flag": entry.channel_flag,
        "descriptor": entry.descriptor,
        "origin": entry.origin,
        "pulses": entry.pulses,
        "skipped": dict(measured.pulses.rejected),
        "sampling_interval": model.sampling_interval,
        "fwhm": full_width(model),
        "length": _length(measured),
        "scatter": model.scatter,
        "variance_spread": model.variance_spread,
        "widening": model.widening,
        "baseline": model.baseline,
        "baseline_spread": model.baseline_spread,
        "noise_rms": model.noise_rms,
        "noise_correlation": model.noise_correlation,
    }


def _titles(entries: Sequence[ReceiverModel], names: Mapping[int, str]) -> list[str]:
    """The receiver, if there are several, and the pulses of its model."""
    receivers = (receiver_name(entry, entries, names) for entry in entries)
    pulses = (f"{entry.pulses:,} {PULSE_KINDS[entry.origin]}" for entry in entries)
    return [": ".join(filter(None, parts)) for parts in zip(receivers, pulses, strict=True)]


def _curves(measured: MeasuredPulse, title: str) -> PulseModelCurves:
    """What the plot shows, over ns from the maximum."""
    pulses, model = measured.pulses, measured.entry.model
    lag = model.first_lag + model.lag_step * np.arange(len(model.pulse), dtype=np.float64)
    alignment = pulses.alignment
    sample_lag, sample = alignment.applied(pulses.values)
    residual = pulses.residuals() / alignment.amplitude[:, np.newaxis]
    shown = np.isfinite(residual)
    band_lag, band = _band(sample_lag[shown], np.abs(residual[shown]))
    # The pulses have their own sampling interval if they are outgoing pulses.
    nanoseconds = measured.interval * _NANOSECONDS
    low, high = np.percentile(pulses.variance, (0.1, 99.0))
    variance = np.linspace(low, high, _PRIOR_VALUES)
    return PulseModelCurves(
        lag_ns=lag * model.sampling_interval * _NANOSECONDS,
        pulse=np.array(model.pulse),
        sample_lag_ns=sample_lag[shown] * nanoseconds,
        sample=sample[shown],
        residual=residual[shown],
        band_lag_ns=band_lag * nanoseconds,
        band=band,
        variances=pulses.variance,
        prior_variance=variance,
        prior=pulses.widths.density(variance),
        title=title,
    )


def _band(lag: FloatArray, size: FloatArray) -> tuple[FloatArray, FloatArray]:
    """Whole lags, and what 68 % of the values nearest to each of them do not exceed."""
    whole = np.rint(lag)
    order = np.argsort(whole, kind="stable")
    places, first = np.unique(whole[order], return_index=True)
    parts = np.split(size[order], first[1:])
    return places, np.array([np.quantile(part, _BAND_SHARE) for part in parts])
