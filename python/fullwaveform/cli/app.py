"""The command-line application; the module of a command is imported when the command is called."""

from __future__ import annotations

from collections.abc import Callable
from difflib import get_close_matches
from importlib import import_module
from typing import Any

import typer
from typer.core import TyperCommand, TyperGroup

from fullwaveform import __version__

# Command -> module and function. Imported on demand: plots, tables and statistics take longer to
# load than many commands run.
COMMANDS = {
    "extract": ("fullwaveform.cli.extract", "extract"),
    "cluster": ("fullwaveform.cli.cluster", "cluster"),
    "info": ("fullwaveform.cli.info", "info"),
    "plot": ("fullwaveform.cli.plot", "plot"),
    "report": ("fullwaveform.cli.report", "report"),
    "compare": ("fullwaveform.cli.compare", "compare"),
    "metrics": ("fullwaveform.cli.metrics", "metrics"),
    "pulses": ("fullwaveform.cli.pulses", "pulses"),
    "voxels": ("fullwaveform.cli.voxels", "voxels"),
    "convert": ("fullwaveform.cli.convert", "convert"),
    "pulse-model": ("fullwaveform.cli.pulse_model", "pulse_model"),
    "system-wave": ("fullwaveform.cli.system_wave", "system_wave"),
    "simulate": ("fullwaveform.cli.simulate", "simulate"),
}
_SETTINGS: dict[str, Any] = {
    "pretty_exceptions_enable": False,
    "rich_markup_mode": None,  # plain help and error texts, without frames
}
# Of every command: width of its help in columns, and the options that show it.
_CONTEXT: dict[str, Any] = {"max_content_width": 100, "help_option_names": ["-h", "--help"]}
# Former options of extract.
_CLUSTER_OPTIONS = ("--cluster", "--resume", "--unit-blocks", "--part-format")


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
        if cmd_name not in COMMANDS:
            return None
        module, function = COMMANDS[cmd_name]
        implementation = getattr(import_module(module), function)
        single = typer.Typer(add_completion=False, **_SETTINGS)
        single.command(
            cmd_name,
            cls=_ExtractCommand if cmd_name == "extract" else TyperCommand,
            short_help=(implementation.__doc__ or "").partition("\n")[0].rstrip("."),
            context_settings={"token_normalize_func": _option_name(cmd_name), **_CONTEXT},
        )(implementation)
        command: Any = typer.main.get_command(single)
        for parameter in command.params:
            # Arguments and flags need no type after their names, such as <path> or <bool>.
            if parameter.param_type_name == "argument" or parameter.is_flag:
                parameter.display_type_rich = lambda ctx: None
        return command

    def resolve_command(self, ctx: Any, args: list[str]) -> Any:
        """The command that the first argument names; suggests others for a mistyped one."""
        typed = args[0]
        similar = [] if typed in COMMANDS else get_close_matches(typed, COMMANDS, cutoff=0.7)
        if similar and not ctx.resilient_parsing:
            ctx.fail(f"No such command {typed!r}. Did you mean {' or '.join(similar)}?")
        return super().resolve_command(ctx, args)


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
