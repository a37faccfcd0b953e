"""Entry of the command line: one verb per module, loaded when it is called."""

from __future__ import annotations

from importlib import import_module
from typing import Any

import typer
from typer.core import TyperGroup

import fullwaveform

# Verb -> module and function. Modules are imported when their verb is called: plots, tables and
# statistics take longer to load than many a command runs.
_VERBS = {
    "extract": ("fullwaveform.cli.extract", "extract"),
    "simulate": ("fullwaveform.cli.simulate", "simulate"),
    "compare": ("fullwaveform.cli.compare", "compare"),
    "system-wave": ("fullwaveform.cli.system_wave", "system_wave"),
    "report": ("fullwaveform.cli.report", "report"),
    "convert": ("fullwaveform.cli.convert", "convert"),
    "info": ("fullwaveform.cli.info", "info"),
    "plot": ("fullwaveform.cli.plot", "plot"),
}


class _Verbs(TyperGroup):
    """The verbs in the order of their table."""

    def list_commands(self, ctx: Any) -> list[str]:
        return list(_VERBS)

    def get_command(self, ctx: Any, cmd_name: str) -> Any:
        if cmd_name not in _VERBS:
            return None
        module, function = _VERBS[cmd_name]
        single = typer.Typer(add_completion=False, pretty_exceptions_enable=False)
        single.command(cmd_name)(getattr(import_module(module), function))
        return typer.main.get_command(single)


app = typer.Typer(
    cls=_Verbs,
    name="fullwaveform",
    help="Echoes from full-waveform laser scanner records.",
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
)


def _show_version(wanted: bool) -> None:
    if wanted:
        typer.echo(f"fullwaveform {fullwaveform.__version__}")
        raise typer.Exit


@app.callback()
def _options(
    version: bool = typer.Option(
        False, "--version", help="Show the version.", callback=_show_version, is_eager=True
    ),
) -> None:
    """Echoes from full-waveform laser scanner records."""


def main() -> None:
    """Runs the command line; exit code 0 done, 1 trouble with the data, 2 with the call."""
    app(prog_name="fullwaveform")
