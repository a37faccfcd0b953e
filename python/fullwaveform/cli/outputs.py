"""The outputs of a command: checked before work starts, the inputs protected until it ends."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.io.atomic import FileKind, check_output, protected_inputs
from fullwaveform.io.atomic_folder import check_folder
from fullwaveform.io.remote import RemoteError

OverwriteOption = Annotated[
    bool, typer.Option("--overwrite", help="Replace existing outputs, only files of the same kind")
]


@dataclass(frozen=True)
class Output:
    """A file or folder that a command is asked to write."""

    path: Path
    kind: FileKind
    option: str  # that names it


@contextmanager
def checked_outputs(
    *outputs: Output, overwrite: bool, inputs: tuple[Path | None, ...]
) -> Iterator[None]:
    """Protect the inputs inside the ``with`` statement, and check the outputs at its beginning.

    Raises typer.BadParameter for an output that would replace an input or one of its companions,
    a file of another kind, or, without `overwrite`, any file.
    """
    with protected_inputs(*(path for path in inputs if path is not None)):
        for output in outputs:
            check = check_folder if output.kind.is_folder else check_output
            try:
                check(output.path, output.kind, overwrite)
            except FileExistsError as error:
                raise typer.BadParameter(str(error.strerror), param_hint=output.option) from error
            except IsADirectoryError:  # reported where it is opened
                continue
            except RemoteError as error:
                raise typer.BadParameter(str(error), param_hint=output.option) from error
        yield
