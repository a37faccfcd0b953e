"""Options of an extraction, and the reader and settings that follow from them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace
from pathlib import Path

from fullwaveform.calibration.phase_choice import PhaseChoice
from fullwaveform.cli.options import ChannelFlags, ChannelNumbers
from fullwaveform.core.driver import Mode, Threshold, check_system_wave
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.extraction.prepare import Baseline, SampleScale
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.opening import open_waveforms


@dataclass(frozen=True)
class ExtractOptions:
    """Parsed options on echoes and input."""

    mode: Mode
    threshold: Threshold | None  # None: measured
    baseline: Baseline
    sample_scale: SampleScale
    scanner: Path | None
    after_pulse: AfterPulse | None
    keep_empty: bool
    carry: bool
    with_waveforms: bool
    channels: ChannelFlags
    interval: float | None  # s, for files without one
    skip_unreadable: bool
    block: int  # waveforms
    outgoing_phase: PhaseChoice = "auto"

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
            baseline=self.baseline,
            sample_scale=self.sample_scale,
            keep_empty=self.keep_empty,
            carry=self.carry,
            with_waveforms=self.with_waveforms,
        )


def open_checked(
    source: Path,
    channels: ChannelFlags,
    *,
    interval: float | None,
    block: int = 20_000,
    skip_unreadable: bool = True,
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
