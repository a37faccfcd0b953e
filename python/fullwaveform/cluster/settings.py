"""The settings of a job as plain data, for the manifest and for the workers."""

from __future__ import annotations

from collections import Counter
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

from fullwaveform.cluster.plain import to_plain
from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.scanner import AfterPulse, Scanner
from fullwaveform.core.scanner_attributes import checked_attributes
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.base import flag_table

_OTHERS = "others"  # the flag of the channels that are not named
# Waveforms of a unit by mode: up to some minutes of one processor, and a part that fits in memory.
_WAVEFORMS_OF_UNIT = {
    Mode.THREE_POINT: 2_000_000,
    Mode.DECOMPOSITION: 1_000_000,
    Mode.DECONVOLUTION: 100_000,
    Mode.HYBRID: 100_000,
}


@dataclass(frozen=True)
class JobSettings:
    """All that decides what a job writes, beside its inputs; plain data throughout.

    Two jobs of equal settings over equal inputs write equal parts.
    """

    mode: int
    threshold: Threshold  # counts, or an estimate for every waveform
    keep_empty: bool
    scanner_attributes: dict[str, str | float | list[float]]
    after_pulse: AfterPulse | None
    deconvolution_offset: float  # samples
    deconvolution_offset_hybrid: float | None  # samples
    channel_flags: dict[str, int]  # by the number of the channel, and that of all others
    sampling_interval: float | None  # s, where it is given; None: the files say it
    skip_unreadable: bool
    block: int  # waveforms
    unit_blocks: int  # blocks of a unit, at most
    part_format: str  # the ending of the parts without its dot

    @classmethod
    def of(
        cls,
        settings: ExtractionSettings,
        channel_flags: Mapping[int, int] | int,
        *,
        block: int,
        unit_blocks: int | None,
        part_format: str,
        sampling_interval: float | None = None,
        skip_unreadable: bool = False,
    ) -> JobSettings:
        """The plain form; `unit_blocks` of None stands for units of some minutes at most."""
        scanner = settings.scanner
        return cls(
            mode=int(settings.mode),
            threshold=settings.threshold,
            keep_empty=settings.keep_empty,
            scanner_attributes=to_plain(scanner.attributes),
            after_pulse=scanner.after_pulse,
            deconvolution_offset=scanner.deconvolution_offset,
            deconvolution_offset_hybrid=scanner.deconvolution_offset_hybrid,
            channel_flags=_shortened(channel_flags),
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
            block=block,
            unit_blocks=unit_blocks or max(1, _WAVEFORMS_OF_UNIT[settings.mode] // block),
            part_format=part_format,
        )

    def extraction(self) -> ExtractionSettings:
        """The settings as the extraction takes them; ValueError where they make no sense."""
        scanner = Scanner(
            checked_attributes(self.scanner_attributes, "scanner attributes of the job"),
            self.after_pulse,
            deconvolution_offset=self.deconvolution_offset,
            deconvolution_offset_hybrid=self.deconvolution_offset_hybrid,
        )
        return ExtractionSettings(scanner, Mode(self.mode), self.threshold, self.keep_empty)

    def flags(self) -> dict[int, int]:
        """Channel flag by the number of the channel, 0 to 255."""
        named = {int(name): flag for name, flag in self.channel_flags.items() if name != _OTHERS}
        return dict.fromkeys(range(256), self.channel_flags[_OTHERS]) | named


def differences(before: Any, now: Any, where: str = "") -> list[str]:
    """What differs between two pieces of plain data, a phrase each."""
    if isinstance(before, dict) and isinstance(now, dict):
        found = []
        for key in dict.fromkeys([*before, *now]):
            found += differences(before.get(key), now.get(key), f"{where}.{key}" if where else key)
        return found
    return [] if before == now else [f"{where} was {_in_words(before)} and is {_in_words(now)}"]


def _in_words(value: Any) -> str:
    if isinstance(value, list):
        return f"a list of {len(value)}, beginning {value[:2]}"
    return "nothing" if value is None else repr(value)


def _shortened(channel_flags: Mapping[int, int] | int) -> dict[str, int]:
    flags = flag_table(channel_flags).tolist()
    ((usual, _),) = Counter(flags).most_common(1)
    named = {str(number): flag for number, flag in enumerate(flags) if flag != usual}
    return {_OTHERS: usual} | named
