"""Trouble becomes one sentence on standard error and an exit code."""

from __future__ import annotations

import signal
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import typer

from fullwaveform.cli.signals import Ended, unwinding_on_signals
from fullwaveform.io.atomic import collect_outputs

#: The data or the files are not as they must be.
EXIT_DATA = 1
#: The call is not as it must be.
EXIT_USAGE = 2


@contextmanager
def told_in_a_sentence(left: Callable[[], str] | None = None) -> Iterator[None]:
    """Turns errors of files and values into a sentence and exit code 1, signals into theirs.

    `left` says, after a signal, what there is of the result; without it, that is told by the files
    that got their names.
    """
    with collect_outputs() as files:
        try:
            with unwinding_on_signals():
                yield
        except OSError as error:
            where = f"{error.filename}: " if error.filename and error.strerror else ""
            _stop(f"{where}{error.strerror or error}")
        except ValueError as error:
            _stop(str(error))
        except MemoryError:
            _stop("not enough memory for one block of waveforms; try a smaller --block")
        except KeyboardInterrupt as interruption:
            # Libraries with handlers of their own make a plain one of Ctrl-C.
            ended = interruption if isinstance(interruption, Ended) else Ended(signal.SIGINT)
            typer.echo(f"{ended.participle}; {left() if left else _told_of(files)}", err=True)
            raise typer.Exit(ended.exit_code) from None


def _told_of(files: list[Path]) -> str:
    if not files:
        return "no result was written"
    return f"written before that: {', '.join(map(str, files))}"


def _stop(sentence: str) -> None:
    # A name may hold line feeds and worse; the sentence stays one line.
    line = "".join(c if c.isprintable() else repr(c)[1:-1] for c in sentence)
    typer.echo(f"fullwaveform: {line}", err=True)
    raise typer.Exit(EXIT_DATA)
