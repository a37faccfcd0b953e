"""Arguments and options that several commands share, and the parsers of their values."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Annotated, Any

import typer

from fullwaveform.calibration.phase_choice import PHASE_CHOICES, PhaseChoice, checked_phase_choice
from fullwaveform.calibration.pulse_choice import PULSE_CHOICES, PulseChoice, checked_pulse_choice
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.pulse_fit import MAX_FALSE_ALARMS
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse
from fullwaveform.data.blocks import MAX_SMOOTHING
from fullwaveform.extraction.prepare import (
    MAX_SCALE,
    Baseline,
    SampleScale,
    checked_baseline,
)
from fullwaveform.extraction.smoothing import checked_smoothing
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.remote import is_remote, location

#: Modes by their names on the command line.
MODE_NAMES = {mode.name.lower().replace("_", "-"): mode for mode in Mode}
_MODES, _LAST_MODE = ", ".join(MODE_NAMES), len(MODE_NAMES) - 1
_CHANNEL_NAMES = {"low": 1, "high": 0}
_NANOSECONDS = 1e9  # per second
_MAX_DIGITS = 18  # of an integer; more exceed 64 bits


def _mode(text: str | Mode) -> Mode:
    if isinstance(text, Mode):  # the default
        return text
    numbers = {str(int(mode)): mode for mode in Mode}
    mode = MODE_NAMES.get(text, numbers.get(text))
    if mode is None:
        raise typer.BadParameter(f"{text!r} must be {_MODES} or 0 to {_LAST_MODE}")
    return mode


def _threshold(text: str) -> Threshold:
    if text in ("estimate", "auto"):  # auto: former name
        return "estimate"
    digits = text.isascii() and text.isdigit() and len(text) <= len(str(MAX_COUNT))
    if not digits or int(text) > MAX_COUNT:
        raise typer.BadParameter(f"{text!r} must be 'estimate' or an integer from 0 to {MAX_COUNT}")
    return int(text)


def _phase_choice(text: str) -> PhaseChoice:
    try:
        return checked_phase_choice(text)
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be 'auto', 'on' or 'off'") from error


def _pulse_choice(text: str) -> PulseChoice:
    try:
        return checked_pulse_choice(text)
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be 'auto', 'returned' or 'outgoing'") from error


def _baseline(text: str) -> Baseline:
    try:
        return checked_baseline(text)
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error


def _sample_scale(text: str) -> SampleScale:
    if text == "auto":
        return "auto"
    digits = text.isascii() and text.isdigit() and len(text) <= len(str(MAX_SCALE))
    if not digits or not 1 <= int(text) <= MAX_SCALE:
        raise typer.BadParameter(f"{text!r} must be 'auto' or an integer from 1 to {MAX_SCALE}")
    return int(text)


def integer_from(minimum: int) -> Callable[[str | int], int]:
    """A parser of integers of at least `minimum`."""

    def parse(text: str | int) -> int:
        if isinstance(text, int):  # the default
            return text
        is_integer = text.isascii() and text.isdigit() and len(text) <= _MAX_DIGITS
        if not is_integer or int(text) < minimum:
            raise typer.BadParameter(f"{text!r} must be an integer of at least {minimum}")
        return int(text)

    return parse


def parse_interval(text: str) -> float:
    """Sampling interval in s, from ns."""
    nanoseconds = _number(text)
    if not (nanoseconds > 0.0 and math.isfinite(nanoseconds)):
        raise typer.BadParameter(f"{text!r} must be a finite number above 0, in ns")
    return nanoseconds / _NANOSECONDS


def _smoothing(text: str) -> float | None:
    """Standard deviation in s, from ns."""
    try:
        return checked_smoothing(_number(text) / _NANOSECONDS)
    except ValueError as error:
        largest = MAX_SMOOTHING * _NANOSECONDS
        raise typer.BadParameter(f"{text!r} must be 0 to {largest:g}, in ns") from error


def _rate(text: str) -> float:
    """False alarms per 1,000 waveforms."""
    rate = _number(text)
    if not 0.0 < rate <= MAX_FALSE_ALARMS:
        raise typer.BadParameter(f"{text!r} must be above 0 and at most {MAX_FALSE_ALARMS:g}")
    return rate


def _time(text: str) -> float:
    seconds = _number(text)
    if not math.isfinite(seconds):
        raise typer.BadParameter(f"{text!r} must be a finite number, in s")
    return seconds


def _number(text: str) -> float:
    try:
        return float(text)
    except ValueError:
        return math.nan


def _after_pulse(text: str) -> AfterPulse:
    if text == "off":
        return NO_AFTER_PULSE
    parts = text.split(",")
    if len(parts) != 2 or not all(part.isascii() and part.isdigit() for part in parts):
        raise typer.BadParameter(f"{text!r} must be 'off' or OFFSET,WIDTH, integers in samples")
    try:
        return AfterPulse(offset=int(parts[0]), width=int(parts[1]))
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error


def local_path(text: str) -> Path:
    """A file or folder of this machine; BadParameter for a URL."""
    path = location(text)
    if is_remote(path):
        raise typer.BadParameter(
            f"{path} is a URL; give a file or folder of this machine (docs/remote.md lists what "
            "may be at a URL)"
        )
    return path


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
        parser=_mode,
        metavar="MODE",
        show_default=False,
        help=f"{_MODES}, or 0 to {_LAST_MODE}. Default: three-point",
    ),
]
RepeatedModeOption = Annotated[
    list[Mode] | None,
    typer.Option(
        "--mode",
        parser=_mode,
        metavar="MODE",
        help="Mode as in extract; repeat to draw several. Default: three-point",
    ),
]
ThresholdOption = Annotated[
    Any,  # Threshold; typer does not accept a union
    typer.Option(
        parser=_threshold,
        metavar="N|estimate",
        show_default=False,
        help="Detection threshold in counts, or the library's estimate for each waveform. Default: "
        "5 noise rms above the baseline, measured on the file",
    ),
]
BaselineOption = Annotated[
    str,
    typer.Option(
        parser=_baseline,
        metavar="keep|remove|auto",
        show_default=False,
        help="Take the baseline off each waveform; auto: where it is high against the noise. "
        "Default: auto",
    ),
]
SampleScaleOption = Annotated[
    Any,  # SampleScale; typer does not accept a union
    typer.Option(
        parser=_sample_scale,
        metavar="N|auto",
        show_default=False,
        help="Factor of the samples before the extraction; auto: up to 16 for weak waveforms in "
        "the modes that deconvolve. Default: auto",
    ),
]
SmoothingOption = Annotated[
    float | None,
    typer.Option(
        parser=_smoothing,
        metavar="NS",
        show_default=False,
        help="Standard deviation in ns of a Gaussian that smooths the samples; 0: none. Default: "
        "6.5 for GEDI, else 0",
    ),
]
FalseAlarmsOption = Annotated[
    float | None,
    typer.Option(
        parser=_rate,
        metavar="R",
        help="Echoes of mere noise per 1,000 waveforms without light; only mode pulse-fit. "
        "Default: 1",
    ),
]
MaxWidthOption = Annotated[
    float | None,
    typer.Option(
        parser=parse_interval,
        metavar="NS",
        help="Largest full width of an echo at half maximum in ns; only mode pulse-fit. Default: "
        "the pulse, widened by 5 samples standard deviation",
    ),
]
OutgoingPhaseOption = Annotated[
    Any,  # PhaseChoice
    typer.Option(
        parser=_phase_choice,
        metavar="|".join(PHASE_CHOICES),
        show_default=False,
        help="Take the phase of the outgoing pulses off the ranges. Default: auto, if that helps",
    ),
]
PulseOption = Annotated[
    Any,  # PulseChoice
    typer.Option(
        parser=_pulse_choice,
        metavar="|".join(PULSE_CHOICES),
        show_default=False,
        help="Pulses of which a pulse model is made: isolated echoes or outgoing pulses. Default: "
        "auto, echoes if there are enough",
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
        help="Channel (low or high) of all packets, or per descriptor (2=high). Default: low",
    ),
]
AfterPulseOption = Annotated[
    AfterPulse | None,
    typer.Option(
        parser=_after_pulse,
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
        help="Take over class and extra bytes of a discrete return nearby. Default: carry",
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
    typer.Option(parser=_time, metavar="T", help="GPS time of the shot in s, within 1 microsecond"),
]
QuietOption = Annotated[bool, typer.Option("-q", "--quiet", help="Print no progress or summary")]
VerboseOption = Annotated[
    bool, typer.Option("-v", "--verbose", help="Print a line for each skipped waveform")
]


@dataclass(frozen=True, slots=True)
class ChannelNumbers:
    """Numbers of packet descriptors or channels in a file; None if it has no such numbers."""

    path: Path
    declared: frozenset[int] | None
    used: frozenset[int] | None  # by waveforms; only needed if a number is given

    @classmethod
    def of(cls, reader: WaveformReader, flags: ChannelFlags) -> ChannelNumbers:
        """The numbers in the file of a reader, which is searched for those that are given."""
        declared = reader.channel_numbers
        is_searched = declared is not None and flags and set(flags) <= declared
        used = reader.channel_numbers_in_use if is_searched else declared
        return cls(reader.path, declared, used)


def _listed(numbers: Iterable[int]) -> str:
    return ", ".join(map(str, sorted(numbers))) or "none"


class ChannelFlags(dict[int, int]):
    """Channel flag by number of a packet descriptor or channel; other numbers have the default."""

    def __init__(self, given: Mapping[int, int], default: int) -> None:
        super().__init__(given)
        self._default = default

    def __missing__(self, number: int) -> int:
        return self._default

    def check(self, numbers: Sequence[ChannelNumbers]) -> None:
        """BadParameter for a given number that none of the files has, or that none uses."""
        known = [one for one in numbers if one.declared is not None]
        declared = frozenset[int]().union(*(one.declared or () for one in known))
        used = frozenset[int]().union(*(one.used or () for one in known))
        files = ", ".join(str(one.path) for one in known)
        if known and (unknown := sorted(set(self) - declared)):
            problem = f"no packet descriptor or channel {_listed(unknown)} in {files}; available: "
            raise typer.BadParameter(problem + _listed(declared), param_hint="--channel")
        if known and (unused := sorted(set(self) - used)):
            problem = (
                f"no waveform in {files} is of packet descriptor or channel {_listed(unused)}, "
                "which the file declares; in use: "
            )
            raise typer.BadParameter(problem + _listed(used), param_hint="--channel")


def channel_flags_from(texts: list[str] | None) -> ChannelFlags:
    """Channel flags from the values of ``--channel``.

    A value is a channel for all descriptors ("low", "high" or a flag from 0 to 255) or for a
    single one ("2=high"). Default: low power.
    """
    default, single = 1, {}
    for text in texts or []:
        index, equals, name = text.rpartition("=")
        flag = _CHANNEL_NAMES.get(name, int(name) if name.isascii() and name.isdigit() else -1)
        number = int(index) if index.isascii() and index.isdigit() else -1
        if not 0 <= flag <= 255 or (equals and not 0 <= number <= 255):
            raise typer.BadParameter(
                f"{text!r} must be low, high or 0 to 255, or N=CHANNEL with the number N (0 to "
                "255) of a packet descriptor or channel",
                param_hint="--channel",
            )
        if equals:
            single[number] = flag
        else:
            default = flag
    return ChannelFlags(single, default)


def refuse_quiet_and_verbose(quiet: bool, verbose: bool) -> None:
    """BadParameter if both options are given."""
    if quiet and verbose:
        raise typer.BadParameter("cannot be combined with --verbose", param_hint="--quiet")


def require_suffix(path: Path, suffixes: tuple[str, ...], hint: str) -> None:
    """BadParameter if the file name does not end in one of the suffixes."""
    if path.suffix.lower() not in suffixes:
        raise typer.BadParameter(f"{path} must end in {' or '.join(suffixes)}", param_hint=hint)
