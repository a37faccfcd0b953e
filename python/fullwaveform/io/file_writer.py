"""Base class of the writers of files."""

from __future__ import annotations

import os
from abc import ABC, abstractmethod
from collections.abc import Iterator
from contextlib import AbstractContextManager, contextmanager
from pathlib import Path
from types import TracebackType
from typing import Self

from fullwaveform.io.atomic import FileKind, OutputFile, atomic_open
from fullwaveform.io.remote import location


class FileWriter(ABC):
    """A file that is written piece by piece; to be used in a ``with`` statement.

    The file gets its name when the statement ends without an error. Raises OSError if it cannot be
    written, FileExistsError as `check_output` does.
    """

    #: What the file is; an existing file of another kind is not replaced.
    kind: FileKind | None = None
    #: Whether an existing file of this kind is replaced; to be set before the ``with`` statement.
    overwrite: bool = False

    @classmethod
    def outputs(cls, path: Path) -> dict[Path, FileKind]:
        """Names and kinds of the files that are written for `path`, before any is."""
        return {} if cls.kind is None else {path: cls.kind}

    def __init__(self, path: str | os.PathLike[str]) -> None:
        self.path = location(path)
        self.count = 0  # what was written
        self._stream: OutputFile | None = None  # None while the file is not open
        self._context: AbstractContextManager[None] | None = None

    def __enter__(self) -> Self:
        self._context = self._open()
        self._context.__enter__()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        if self._context is not None:
            context, self._context = self._context, None
            context.__exit__(kind, error, trace)

    @contextmanager
    def _open(self) -> Iterator[None]:
        with atomic_open(self.path, self.kind, overwrite=self.overwrite) as self._stream:
            try:
                with self._content(self._stream):
                    yield
            finally:
                self._stream = None

    @abstractmethod
    def _content(self, stream: OutputFile) -> AbstractContextManager[None]:
        """Write what precedes the pieces on entry, what follows them on exit."""

    def _open_stream(self) -> OutputFile:
        """The open file; ValueError outside the ``with`` statement."""
        if self._stream is None:
            raise ValueError(f"{self.path} is not open for writing")
        return self._stream
