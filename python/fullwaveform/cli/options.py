"""Arguments and options that several commands share."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated, Any

import typer

from fullwaveform.calibration.phase_choice import PHASE_CHOICES
from fullwaveform.calibration.pulse_choice import PULSE_CHOICES
from fullwaveform.cli.option_values import (
    ALL_MODES,
    LAST_MODE,
    integer_from,
    local_path,
    parse_after_pulse,
    parse_baseline,
    parse_interval,
    parse_mode,
    parse_phase_choice,
    parse_pulse_choice,
    parse_rate,
    parse_sample_scale,
    parse_smoothing,
    parse_threshold,
    parse_time,
)
from fullwaveform.core.driver import Mode
from fullwaveform.core.scanner import AfterPulse
from fullwaveform.io.remote import location

SourceFile = Annotated[
    Path,
    typer.Argument(
        metavar="IN",
        parser=location,
        help="Waveform file: LAS, LAZ, PulseWaves (.pls, .plz), GEDI, LVIS, scan container (.h5), "
        ".npz",
    ),
]
SourceFiles = Annotated[
    list[Path],
    typer.Argument(
        metavar="IN",
        parser=location,
        help="Waveform files: LAS, LAZ, PulseWaves (.pls, .plz), GEDI, LVIS, scan container (.h5), "
        ".npz",
    ),
]
AsOne = Annotated[
    bool,
    typer.Option(
        "--as-one",
        help="Read several inputs as one: the parts of a PulseWaves flight line, in this order",
    ),
]
ModeOption = Annotated[
    Mode,
    typer.Option(
        parser=parse_mode,
        metavar="MODE",
        show_default=False,
        help=f"{ALL_MODES}, or 0 to {LAST_MODE}. Default: three-point",
    ),
]
RepeatedModeOption = Annotated[
    list[Mode] | None,
    typer.Option(
        "--mode",
        parser=parse_mode,
        metavar="MODE",
        help="Mode as in extract; repeat to draw several. Default: three-point",
    ),
]
ThresholdOption = Annotated[
    Any,  # Threshold; typer does not accept a union
    typer.Option(
        parser=parse_threshold,
        metavar="N|estimate",
        show_default=False,
        help="Detection threshold in counts, or the library's estimate for each waveform. Default: "
        "5 noise rms above the baseline, measured on the file",
    ),
]
BaselineOption = Annotated[
    str,
    typer.Option(
        parser=parse_baseline,
        metavar="keep|remove|auto",
        show_default=False,
        help="Subtract the baseline from each waveform; auto: where it is high compared with the "
        "noise. Default: auto",
    ),
]
SampleScaleOption = Annotated[
    Any,  # SampleScale; typer does not accept a union
    typer.Option(
        parser=parse_sample_scale,
        metavar="N|auto",
        show_default=False,
        help="Multiply the samples by this factor before the extraction; auto: by up to 16 for "
        "weak waveforms in the modes that deconvolve. Default: auto",
    ),
]
SmoothingOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_smoothing,
        metavar="NS",
        show_default=False,
        help="Standard deviation in ns of a Gaussian that smooths the samples; 0: none. Default: "
        "6.5 for GEDI, else 0",
    ),
]
FalseAlarmsOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_rate,
        metavar="R",
        help="Mode pulse-fit only: accepted false echoes per 1,000 waveforms of noise. Default: 1",
    ),
]
MaxWidthOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_interval,
        metavar="NS",
        help="Mode pulse-fit only: largest full width of an echo at half maximum, in ns. Default: "
        "that of the pulse, widened by a Gaussian of 5 samples standard deviation",
    ),
]
OutgoingPhaseOption = Annotated[
    Any,  # PhaseChoice
    typer.Option(
        parser=parse_phase_choice,
        metavar="|".join(PHASE_CHOICES),
        show_default=False,
        help="Correct the ranges for the phase of the outgoing pulses. Default: auto, if that "
        "reduces the scatter of neighbouring ranges",
    ),
]
PulseOption = Annotated[
    Any,  # PulseChoice
    typer.Option(
        parser=parse_pulse_choice,
        metavar="|".join(PULSE_CHOICES),
        show_default=False,
        help="Pulses from which the pulse model is made: isolated echoes (returned) or outgoing "
        "pulses. Default: auto, echoes if there are enough",
    ),
]
ScannerFile = Annotated[
    Path | None,
    typer.Option(
        metavar="FILE",
        parser=local_path,
        help="Scanner description (TOML). Default: that of IN, if any",
    ),
]
ChannelOption = Annotated[
    list[str] | None,
    typer.Option(
        metavar="[N=]CHANNEL",
        help="Channel (low or high power) of all waveforms, or of a packet descriptor (2=high); "
        "repeatable. Default: low",
    ),
]
AfterPulseOption = Annotated[
    AfterPulse | None,
    typer.Option(
        parser=parse_after_pulse,
        metavar="OFFSET,WIDTH",
        help="After-pulse window in samples, or 'off'. Default: from the scanner description",
    ),
]
IntervalOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_interval,
        metavar="NS",
        help="Sampling interval in ns, if the file has none (.npz)",
    ),
]
BlockOption = Annotated[
    int,
    typer.Option(
        parser=integer_from(1), metavar="N", help="Waveforms per block; bounds memory use"
    ),
]
MaxSamples = Annotated[
    int,
    typer.Option(
        parser=integer_from(1), metavar="N", help="Waveforms with more samples are unreadable"
    ),
]
SkipUnreadable = Annotated[
    bool, typer.Option("--skip-unreadable", help="Skip and count unreadable waveforms")
]
KeepDegraded = Annotated[
    bool,
    typer.Option("--keep-degraded", help="Read shots that a GEDI file marks as degraded or stale"),
]
CrsOption = Annotated[
    str | None,
    typer.Option(
        "--crs",
        metavar="EPSG:N",
        help="Reference system of the coordinates, for GEDI and LVIS. Default: degrees, EPSG:4979",
    ),
]
KeepEmpty = Annotated[
    bool, typer.Option("--keep-empty", help="Write a row for each waveform without echoes")
]
Carry = Annotated[
    bool,
    typer.Option(
        "--carry/--no-carry",
        show_default=False,
        help="Copy class, return number and extra bytes of the nearest discrete return to each "
        "echo. Default: carry",
    ),
]
UncertaintyOption = Annotated[
    bool,
    typer.Option(
        "--uncertainty/--no-uncertainty",
        show_default=False,
        help="Compute the uncertainties of the echoes. Default: uncertainty",
    ),
]
AllowEmpty = Annotated[
    bool, typer.Option("--allow-empty", help="Write a file without echoes if none is found")
]
WithWaveforms = Annotated[
    bool,
    typer.Option(
        "--with-waveforms", help="Write the waveforms with the echoes (LAS and LAZ with a .wdp)"
    ),
]
TimeOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_time, metavar="T", help="GPS time of the shot in s, within 1 microsecond"
    ),
]
QuietOption = Annotated[bool, typer.Option("-q", "--quiet", help="Print no progress or summary")]
VerboseOption = Annotated[
    bool, typer.Option("-v", "--verbose", help="Print a line for each skipped waveform")
]


def refuse_quiet_and_verbose(quiet: bool, verbose: bool) -> None:
    """BadParameter if both options are given."""
    if quiet and verbose:
        raise typer.BadParameter("cannot be combined with --verbose", param_hint="--quiet")


def require_suffix(path: Path, suffixes: tuple[str, ...], hint: str) -> None:
    """BadParameter if the file name does not end in one of the suffixes."""
    if path.suffix.lower() not in suffixes:
        raise typer.BadParameter(f"{path} must end in {' or '.join(suffixes)}", param_hint=hint)
