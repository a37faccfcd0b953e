"""Entry of the command line: one verb per module."""

from __future__ import annotations

import typer

import fullwaveform
from fullwaveform.cli.compare import compare
from fullwaveform.cli.extract import extract
from fullwaveform.cli.simulate import simulate
from fullwaveform.cli.system_wave import system_wave

app = typer.Typer(
    name="fullwaveform",
    help="Echoes from full-waveform laser scanner records.",
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
)
app.command()(extract)
app.command()(simulate)
app.command()(compare)
app.command("system-wave")(system_wave)


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
