"""Option values that need reading: modes, channels, the after-pulse."""

from __future__ import annotations

import math
from collections.abc import Mapping
from pathlib import Path

import typer

from fullwaveform.core.driver import Mode, Threshold
from fullwaveform.core.scanner import NO_AFTER_PULSE, AfterPulse

MODE_NAMES = {
    "three-point": Mode.THREE_POINT,
    "decomposition": Mode.DECOMPOSITION,
    "deconvolution": Mode.DECONVOLUTION,
    "hybrid": Mode.HYBRID,
}
_CHANNEL_NAMES = {"low": 1, "high": 0}
_MAX_THRESHOLD = 65535
_NANOSECONDS = 1e9  # of a second


def mode_from(text: str) -> Mode:
    """A mode by its name or number."""
    numbers = {str(int(mode)): mode for mode in Mode}
    mode = MODE_NAMES.get(text, numbers.get(text))
    if mode is None:
        raise typer.BadParameter(
            f"{text!r} is none of {', '.join(MODE_NAMES)} or 0 to 3", param_hint="--mode"
        )
    return mode


def threshold_from(text: str) -> Threshold:
    """Threshold in counts, or "estimate" for an estimate per waveform."""
    if text == "auto":
        return "estimate"
    digits = text.isascii() and text.isdigit() and len(text) <= len(str(_MAX_THRESHOLD))
    if not digits or int(text) > _MAX_THRESHOLD:
        raise typer.BadParameter(
            f"{text!r} is neither auto nor a number of counts, 0 to 65535", param_hint="--noise"
        )
    return int(text)


class ChannelFlags(dict[int, int]):
    """Channel flags by the number of a descriptor or channel; those not named have the default."""

    def __init__(self, named: Mapping[int, int], default: int) -> None:
        super().__init__(named)
        self._default = default

    def __missing__(self, number: int) -> int:
        return self._default

    def check(self, numbers: Mapping[Path, frozenset[int] | None]) -> None:
        """BadParameter for a named number that none of the files has.

        `numbers` are the `channel_numbers` of their readers; files without any are not asked.
        """
        found = {path: there for path, there in numbers.items() if there is not None}
        there = frozenset[int]().union(*found.values())
        if found and (unknown := sorted(set(self) - there)):
            raise typer.BadParameter(
                f"{', '.join(map(str, found))} has no packet descriptor or channel "
                f"{', '.join(map(str, unknown))}; it has {_listed(there)}",
                param_hint="--channel",
            )


def _listed(numbers: frozenset[int]) -> str:
    return ", ".join(map(str, sorted(numbers))) or "none"


def channel_flags_from(texts: list[str]) -> ChannelFlags:
    """Channel flag of each packet descriptor.

    A text is a channel for all descriptors ("low", "high" or a flag from 0 to 255) or one for a
    single descriptor ("2=high"). Without any, all are low power.
    """
    default, single = 1, {}
    for text in texts:
        index, equals, name = text.rpartition("=")
        flag = _CHANNEL_NAMES.get(name, int(name) if name.isascii() and name.isdigit() else -1)
        wanted = int(index) if index.isascii() and index.isdigit() else -1
        if not 0 <= flag <= 255 or (equals and not 0 <= wanted <= 255):
            raise typer.BadParameter(
                f"{text!r} is not a channel: say low, high or 0 to 255, or INDEX=... with the "
                "index (0 to 255) of a packet descriptor or channel",
                param_hint="--channel",
            )
        if equals:
            single[wanted] = flag
        else:
            default = flag
    return ChannelFlags(single, default)


def seconds_from(nanoseconds: float | None) -> float | None:
    """A sampling interval of ``--interval`` in s; None when nothing was said."""
    if nanoseconds is None:
        return None
    if not (nanoseconds > 0.0 and math.isfinite(nanoseconds)):
        raise typer.BadParameter(
            f"{nanoseconds} is no number of nanoseconds above 0", param_hint="--interval"
        )
    return nanoseconds / _NANOSECONDS


def refuse_same_file(source: Path, output: Path, hint: str) -> None:
    """BadParameter when the output is the input, by whatever name: it is never overwritten."""
    try:
        same = output.samefile(source)
    except OSError:  # one of them is not there, or cannot be: what opens it says so
        return
    if same:
        raise typer.BadParameter(f"{output} is the input itself", param_hint=hint)


def refuse_quiet_and_verbose(quiet: bool, verbose: bool) -> None:
    """BadParameter when a call wants both."""
    if quiet and verbose:
        raise typer.BadParameter("contradicts --verbose", param_hint="--quiet")


def after_pulse_from(text: str | None) -> AfterPulse | None:
    """After-pulse of ``OFFSET,WIDTH`` in samples or ``off``; None when nothing was said."""
    if text is None:
        return None
    if text == "off":
        return NO_AFTER_PULSE
    parts = text.split(",")
    if len(parts) != 2 or not all(part.isascii() and part.isdigit() for part in parts):
        raise typer.BadParameter(
            f"{text!r} is neither off nor OFFSET,WIDTH in samples", param_hint="--after-pulse"
        )
    try:
        return AfterPulse(offset=int(parts[0]), width=int(parts[1]))
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="--after-pulse") from error
