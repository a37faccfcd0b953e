"""The selected echoes as a file."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from functools import cached_property
from pathlib import Path
from tempfile import TemporaryDirectory
from threading import Lock
from typing import BinaryIO
from zipfile import ZIP_STORED, ZipFile

from fullwaveform.data.arrays import BoolArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.view.cache import cache_folder, check_unchanged, remove_abandoned_folders
from fullwaveform.view.echo_index import EchoIndex
from fullwaveform.view.selection import Selection, selected_rows

_PREPARED = "selection"  # name of the folders of files that are being written
_PART_BYTES = 1 << 18
_POINTS = (".las", ".laz")
_WITH_WAVEFORMS = ".zip"  # of a LAS file and its packets
_SAVED = "selected-echoes"  # name of its files


class SelectionExport:
    """Writes the selected echoes of a file as the command extract would have written them.

    `as_las` makes a LAS file with the same echoes in the same order, of a table, with their
    waveforms if its argument is true; None: nothing can.
    """

    def __init__(
        self, path: Path, echoes: EchoIndex, as_las: Callable[[bool], Path] | None = None
    ) -> None:
        self._path, self._echoes, self._as_las = path, echoes, as_las
        self._lock = Lock()  # a LAS file is made once

    @cached_property
    def formats(self) -> tuple[str, ...]:
        """Endings, without the point, of files that have all that the file of echoes has.

        Raises OSError and WaveformFileError if the file of echoes cannot be read any more.
        """
        return tuple(ending.removeprefix(".") for ending in self._endings())

    # The writers load libraries that the first picture of the page does not need.

    def _endings(self) -> tuple[str, ...]:
        import laspy

        from fullwaveform.io.echo_writers.converting import CONVERTED_ENDINGS, has_all_columns
        from fullwaveform.io.las.points import WAVEFORM_POINT_FORMATS

        own = self._path.suffix.lower()
        if own in _POINTS:
            with laspy.open(self._path.open("rb")) as file:
                has_waveforms = file.header.point_format.id in WAVEFORM_POINT_FORMATS
            return (_WITH_WAVEFORMS,) if has_waveforms else _POINTS
        points = () if self._as_las is None else (*_POINTS, _WITH_WAVEFORMS)
        if has_all_columns(self._path):
            return (*CONVERTED_ENDINGS, *points)
        return (own, *points) if own in CONVERTED_ENDINGS else points

    def content(self, selection: Selection, kind: str) -> tuple[int, Iterator[bytes]]:
        """Size, bytes, and content in parts of a file with the selected echoes, in their order.

        It is complete in the cache folder before it is read, so that an error gives no part of a
        file; its name is removed as soon as it is open.

        Raises ValueError for a format that is not one of `formats`, and OSError if the file of
        echoes was removed or changed since its index was made.
        """
        check_unchanged(self._path, self._echoes.identity)
        if kind not in self.formats:
            known = ", ".join(self.formats) or "none"
            raise ValueError(
                f"{self._path.name} cannot be saved as {kind[:20]!r}; formats that hold all of its "
                f"values: {known}"
            )
        from fullwaveform.io.echo_writers.converting import convert_rows
        from fullwaveform.io.echo_writers.restricting import write_rows_of

        rows = selected_rows(self._echoes, selection)
        remove_abandoned_folders(_PREPARED)
        with TemporaryDirectory(dir=cache_folder(), prefix=f"{_PREPARED}-") as folder:
            output = Path(folder) / f"selection.{kind}"
            own = self._path.suffix.lower()
            if output.suffix == _WITH_WAVEFORMS:
                whole = self._path if own in _POINTS else self._las(with_waveforms=True)
                _write_with_waveforms(whole, rows, output)
            elif output.suffix == own or own in _POINTS:
                write_rows_of(self._path, rows, output)
            elif output.suffix in _POINTS:
                write_rows_of(self._las(with_waveforms=False), rows, output)
            else:
                convert_rows(self._path, rows, output)
            stream = output.open("rb")  # remains readable when the folder is removed
        return os.fstat(stream.fileno()).st_size, _parts(stream)

    def _las(self, *, with_waveforms: bool) -> Path:
        import laspy

        assert self._as_las is not None
        with self._lock:
            path = self._as_las(with_waveforms)
        with laspy.open(path) as file:
            points = file.header.point_count
        if points < self._echoes.row_count:
            raise WaveformFileError(
                f"LAS files can hold {points:,} of {self._echoes.row_count:,} echoes only; save "
                "the selection as csv or parquet"
            )
        return path


def _write_with_waveforms(source: Path, rows: BoolArray, output: Path) -> None:
    """An archive of a LAS file of the chosen points and the file of their packets."""
    from fullwaveform.io.echo_writers.packets import packets_path
    from fullwaveform.io.echo_writers.restricting_packets import write_points_with_packets

    points = output.with_name(f"{_SAVED}.las")
    write_points_with_packets(source, rows, points)
    with ZipFile(output, "w", ZIP_STORED) as archive:
        for path in (points, packets_path(points)):
            with path.open("rb") as stream, archive.open(path.name, "w", force_zip64=True) as entry:
                for part in _parts(stream):
                    raise_if_requested()
                    entry.write(part)
            path.unlink()  # at most one of them takes space twice


def _parts(stream: BinaryIO) -> Iterator[bytes]:
    with stream:
        while part := stream.read(_PART_BYTES):
            yield part
