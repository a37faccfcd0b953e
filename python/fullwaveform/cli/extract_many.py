"""Extraction of several files into a folder, one or several at a time."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from concurrent.futures import FIRST_COMPLETED, Future, ThreadPoolExecutor, wait
from contextlib import contextmanager
from pathlib import Path

import typer

from fullwaveform.cli.errors import EXIT_DATA, describe_error, one_line
from fullwaveform.cli.extract_file import FileRun
from fullwaveform.cli.progress import ProgressLines
from fullwaveform.cli.summary import RunSummary
from fullwaveform.data.counting import counted
from fullwaveform.data.errors import naming
from fullwaveform.io.atomic import OutputError
from fullwaveform.io.interruption import request_end

_TICK_S = 0.5
# Invalid content, missing files, options that do not suit a file: other files may be extracted.
_FILE_ERRORS = (OSError, ValueError, MemoryError, typer.BadParameter)


def extract_many(
    run: FileRun, outputs: Sequence[tuple[Path, Path]], jobs: int, *, skip_bad_files: bool
) -> None:
    """Extract pairs of input and output, `jobs` files at a time.

    Prints a line for each file when it is done, and at the end the errors of those that could not
    be extracted; then exits with `EXIT_DATA`, unless `skip_bad_files` is set and others could.

    Raises OSError when there is no space for an output, which the other files would meet as well.
    """
    errors: dict[Path, str] = {}
    with _finished_files(run, outputs, jobs) as finished:
        lines = ProgressLines(run.progress, run.quiet)
        done = 0
        for source, future in finished:
            if future is None:
                lines.print_if_due(f"{done:,} of {counted(len(outputs), 'file')} done")
                continue
            done += 1
            try:
                summary = future.result()
            except OutputError:
                raise
            except _FILE_ERRORS as error:
                errors[source] = naming(source, describe_error(error))
            else:
                _print_line(summary, run.quiet)
    for text in errors.values():
        typer.echo(f"fullwaveform: {one_line(text)}", err=True)
    if errors:
        failed = f"{len(errors):,} of {counted(len(outputs), 'file')} could not be extracted"
        typer.echo(f"fullwaveform: {failed}", err=True)
        if not skip_bad_files or len(errors) == len(outputs):
            raise typer.Exit(EXIT_DATA)


def _print_line(summary: RunSummary, quiet: bool) -> None:
    if not quiet:
        typer.echo(summary.line())


@contextmanager
def _finished_files(
    run: FileRun, outputs: Sequence[tuple[Path, Path]], jobs: int
) -> Iterator[Iterator[tuple[Path, Future[RunSummary] | None]]]:
    """Yield the inputs and their results as they finish, None about twice a second.

    When the ``with`` statement ends by an exception, files in progress are cancelled.
    """
    with ThreadPoolExecutor(jobs, thread_name_prefix="file") as pool:
        sources = {pool.submit(run.extract, [source], output): source for source, output in outputs}

        def finished() -> Iterator[tuple[Path, Future[RunSummary] | None]]:
            pending = set(sources)
            while pending:
                done, pending = wait(pending, timeout=_TICK_S, return_when=FIRST_COMPLETED)
                for future in done:
                    yield sources[future], future
                yield Path(), None

        try:
            yield finished()
        except BaseException as error:
            request_end(error)
            pool.shutdown(wait=False, cancel_futures=True)
            run.cancel()
            raise
