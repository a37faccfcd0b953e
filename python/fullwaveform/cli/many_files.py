"""What commands for many files share: their options, the names of outputs, files that fail."""

from __future__ import annotations

import stat
from collections.abc import Sequence
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, check_takes_empty, echo_outputs
from fullwaveform.io.input_names import check_distinct

#: Formats of echoes by their names on the command line.
FORMATS = [ending.lstrip(".") for ending in ECHO_ENDINGS]
DEFAULT_FORMAT = "parquet"

FormatOption = Annotated[
    str | None,
    typer.Option(
        "--format",
        metavar="FORMAT",
        help=f"Format of the files in a folder: {', '.join(FORMATS)}. Default: {DEFAULT_FORMAT}",
    ),
]
SkipBadFiles = Annotated[
    bool,
    typer.Option("--skip-bad-files", help="Exit with 0 even if files could not be extracted"),
]


def check_format(name: str, options: ExtractOptions) -> None:
    """BadParameter for an unknown format, or one that cannot hold what the options ask for."""
    if name not in FORMATS:
        raise typer.BadParameter(
            f"{name!r} must be one of {', '.join(FORMATS)}", param_hint="--format"
        )
    try:
        check_takes_empty(Path(f"part.{name}"), options.keep_empty)
        echo_outputs(Path(f"part.{name}"), options.with_waveforms)
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="--format") from error


def check_folder(folder: Path) -> None:
    """BadParameter if the path is, or looks like, a file, or cannot be a path at all."""
    try:
        is_file = not stat.S_ISDIR(folder.stat().st_mode)
    except FileNotFoundError:
        is_file = folder.suffix.lower() in ECHO_ENDINGS
    except OSError as error:  # a name that is too long
        raise typer.BadParameter(
            f"cannot write {folder}: {error.strerror}", param_hint="-o"
        ) from error
    if is_file:
        raise typer.BadParameter(
            f"{folder} must be a folder; the format of its files is given by --format",
            param_hint="-o",
        )


def check_names(sources: Sequence[Path]) -> None:
    """BadParameter for inputs that are given twice, or whose outputs would have one name."""
    try:
        check_distinct(sources)
    except ValueError as error:
        raise typer.BadParameter(str(error), param_hint="IN") from error
