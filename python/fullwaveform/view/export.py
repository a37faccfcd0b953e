"""The selected echoes as a file."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import BinaryIO

from fullwaveform.io.echo_writers.restricting import write_rows_of
from fullwaveform.view.cache import cache_folder, identity
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.selection import Selection, selected_rows

_PART_BYTES = 1 << 18
#: Formats that have all that a file of the format holds.
_FORMATS = {
    ".csv": ("csv",),
    ".parquet": ("parquet",),
    ".las": ("las", "laz"),
    ".laz": ("laz", "las"),
}


class SelectionExport:
    """Writes the selected echoes of a file as the command extract would have written them."""

    def __init__(self, path: Path, echoes: EchoIndex) -> None:
        self._path, self._echoes = path, echoes
        self._identity = identity(path)

    @property
    def formats(self) -> tuple[str, ...]:
        """Endings, without the point, of the files that `content` can make."""
        return _FORMATS.get(self._path.suffix.lower(), ())

    def content(self, selection: Selection, kind: str) -> tuple[int, Iterator[bytes]]:
        """Bytes, and content in parts, of a file with the selected echoes in the order of theirs.

        It is complete in the cache folder before it is read, so that an error gives no part of a
        file; it has no name there and needs no memory.

        Raises ValueError for a format that is not one of `formats`, and OSError if the file of
        echoes was changed since it was opened.
        """
        if kind not in self.formats:
            known = ", ".join(self.formats) or "none"
            raise ValueError(
                f"{self._path.name} cannot be saved as {kind[:20]!r}; formats that hold all of its "
                f"values: {known}"
            )
        if identity(self._path) != self._identity:
            raise OSError(f"{self._path} was changed since the viewer was started; start it again")
        rows = selected_rows(self._echoes, selection)
        with TemporaryDirectory(dir=cache_folder(), prefix="selection-") as folder:
            output = Path(folder) / f"selection.{kind}"
            write_rows_of(self._path, rows, output)
            stream = output.open("rb")  # remains readable when the folder is removed
        return os.fstat(stream.fileno()).st_size, _parts(stream)


def _parts(stream: BinaryIO) -> Iterator[bytes]:
    with stream:
        while part := stream.read(_PART_BYTES):
            yield part
