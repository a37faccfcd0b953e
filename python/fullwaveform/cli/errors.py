"""Turns exceptions into one line on standard error and an exit code."""

from __future__ import annotations

import signal
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import typer

from fullwaveform.cli.signals import SignalExit, raise_on_signals
from fullwaveform.data.errors import describe
from fullwaveform.io.atomic import collect_outputs

#: Exit code after a data or file error; typer exits with 2 after a usage error.
EXIT_DATA = 1


@contextmanager
def report_errors(describe_result: Callable[[], str] | None = None) -> Iterator[None]:
    """Report file, data and memory errors of the block with exit code 1, signals with theirs.

    `describe_result` says what exists of the result after a signal; by default the files that were
    completed are listed.
    """
    with collect_outputs() as files:
        try:
            with raise_on_signals():
                yield
        except (OSError, ValueError, MemoryError) as error:
            typer.echo(f"fullwaveform: {one_line(describe_error(error))}", err=True)
            raise typer.Exit(EXIT_DATA) from None
        except KeyboardInterrupt as interrupt:
            # Libraries with their own SIGINT handler raise a plain KeyboardInterrupt.
            ended = interrupt if isinstance(interrupt, SignalExit) else SignalExit(signal.SIGINT)
            result = describe_result() if describe_result else _completed(files)
            typer.echo(f"{ended.description}; {result}", err=True)
            raise typer.Exit(ended.exit_code) from None


def _completed(files: list[Path]) -> str:
    if not files:
        return "no result was written"
    return f"already written: {', '.join(map(str, files))}"


def describe_error(error: Exception) -> str:
    """The message of a file, data, memory or usage error."""
    if isinstance(error, typer.BadParameter):
        return f"{error.param_hint or 'option'}: {error.message}"
    return describe(error)


def one_line(message: str) -> str:
    """The message on one line: file names may contain line feeds and other control characters."""
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in message)
