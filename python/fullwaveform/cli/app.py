"""The command-line application; the module of a command is imported when the command is called."""

from __future__ import annotations

from collections.abc import Callable
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
    "convert": ("fullwaveform.cli.convert", "convert"),
    "system-wave": ("fullwaveform.cli.system_wave", "system_wave"),
    "simulate": ("fullwaveform.cli.simulate", "simulate"),
}
_SETTINGS: dict[str, Any] = {
    "add_completion": False,
    "pretty_exceptions_enable": False,
    "rich_markup_mode": None,  # plain help and error texts, without frames
}
_MAX_WIDTH = 100  # columns of a help text
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
        single = typer.Typer(**_SETTINGS)
        single.command(
            cmd_name,
            cls=_ExtractCommand if cmd_name == "extract" else TyperCommand,
            short_help=(implementation.__doc__ or "").partition("\n")[0].rstrip("."),
            context_settings={
                "token_normalize_func": _option_name(cmd_name),
                "max_content_width": _MAX_WIDTH,
            },
        )(implementation)
        return typer.main.get_command(single)


app = typer.Typer(
    cls=_Commands,
    name="fullwaveform",
    no_args_is_help=True,
    context_settings={"max_content_width": _MAX_WIDTH},
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
