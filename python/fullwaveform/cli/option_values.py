"""Parsers of the values of options."""

from __future__ import annotations

import math
from collections.abc import Callable
from pathlib import Path

import typer

from fullwaveform.calibration.phase_choice import PhaseChoice, checked_phase_choice
from fullwaveform.calibration.pulse_choice import PulseChoice, checked_pulse_choice
from fullwaveform.core.constants import MAX_COUNT
from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.pulse_fit import MAX_FALSE_ALARMS
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse
from fullwaveform.data.blocks import MAX_SMOOTHING
from fullwaveform.extraction.prepare import MAX_SCALE, Baseline, SampleScale, checked_baseline
from fullwaveform.extraction.smoothing import checked_smoothing
from fullwaveform.io.remote import is_remote, location

#: Modes by their names on the command line.
MODE_NAMES = {mode.name.lower().replace("_", "-"): mode for mode in Mode}
ALL_MODES, LAST_MODE = ", ".join(MODE_NAMES), len(MODE_NAMES) - 1
_NANOSECONDS = 1e9  # per second
_MAX_DIGITS = 18  # of an integer; more exceed 64 bits


def parse_mode(text: str | Mode) -> Mode:
    """A mode by its name or number."""
    if isinstance(text, Mode):  # the default
        return text
    numbers = {str(int(mode)): mode for mode in Mode}
    mode = MODE_NAMES.get(text, numbers.get(text))
    if mode is None:
        raise typer.BadParameter(f"{text!r} must be {ALL_MODES} or 0 to {LAST_MODE}")
    return mode


def parse_threshold(text: str) -> Threshold:
    """Counts, or "estimate"."""
    if text in ("estimate", "auto"):  # auto: former name
        return "estimate"
    digits = text.isascii() and text.isdigit() and len(text) <= len(str(MAX_COUNT))
    if not digits or int(text) > MAX_COUNT:
        raise typer.BadParameter(f"{text!r} must be 'estimate' or an integer from 0 to {MAX_COUNT}")
    return int(text)


def parse_phase_choice(text: str) -> PhaseChoice:
    """Whether the phase of the outgoing pulses is taken off."""
    try:
        return checked_phase_choice(text)
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be 'auto', 'on' or 'off'") from error


def parse_pulse_choice(text: str) -> PulseChoice:
    """Pulses of which a pulse model is made."""
    try:
        return checked_pulse_choice(text)
    except ValueError as error:
        raise typer.BadParameter(f"{text!r} must be 'auto', 'returned' or 'outgoing'") from error


def parse_baseline(text: str) -> Baseline:
    """Whether baselines are taken off."""
    try:
        return checked_baseline(text)
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error


def parse_sample_scale(text: str) -> SampleScale:
    """Factor of the samples, or "auto"."""
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


def parse_smoothing(text: str) -> float | None:
    """Standard deviation in s, from ns."""
    try:
        return checked_smoothing(_number(text) / _NANOSECONDS)
    except ValueError as error:
        largest = MAX_SMOOTHING * _NANOSECONDS
        raise typer.BadParameter(f"{text!r} must be 0 to {largest:g}, in ns") from error


def parse_rate(text: str) -> float:
    """False alarms per 1,000 waveforms."""
    rate = _number(text)
    if not 0.0 < rate <= MAX_FALSE_ALARMS:
        raise typer.BadParameter(f"{text!r} must be above 0 and at most {MAX_FALSE_ALARMS:g}")
    return rate


def parse_time(text: str) -> float:
    """GPS time, s."""
    seconds = _number(text)
    if not math.isfinite(seconds):
        raise typer.BadParameter(f"{text!r} must be a finite number, in s")
    return seconds


def _number(text: str) -> float:
    try:
        return float(text)
    except ValueError:
        return math.nan


def parse_after_pulse(text: str) -> AfterPulse:
    """After-pulse window; "off": none."""
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
