"""The command-line application; the module of a command is imported when the command is called."""

from __future__ import annotations

import sys
from collections.abc import Callable
from difflib import get_close_matches
from importlib import import_module
from typing import Any, NamedTuple

import typer
from typer.core import TyperCommand, TyperGroup

from fullwaveform import __version__


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
        return getattr(import_module(f"fullwaveform.cli.{self.module}"), self.function)


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
        "Complete a planned run: check that all parts are there and whole, and sum up",
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
# Former options of extract.
_CLUSTER_OPTIONS = ("--cluster", "--resume", "--unit-blocks", "--part-format")


def _load_laspy() -> None:
    """Load laspy, which every command needs, without pyproj, of which few make use."""
    if "laspy" not in sys.modules and "pyproj" not in sys.modules:
        sys.modules["pyproj"] = None  # type: ignore[assignment]  # as if it were not installed
        try:
            import_module("laspy")
        finally:
            del sys.modules["pyproj"]


def _option_name(command: str) -> Callable[[str], str]:
    """Maps the former name --noise to --threshold, in simulate to --noise-rms."""
    noise = "noise-rms" if command == "simulate" else "threshold"
    return lambda option: noise if option == "noise" else option


class _ExtractCommand(TyperCommand):
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
        similar = [] if typed in COMMANDS else get_close_matches(typed, COMMANDS, cutoff=0.7)
        if similar and not ctx.resilient_parsing:
            ctx.fail(f"No such command {typed!r}. Did you mean {' or '.join(similar)}?")
        name, summary, rest = super().resolve_command(ctx, args)
        return name, None if summary is None else _loaded(typed), rest


def _loaded(name: str) -> Any:
    """The command with its options."""
    single = typer.Typer(add_completion=False, **_SETTINGS)
    single.command(
        name,
        cls=_ExtractCommand if name == "extract" else TyperCommand,
        context_settings={"token_normalize_func": _option_name(name), **_CONTEXT},
    )(COMMANDS[name].load())
    command: Any = typer.main.get_command(single)
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
