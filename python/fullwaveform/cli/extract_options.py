"""Options that the commands of an extraction share, and the settings that follow from them."""

from __future__ import annotations

from collections.abc import Collection, Sequence
from dataclasses import dataclass, fields, replace
from pathlib import Path

import typer

from fullwaveform.cli.options import (
    AfterPulseOption,
    AllowEmpty,
    BaselineOption,
    Carry,
    FalseAlarmsOption,
    KeepEmpty,
    MaxWidthOption,
    ModeOption,
    OutgoingPhaseOption,
    PulseOption,
    SampleScaleOption,
    ScannerFile,
    SmoothingOption,
    ThresholdOption,
    UncertaintyOption,
    WithWaveforms,
)
from fullwaveform.cli.reader_options import ReaderOptions
from fullwaveform.core.driver import Mode, check_system_wave
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.extraction.choices import common_scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.prepare import checked_baseline
from fullwaveform.extraction.pulse_fitting import (
    InapplicableOptionError,
    PulseFitOptions,
    check_applicable,
)


def check_mode_options(mode: Mode, given: Collection[str]) -> None:
    """BadParameter if one of the given options has no effect in the mode."""
    try:
        check_applicable(mode, given)
    except InapplicableOptionError as error:
        hint = f"--{error.option.replace('_', '-')}"
        raise typer.BadParameter(error.problem, param_hint=hint) from error


@dataclass(frozen=True)
class ExtractOptions(ReaderOptions):
    """What determines the echoes of a file; each field is an option of the command line."""

    mode: ModeOption = Mode.THREE_POINT
    threshold: ThresholdOption = None
    baseline: BaselineOption = "auto"
    sample_scale: SampleScaleOption = "auto"
    smoothing: SmoothingOption = None
    scanner: ScannerFile = None
    after_pulse: AfterPulseOption = None
    outgoing_phase: OutgoingPhaseOption = "auto"
    false_alarms: FalseAlarmsOption = None
    max_width: MaxWidthOption = None
    pulse: PulseOption = "auto"
    keep_empty: KeepEmpty = False
    carry: Carry = True
    uncertainty: UncertaintyOption = True
    with_waveforms: WithWaveforms = False
    allow_empty: AllowEmpty = False

    def __post_init__(self) -> None:
        """BadParameter for an invalid channel, or an option that the mode does not have."""
        super().__post_init__()
        own = {field.name: field.default for field in fields(self)}
        given = [name for name, default in own.items() if getattr(self, name) != default]
        check_mode_options(self.mode, given)

    @property
    def more_echoes(self) -> str:
        """What to do if no echo is found."""
        return more_echoes(self.mode)

    @property
    def pulse_fit(self) -> PulseFitOptions:
        """The choices of mode pulse-fit."""
        options = PulseFitOptions(max_width=self.max_width, pulse=self.pulse)
        if self.false_alarms is None:
            return options
        return replace(options, false_alarms=self.false_alarms)

    def settings(self, file_scanners: Sequence[Scanner | None]) -> ExtractionSettings:
        """The settings for files that contain these scanner descriptions, or None.

        Raises
        ------
        OSError, ValueError
            The scanner description cannot be read or lacks what the mode needs, or the files
            contain different ones and --scanner is missing.
        """
        scanner = scanner_for(self.scanner, self.after_pulse, file_scanners)
        check_system_wave(self.mode, scanner)
        return ExtractionSettings(
            scanner=scanner,
            mode=self.mode,
            threshold=self.threshold,
            baseline=checked_baseline(self.baseline),
            sample_scale=self.sample_scale,
            smoothing=self.smoothing,
            keep_empty=self.keep_empty,
            carry=self.carry,
            uncertainty=self.uncertainty,
            with_waveforms=self.with_waveforms,
            pulse_fit=self.pulse_fit,
        )


def more_echoes(mode: Mode) -> str:
    """What to do if no echo is found."""
    if mode is Mode.PULSE_FIT:
        return "use --mode decomposition"
    return "give a lower --threshold"


def scanner_for(
    path: Path | None, after_pulse: AfterPulse | None, file_scanners: Sequence[Scanner | None]
) -> Scanner:
    """The scanner of the description at `path`, else that of the files, else the default."""
    if path is not None:
        return Scanner.from_toml(path, after_pulse=after_pulse)
    first = common_scanner(file_scanners)
    if first is None:
        return Scanner.default(after_pulse=after_pulse)
    return first if after_pulse is None else replace(first, after_pulse=after_pulse)
