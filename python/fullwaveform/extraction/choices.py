"""The settings of an extraction from the arguments of Python functions, each checked."""

from __future__ import annotations

import os
from collections.abc import Sequence
from pathlib import Path
from typing import TypedDict

from fullwaveform.calibration.pulse_choice import PulseChoice, checked_pulse_choice
from fullwaveform.core.driver import Mode, Thresholds, checked_mode, checked_thresholds
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.prepare import (
    Baseline,
    SampleScale,
    checked_baseline,
    checked_sample_scale,
)
from fullwaveform.extraction.pulse_fitting import PulseFitOptions, check_applicable
from fullwaveform.extraction.smoothing import checked_smoothing


class ExtractionChoices(TypedDict, total=False):
    """What determines the echoes, with names and meaning as in `fullwaveform.extract`."""

    mode: Mode | int | str
    scanner: Scanner | str | os.PathLike[str] | None
    threshold: Thresholds | None
    baseline: Baseline
    sample_scale: SampleScale
    smoothing: float | None
    false_alarms: float | None
    max_width: float | None
    pulse: PulseChoice
    keep_empty: bool
    carry: bool
    uncertainty: bool


_DEFAULTS = ExtractionChoices(
    mode=Mode.THREE_POINT,
    scanner=None,
    threshold=None,
    baseline="auto",
    sample_scale="auto",
    smoothing=None,
    false_alarms=None,
    max_width=None,
    pulse="auto",
    keep_empty=False,
    carry=True,
    uncertainty=True,
)


def settings_of(choices: ExtractionChoices) -> ExtractionSettings:
    """The settings without a calibration; choices that are missing have their defaults.

    Raises
    ------
    OSError
        The scanner description cannot be read.
    ValueError
        A choice is invalid, or the mode does not have it.
    """
    chosen = _DEFAULTS | choices
    mode = checked_mode(chosen["mode"])
    check_applicable(mode, [name for name, value in chosen.items() if not _is_default(name, value)])
    rate = chosen["false_alarms"]
    return ExtractionSettings(
        scanner=scanner_of(chosen["scanner"]),
        mode=mode,
        threshold=checked_thresholds(chosen["threshold"]),
        baseline=checked_baseline(chosen["baseline"]),
        sample_scale=checked_sample_scale(chosen["sample_scale"]),
        smoothing=checked_smoothing(chosen["smoothing"]),
        keep_empty=chosen["keep_empty"],
        carry=chosen["carry"],
        uncertainty=chosen["uncertainty"],
        pulse_fit=PulseFitOptions(
            PulseFitOptions.false_alarms if rate is None else rate,
            chosen["max_width"],
            checked_pulse_choice(chosen["pulse"]),
        ),
    )


def _is_default(name: str, value: object) -> bool:
    default = _DEFAULTS[name]  # type: ignore[literal-required]
    # Thresholds may be arrays, which compare row by row.
    return value is None if default is None else value == default


def scanner_of(scanner: Scanner | str | os.PathLike[str] | None) -> Scanner:
    """The scanner itself, of the description at a path, or the default for None."""
    if scanner is None:
        return Scanner.default()
    if isinstance(scanner, Scanner):
        return scanner
    if not isinstance(scanner, str | os.PathLike):
        raise ValueError(
            f"invalid scanner {scanner!r}; expected a Scanner or the path of a description (for "
            "attributes use Scanner.from_attributes)"
        )
    return Scanner.from_toml(Path(scanner))


def common_scanner(of_files: Sequence[Scanner | None]) -> Scanner | None:
    """The scanner description that the files contain; ValueError if they differ."""
    first = of_files[0] if of_files else None
    if any(other != first for other in of_files[1:]):
        raise ValueError(
            "the files contain different scanner descriptions; give one with --scanner "
            "(scanner=...), or process the files separately"
        )
    return first
