"""The command-line application; the module of a command is imported when the command is called."""

from __future__ import annotations

import gc
import sys
from collections.abc import Callable, Mapping
from importlib import import_module
from types import MappingProxyType
from typing import Any, NamedTuple

import typer
from typer.core import TyperCommand, TyperGroup

from fullwaveform import __version__
from fullwaveform.cli.values import Parser, parsers_of, use_parsers


class Command(NamedTuple):
    """A command, whose module is imported when it is called.

    Plots, tables and statistics take longer to load than many commands run.
    """

    module: str  # in this folder
    function: str
    summary: str  # first line of its docstring

    def load(self) -> Any:
        """The function."""
        _load_laspy()
        function = getattr(import_module(f"fullwaveform.cli.{self.module}"), self.function)
        if not gc.isenabled():
            gc.freeze()  # so that no collection visits what was loaded
            gc.enable()
        return function


COMMANDS = {
    "extract": Command("extract", "extract", "Extract the echoes from the waveforms of files"),
    "cluster": Command(
        "cluster", "cluster", "Extract the echoes of files on several processors or machines"
    ),
    "plan": Command(
        "plan", "plan", "Divide the extraction of files into units of work for a job array"
    ),
    "run": Command("run", "run", "Compute units of a planned run and write their parts"),
    "join": Command(
        "join",
        "join",
        "Complete a planned run: check that all parts are complete, and sum up",
    ),
    "info": Command("info", "info", "Show the contents of a waveform file: counts, times, levels"),
    "plot": Command(
        "plot", "plot", "Plot one waveform or the waveforms of a shot with their echoes"
    ),
    "report": Command(
        "report", "report", "Print the analysis of single waveforms: levels, segments, echoes"
    ),
    "compare": Command(
        "compare",
        "compare",
        "Compare echoes with the discrete returns of a scan, or with other echoes",
    ),
    "metrics": Command(
        "metrics",
        "metrics",
        "Compute metrics of whole waveforms: heights of energy, canopy cover, plant area",
    ),
    "pulses": Command(
        "pulses", "pulses", "Write a table with a row for each shot, with or without echoes"
    ),
    "voxels": Command(
        "voxels",
        "voxels",
        "Write sum, mean and maximum of the samples above the baseline, and pulses, per voxel",
    ),
    "view": Command(
        "view", "view", "Show the echoes on a map in the browser, and the waveform of each"
    ),
    "convert": Command(
        "convert", "convert", "Convert waveforms to a scan container (lossless for extraction)"
    ),
    "pulse-model": Command(
        "pulse_model",
        "pulse_model",
        "Measure the pulse and the noise of a scanner, for the pulse fit",
    ),
    "system-wave": Command(
        "system_wave",
        "system_wave",
        "Estimate the system wave, needed for deconvolution, from pulses",
    ),
    "simulate": Command("simulate", "simulate", "Simulate a scan with known echoes"),
}
_SETTINGS: dict[str, Any] = {
    "pretty_exceptions_enable": False,
    "rich_markup_mode": None,  # plain help and error texts, without frames
}
# Of every command: width of its help in columns, and the options that show it.
_CONTEXT: dict[str, Any] = {"max_content_width": 100, "help_option_names": ["-h", "--help"]}
# Libraries that laspy loads if they are installed: for reference systems, which few commands need,
# and for point clouds on web servers, which none reads with laspy.
_LEFT_OUT_OF_LASPY = ("pyproj", "requests")
# Former options of extract.
_CLUSTER_OPTIONS = ("--cluster", "--resume", "--unit-blocks", "--part-format")


def _load_laspy() -> None:
    """Load laspy, which every command needs, without libraries of which few or none make use."""
    if "laspy" in sys.modules:
        return
    left_out = [name for name in _LEFT_OUT_OF_LASPY if name not in sys.modules]
    for name in left_out:
        sys.modules[name] = None  # type: ignore[assignment]  # as if it were not installed
    try:
        import_module("laspy")
    finally:
        for name in left_out:
            del sys.modules[name]


def _option_name(command: str) -> Callable[[str], str]:
    """Maps the former name --noise to --threshold, in simulate to --noise-rms."""
    noise = "noise-rms" if command == "simulate" else "threshold"
    return lambda option: noise if option == "noise" else option


class _Command(TyperCommand):
    """A command whose parameters convert their values with their own parsers."""

    parsers: Mapping[str, Parser] = MappingProxyType({})

    def get_params(self, ctx: Any) -> Any:
        parameters = super().get_params(ctx)
        use_parsers(parameters, self.parsers)
        return parameters


class _ExtractCommand(_Command):
    """Explains the options that are now those of the command cluster."""

    def parse_args(self, ctx: Any, args: list[str]) -> list[str]:
        for word in args:
            option = word.partition("=")[0]
            if option in _CLUSTER_OPTIONS:
                raise typer.BadParameter(
                    "runs on several processes or machines have their own command; "
                    "see fullwaveform cluster --help",
                    ctx=ctx,
                    param_hint=option,
                )
        return super().parse_args(ctx, args)


class _Commands(TyperGroup):
    """The commands in the order of `COMMANDS`."""

    def get_params(self, ctx: Any) -> Any:
        parameters = super().get_params(ctx)
        use_parsers(parameters, {})
        return parameters

    def list_commands(self, ctx: Any) -> list[str]:
        return list(COMMANDS)

    def get_command(self, ctx: Any, cmd_name: str) -> Any:
        """Name and summary of a command, for the help and for completion."""
        if cmd_name not in COMMANDS:
            return None
        return TyperCommand(cmd_name, short_help=COMMANDS[cmd_name].summary)

    def resolve_command(self, ctx: Any, args: list[str]) -> Any:
        """The command that the first argument names; suggests others for a mistyped one."""
        typed = args[0]
        if typed not in COMMANDS and not ctx.resilient_parsing and (similar := _similar(typed)):
            ctx.fail(f"No such command {typed!r}. Did you mean {' or '.join(similar)}?")
        name, summary, rest = super().resolve_command(ctx, args)
        return name, None if summary is None else _loaded(typed), rest


def _similar(name: str) -> list[str]:
    """Commands for which the name may have been meant."""
    from difflib import get_close_matches

    return get_close_matches(name, COMMANDS, cutoff=0.7)


def _loaded(name: str) -> Any:
    """The command with its options."""
    function = COMMANDS[name].load()
    single = typer.Typer(add_completion=False, **_SETTINGS)
    single.command(
        name,
        cls=_ExtractCommand if name == "extract" else _Command,
        context_settings={"token_normalize_func": _option_name(name), **_CONTEXT},
    )(function)
    command: Any = typer.main.get_command(single)
    command.parsers = parsers_of(function)
    for parameter in command.params:
        # Arguments and flags need no type after their names, such as <path> or <bool>.
        if parameter.param_type_name == "argument" or parameter.is_flag:
            parameter.display_type_rich = lambda ctx: None
    return command


app = typer.Typer(
    cls=_Commands,
    name="fullwaveform",
    no_args_is_help=True,
    context_settings=_CONTEXT,
    **_SETTINGS,
)


def _print_version(requested: bool) -> None:
    if requested:
        typer.echo(f"fullwaveform {__version__}")
        raise typer.Exit


@app.callback()
def _options(
    version: bool = typer.Option(
        False,
        "--version",
        help="Print the version and exit.",
        callback=_print_version,
        is_eager=True,
    ),
) -> None:
    """Extract echoes from full-waveform laser scanner data."""
