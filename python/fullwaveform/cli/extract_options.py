"""Options that the commands of an extraction share, and the settings that follow from them."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass, fields, replace
from functools import cached_property, wraps
from inspect import Parameter, Signature, signature
from pathlib import Path
from typing import Any, get_type_hints

import typer

from fullwaveform.cli.options import (
    AfterPulseOption,
    AllowEmpty,
    BaselineOption,
    BlockOption,
    Carry,
    ChannelFlags,
    ChannelNumbers,
    ChannelOption,
    CrsOption,
    FalseAlarmsOption,
    IntervalOption,
    KeepDegraded,
    KeepEmpty,
    MaxSamples,
    MaxWidthOption,
    ModeOption,
    OutgoingPhaseOption,
    PulseOption,
    SampleScaleOption,
    ScannerFile,
    SkipUnreadable,
    SmoothingOption,
    ThresholdOption,
    UncertaintyOption,
    WithWaveforms,
    channel_flags_from,
)
from fullwaveform.core.driver import Mode, check_system_wave
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.prepare import checked_baseline
from fullwaveform.extraction.pulse_fitting import (
    InapplicableOptionError,
    PulseFitOptions,
    check_applicable,
)
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.opening import open_waveforms


@dataclass(frozen=True)
class ExtractOptions:
    """What determines the echoes of a file; each field is an option of the command line."""

    mode: ModeOption = Mode.THREE_POINT
    threshold: ThresholdOption = None
    baseline: BaselineOption = "auto"
    sample_scale: SampleScaleOption = "auto"
    smoothing: SmoothingOption = 0.0
    scanner: ScannerFile = None
    channel: ChannelOption = None
    after_pulse: AfterPulseOption = None
    interval: IntervalOption = None
    outgoing_phase: OutgoingPhaseOption = "auto"
    false_alarms: FalseAlarmsOption = None
    max_width: MaxWidthOption = None
    pulse: PulseOption = "auto"
    keep_empty: KeepEmpty = False
    carry: Carry = True
    uncertainty: UncertaintyOption = True
    with_waveforms: WithWaveforms = False
    skip_unreadable: SkipUnreadable = False
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES
    allow_empty: AllowEmpty = False
    block: BlockOption = 20_000
    keep_degraded: KeepDegraded = False
    crs: CrsOption = None

    def __post_init__(self) -> None:
        """BadParameter for an option that the mode does not have."""
        own = {field.name: field.default for field in fields(self)}
        given = [name for name, default in own.items() if getattr(self, name) != default]
        try:
            check_applicable(self.mode, given)
        except InapplicableOptionError as error:
            hint = f"--{error.option.replace('_', '-')}"
            raise typer.BadParameter(error.problem, param_hint=hint) from error

    @property
    def more_echoes(self) -> str:
        """What to do if no echo is found."""
        if self.mode is Mode.PULSE_FIT:
            return "use --mode decomposition"
        return "give a lower --threshold"

    @property
    def pulse_fit(self) -> PulseFitOptions:
        """The choices of mode pulse-fit."""
        options = PulseFitOptions(max_width=self.max_width, pulse=self.pulse)
        if self.false_alarms is None:
            return options
        return replace(options, false_alarms=self.false_alarms)

    @cached_property
    def channels(self) -> ChannelFlags:
        """The values of `channel`; BadParameter if one is invalid."""
        return channel_flags_from(self.channel)

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


def with_extract_options(command: Callable[..., None]) -> Callable[..., None]:
    """The command with the fields of `ExtractOptions` in place of its parameter `options`."""
    own = get_type_hints(command, include_extras=True)
    shared = get_type_hints(ExtractOptions, include_extras=True)
    names = [field.name for field in fields(ExtractOptions)]
    parameters = []
    for parameter in signature(command).parameters.values():
        if parameter.name != "options":
            hint = own[parameter.name]
            parameters.append(parameter.replace(kind=Parameter.KEYWORD_ONLY, annotation=hint))
            continue
        for field in fields(ExtractOptions):
            hint = shared[field.name]
            parameters.append(
                Parameter(
                    field.name, Parameter.KEYWORD_ONLY, default=field.default, annotation=hint
                )
            )

    @wraps(command)
    def with_options(**given: Any) -> None:
        options = ExtractOptions(**{name: given.pop(name) for name in names})
        command(options=options, **given)

    with_options.__signature__ = Signature(parameters)  # type: ignore[attr-defined]
    with_options.__annotations__ = {one.name: one.annotation for one in parameters}
    return with_options


def open_checked(
    source: Path,
    channels: ChannelFlags,
    *,
    interval: float | None,
    block: int = 20_000,
    skip_unreadable: bool = True,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
) -> WaveformReader:
    """A reader of the file.

    Raises as `open_waveforms`, and typer.BadParameter for a channel that the file does not use.
    """
    reader = open_waveforms(
        source,
        waveforms_per_block=block,
        channel_flags=channels,
        sampling_interval=interval,
        skip_unreadable=skip_unreadable,
        max_samples=max_samples,
        keep_degraded=keep_degraded,
        crs=crs,
    )
    try:
        channels.check([ChannelNumbers.of(reader, channels)])
    except BaseException:
        reader.close()
        raise
    return reader


def scanner_for(
    path: Path | None, after_pulse: AfterPulse | None, file_scanners: Sequence[Scanner | None]
) -> Scanner:
    """The scanner of the description at `path`, else that of the files, else the default."""
    if path is not None:
        return Scanner.from_toml(path, after_pulse=after_pulse)
    first = file_scanners[0] if file_scanners else None
    if any(other != first for other in file_scanners[1:]):
        raise ValueError(
            "the files contain different scanner descriptions; give one with --scanner, or process "
            "the files separately"
        )
    if first is None:
        return Scanner.default(after_pulse=after_pulse)
    return first if after_pulse is None else replace(first, after_pulse=after_pulse)
