"""Trouble becomes one sentence on standard error and an exit code."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import typer

#: The data or the files are not as they must be.
EXIT_DATA = 1
#: The call is not as it must be.
EXIT_USAGE = 2


@contextmanager
def told_in_a_sentence() -> Iterator[None]:
    """Turns errors of files and values into a sentence and exit code 1."""
    try:
        yield
    except OSError as error:
        where = f"{error.filename}: " if error.filename and error.strerror else ""
        _stop(f"{where}{error.strerror or error}")
    except ValueError as error:
        _stop(str(error))
    except MemoryError:
        _stop("not enough memory for one block of waveforms; try a smaller --block")
    except KeyboardInterrupt:
        typer.echo("interrupted; no result was written", err=True)
        raise typer.Exit(130) from None


def _stop(sentence: str) -> None:
    typer.echo(f"fullwaveform: {sentence}", err=True)
    raise typer.Exit(EXIT_DATA)
