"""Options that determine what is read of a file of waveforms, shared by the commands."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass, fields
from functools import cached_property, wraps
from inspect import Parameter, Signature, signature
from pathlib import Path
from typing import Any, get_type_hints

import typer

from fullwaveform.cli.channel_flags import ChannelFlags, ChannelNumbers, channel_flags_from
from fullwaveform.cli.options import (
    BlockOption,
    ChannelOption,
    CrsOption,
    IntervalOption,
    KeepDegraded,
    MaxSamples,
    SkipUnreadable,
)
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.opening import open_waveforms


@dataclass(frozen=True)
class ReaderOptions:
    """How a file is read; each field is an option of the command line."""

    interval: IntervalOption = None
    channel: ChannelOption = None
    block: BlockOption = 20_000
    skip_unreadable: SkipUnreadable = False
    max_samples: MaxSamples = DEFAULT_MAX_SAMPLES
    keep_degraded: KeepDegraded = False
    crs: CrsOption = None

    def __post_init__(self) -> None:
        """BadParameter for an invalid channel, before any file is opened."""
        _ = self.channels

    @cached_property
    def channels(self) -> ChannelFlags:
        """The values of `channel`."""
        return channel_flags_from(self.channel)

    def open(self, sources: Sequence[Path]) -> WaveformReader:
        """A reader of the file, or of several that are read as one.

        Raises as `open_waveforms`, and typer.BadParameter for a channel that the file does not use.
        """
        reader = open_waveforms(
            sources[0] if len(sources) == 1 else sources,
            waveforms_per_block=self.block,
            channel_flags=self.channels,
            sampling_interval=self.interval,
            skip_unreadable=self.skip_unreadable,
            max_samples=self.max_samples,
            keep_degraded=self.keep_degraded,
            crs=self.crs,
        )
        try:
            self.channels.check([ChannelNumbers.of(reader, self.channels)])
        except BaseException:
            reader.close()
            raise
        return reader


def check_as_one(sources: Sequence[Path], as_one: bool) -> None:
    """BadParameter for several inputs of a command that writes one output, unless `as_one`."""
    if len(sources) > 1 and not as_one:
        raise typer.BadParameter(
            f"{len(sources)} inputs; give one, or the parts of a flight line with --as-one",
            param_hint="IN",
        )


def with_options(command: Callable[..., None]) -> Callable[..., None]:
    """The command with the fields of its parameter `options`, a dataclass, in place of it.

    Fields of base classes follow those of the class itself.
    """
    own = get_type_hints(command, include_extras=True)
    group = own["options"]
    shared = get_type_hints(group, include_extras=True)
    by_name = {field.name: field for field in fields(group)}
    names = dict.fromkeys(name for kind in group.__mro__ for name in vars(kind) if name in by_name)
    parameters = []
    for parameter in signature(command).parameters.values():
        if parameter.name != "options":
            hint = own[parameter.name]
            parameters.append(parameter.replace(kind=Parameter.KEYWORD_ONLY, annotation=hint))
            continue
        for name in names:
            default, hint = by_name[name].default, shared[name]
            parameters.append(
                Parameter(name, Parameter.KEYWORD_ONLY, default=default, annotation=hint)
            )

    @wraps(command)
    def with_fields(**given: Any) -> None:
        options = group(**{name: given.pop(name) for name in names})
        command(options=options, **given)

    with_fields.__signature__ = Signature(parameters)  # type: ignore[attr-defined]
    with_fields.__annotations__ = {one.name: one.annotation for one in parameters}
    return with_fields
