"""What a call wants extracted, and how it wants the files read."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace
from pathlib import Path

import typer

from fullwaveform.cli.options import ChannelFlags
from fullwaveform.core.driver import Mode, Threshold, check_system_wave
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.opening import open_waveforms


@dataclass(frozen=True)
class Wanted:
    """The options about echoes and input, read and checked."""

    mode: Mode
    threshold: Threshold
    scanner: Path | None
    after_pulse: AfterPulse | None
    keep_empty: bool
    channels: ChannelFlags
    interval: float | None  # s, for files that do not say theirs
    skip_unreadable: bool
    block: int  # waveforms

    def opened(self, source: Path) -> WaveformReader:
        """A reader of the file; raises as `open_waveforms`, the channels are not compared."""
        return open_waveforms(
            source,
            waveforms_per_block=self.block,
            channel_flags=self.channels,
            sampling_interval=self.interval,
            skip_unreadable=self.skip_unreadable,
        )

    def settings(self, carried: Sequence[Scanner | None]) -> ExtractionSettings:
        """The settings for files that carry these descriptions of their scanners, or none.

        Raises
        ------
        OSError, ValueError
            The named description cannot be read or lacks what the mode needs, or the files carry
            different ones and none is named.
        """
        scanner = scanner_for(self.scanner, self.after_pulse, carried)
        check_system_wave(self.mode, scanner)
        return ExtractionSettings(
            scanner=scanner, mode=self.mode, threshold=self.threshold, keep_empty=self.keep_empty
        )


def open_checked(
    source: Path,
    channels: ChannelFlags,
    *,
    interval: float | None,
    waveforms_per_block: int = 20_000,
    skip_unreadable: bool = True,
) -> WaveformReader:
    """A reader of the file, which has the channels that are named.

    Raises as `open_waveforms`, and typer.BadParameter for a channel that the file does not have.
    """
    reader = open_waveforms(
        source,
        waveforms_per_block=waveforms_per_block,
        channel_flags=channels,
        sampling_interval=interval,
        skip_unreadable=skip_unreadable,
    )
    try:
        channels.check({source: reader.channel_numbers})
    except typer.BadParameter:
        reader.close()
        raise
    return reader


def scanner_for(
    path: Path | None, after_pulse: AfterPulse | None, carried: Sequence[Scanner | None]
) -> Scanner:
    """The scanner of the named description, else the one the files carry, else the default."""
    if path is not None:
        return Scanner.from_toml(path, after_pulse=after_pulse)
    first = carried[0] if carried else None
    if any(other != first for other in carried[1:]):
        raise ValueError(
            "the files carry different descriptions of their scanners; name one with --scanner, or "
            "extract them apart"
        )
    if first is None:
        return Scanner.default(after_pulse=after_pulse)
    return first if after_pulse is None else replace(first, after_pulse=after_pulse)
