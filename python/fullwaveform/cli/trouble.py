"""Trouble becomes one sentence on standard error and an exit code."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import FrameType
from typing import Any

import typer

#: The data or the files are not as they must be.
EXIT_DATA = 1
#: The call is not as it must be.
EXIT_USAGE = 2
#: Ctrl-C, and a request of the system to end: 128 and the number of the signal.
EXIT_INTERRUPTED, EXIT_TERMINATED = 130, 143


class _Terminated(BaseException):
    """The system asked the process to end; unwinding removes unfinished files."""


@contextmanager
def told_in_a_sentence(
    left: Callable[[], str] = lambda: "no result was written",
) -> Iterator[None]:
    """Turns errors of files and values into a sentence and exit code 1, signals into theirs.

    `left` says, after a signal, what there is of the result.
    """
    restore = _terminated_by_signal()
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
        typer.echo(f"interrupted; {left()}", err=True)
        raise typer.Exit(EXIT_INTERRUPTED) from None
    except _Terminated:
        typer.echo(f"terminated; {left()}", err=True)
        raise typer.Exit(EXIT_TERMINATED) from None
    finally:
        restore()


def _terminated_by_signal() -> Callable[[], None]:
    """Turns SIGTERM into an exception; returns what restores the former behaviour."""
    if threading.current_thread() is not threading.main_thread():
        return lambda: None

    def end(number: int, frame: FrameType | None) -> None:
        raise _Terminated

    former = signal.signal(signal.SIGTERM, end)
    return lambda: _restore(former)


def _restore(former: Any) -> None:
    signal.signal(signal.SIGTERM, former)


def _stop(sentence: str) -> None:
    # A name may hold line feeds and worse; the sentence stays one line.
    line = "".join(c if c.isprintable() else repr(c)[1:-1] for c in sentence)
    typer.echo(f"fullwaveform: {line}", err=True)
    raise typer.Exit(EXIT_DATA)
