"""The settings of a run, for the manifest and for the workers."""

from __future__ import annotations

from collections import Counter
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np

from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.calibration.pulse_choice import PulseChoice
from fullwaveform.core.driver import Mode, Threshold, Thresholds
from fullwaveform.core.pulse_models import ReceiverModel
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.core.scanner_attributes import checked_attributes
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.prepare import Baseline, SampleScale
from fullwaveform.extraction.pulse_fitting import PulseFitOptions
from fullwaveform.io.base import flag_table
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES

_MAX_SHOWN = 60  # characters of the first entries of a list
_OTHERS = "others"  # key of the flag of all channels that are not listed
# Waveforms of a part by mode: at most a few minutes of one processor, and a part that fits in
# memory.
_WAVEFORMS_PER_PART = {
    Mode.THREE_POINT: 2_000_000,
    Mode.DECOMPOSITION: 1_000_000,
    Mode.DECONVOLUTION: 100_000,
    Mode.HYBRID: 100_000,
    Mode.PULSE_FIT: 1_000_000,
}


@dataclass(frozen=True)
class JobSettings:
    """All that determines the output of a run besides its inputs.

    Equal settings and inputs give equal parts.
    """

    mode: int
    threshold: Threshold | None  # None: that of the calibration of each input
    baseline: Baseline
    sample_scale: SampleScale
    keep_empty: bool
    carry: bool
    uncertainty: bool
    with_waveforms: bool
    scanner_attributes: dict[str, str | float | list[float]]
    after_pulse: AfterPulse | None
    deconvolution_offset: float  # samples
    deconvolution_offset_hybrid: float | None  # samples
    channel_flags: dict[str, int]  # by channel number, and one for all others
    sampling_interval: float | None  # s; None: from the files
    skip_unreadable: bool
    block: int  # waveforms
    blocks_per_part: int
    part_format: str  # file suffix of the parts, without the dot
    outgoing_phase: PhaseChoice = "auto"
    max_samples: int = DEFAULT_MAX_SAMPLES
    keep_degraded: bool = False
    crs: str | None = None
    # Pulse models, or the pulses of which they are made for each input; None: not needed.
    pulse: PulseChoice | tuple[ReceiverModel, ...] | None = None
    smoothing: float | None = None  # s; None: that of the format
    false_alarms: float = PulseFitOptions.false_alarms  # per 1,000 waveforms
    max_width: float | None = None  # s
    scanner_notes: tuple[str, ...] = ()  # for the user

    @classmethod
    def of(
        cls,
        settings: ExtractionSettings,
        channel_flags: Mapping[int, int] | int,
        *,
        block: int,
        blocks_per_part: int | None,
        part_format: str,
        sampling_interval: float | None = None,
        skip_unreadable: bool = False,
        max_samples: int = DEFAULT_MAX_SAMPLES,
        outgoing_phase: PhaseChoice = "auto",
        keep_degraded: bool = False,
        crs: str | None = None,
    ) -> JobSettings:
        """The settings of a run; None for `blocks_per_part` gives parts of a few minutes."""
        scanner = settings.scanner
        return cls(
            mode=int(settings.mode),
            threshold=_of_all_waveforms(settings.threshold),
            baseline=settings.baseline,
            sample_scale=settings.sample_scale,
            keep_empty=settings.keep_empty,
            carry=settings.carry,
            uncertainty=settings.uncertainty,
            with_waveforms=settings.with_waveforms,
            scanner_attributes=dict(scanner.attributes),
            after_pulse=scanner.after_pulse,
            deconvolution_offset=scanner.deconvolution_offset,
            deconvolution_offset_hybrid=scanner.deconvolution_offset_hybrid,
            channel_flags=_compact(channel_flags),
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
            max_samples=max_samples,
            block=block,
            blocks_per_part=blocks_per_part or max(1, _WAVEFORMS_PER_PART[settings.mode] // block),
            part_format=part_format,
            outgoing_phase=outgoing_phase,
            keep_degraded=keep_degraded,
            crs=crs,
            smoothing=settings.smoothing,
            pulse=settings.pulses,
            false_alarms=settings.pulse_fit.false_alarms,
            max_width=settings.pulse_fit.max_width,
            scanner_notes=scanner.notes,
        )

    def extraction(self) -> ExtractionSettings:
        """The settings for the extraction; ValueError if they are invalid."""
        scanner = Scanner(
            checked_attributes(self.scanner_attributes, "scanner attributes of the run"),
            self.after_pulse,
            deconvolution_offset=self.deconvolution_offset,
            deconvolution_offset_hybrid=self.deconvolution_offset_hybrid,
            notes=self.scanner_notes,
            pulse_models=self.pulse if isinstance(self.pulse, tuple) else (),
        )
        return ExtractionSettings(
            scanner,
            Mode(self.mode),
            self.threshold,
            self.baseline,
            self.sample_scale,
            keep_empty=self.keep_empty,
            carry=self.carry,
            uncertainty=self.uncertainty,
            with_waveforms=self.with_waveforms,
            smoothing=self.smoothing,
            pulse_fit=PulseFitOptions(self.false_alarms, self.max_width),
        )

    def flags(self) -> dict[int, int]:
        """Channel flag by channel number, 0 to 255."""
        listed = {int(name): flag for name, flag in self.channel_flags.items() if name != _OTHERS}
        return dict.fromkeys(range(256), self.channel_flags[_OTHERS]) | listed


def _of_all_waveforms(threshold: Thresholds | None) -> Threshold | None:
    if isinstance(threshold, np.ndarray):
        raise ValueError("a run on a cluster takes one threshold, not an array")
    return threshold


def differences(before: Any, now: Any, name: str = "") -> list[str]:
    """One phrase for each entry that differs between two nested dictionaries."""
    if isinstance(before, dict) and isinstance(now, dict):
        found = []
        for key in dict.fromkeys([*before, *now]):
            found += differences(before.get(key), now.get(key), f"{name}.{key}" if name else key)
        return found
    return [] if before == now else [f"{name} was {_shown(before)}, is {_shown(now)}"]


def _shown(value: Any) -> str:
    if isinstance(value, list | tuple):
        start = repr(value[:2])
        return f"a list of {len(value)} starting with {start[:_MAX_SHOWN]}"
    return "unset" if value is None else repr(value)


def _compact(channel_flags: Mapping[int, int] | int) -> dict[str, int]:
    flags = flag_table(channel_flags).tolist()
    ((usual, _),) = Counter(flags).most_common(1)
    listed = {str(number): flag for number, flag in enumerate(flags) if flag != usual}
    return {_OTHERS: usual} | listed
