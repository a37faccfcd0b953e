"""The values of ``--channel``, and whether the files have these channels."""

from __future__ import annotations

from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

import typer

from fullwaveform.io.base import WaveformReader

_CHANNEL_NAMES = {"low": 1, "high": 0}


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
