"""A file of echoes with some of the rows of another one, which is of the same format.

The rows keep their order and their values, and with them everything that describes the file.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable, Iterator
from itertools import compress, islice
from pathlib import Path

import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq

from fullwaveform.data.arrays import BoolArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.atomic import ANY_FILE, atomic_open
from fullwaveform.io.echo_writers.parquet import ROWS_PER_GROUP, parquet_writer
from fullwaveform.io.echo_writers.row_groups import RowGroups
from fullwaveform.io.interruption import raise_if_requested
from fullwaveform.io.las.compression import decompressors
from fullwaveform.io.las.points import WAVEFORM_POINT_FORMATS
from fullwaveform.io.remote import path_or_stream

_ROWS_AT_A_TIME = 2**16
_EMPTY_LINES = (b"\n", b"\r\n")  # which are no rows


def write_rows_of(source: Path, rows: BoolArray, output: Path) -> None:
    """Write the chosen rows of a file of echoes; those beyond the end of `rows` are not chosen.

    Endings of both: .csv, .parquet, or .las or .laz, of which one may become the other.

    Raises
    ------
    ValueError
        The format is none of these, or the file has waveforms.
    OSError
        The source cannot be read or the output not written.
    WaveformFileError
        The source has fewer rows, is damaged, or is a CSV file with line breaks inside quotes.
    """
    written = _WRITERS[output.suffix.lower()](source, rows, output)
    if written != (expected := int(np.count_nonzero(rows))):
        raise WaveformFileError(
            f"{source}: found {written:,} of {expected:,} rows; "
            "the file was changed in the meantime"
        )


def _write_csv(source: Path, rows: BoolArray, output: Path) -> int:
    written = 0
    with source.open("rb") as lines, atomic_open(output, ANY_FILE) as stream:
        known = _rows_of_csv(source, lines)
        stream.write(next(known, b""))
        chosen = compress(known, rows.tobytes())
        while part := list(islice(chosen, _ROWS_AT_A_TIME)):
            raise_if_requested()
            written += len(part)
            stream.write(b"".join(part))
            stream.check()
    return written


def _rows_of_csv(source: Path, lines: Iterable[bytes]) -> Iterator[bytes]:
    """The header and the rows, one line each."""
    for line in lines:
        if line.count(b'"') % 2:
            raise WaveformFileError(
                f"{source} has a line break inside quotes; save the echoes as Parquet first"
            )
        if line not in _EMPTY_LINES:
            yield line


def _write_parquet(source: Path, rows: BoolArray, output: Path) -> int:
    groups = RowGroups(ROWS_PER_GROUP)
    first = written = 0
    with (
        pq.ParquetFile(path_or_stream(source)) as file,
        atomic_open(output, ANY_FILE) as stream,
        parquet_writer(stream, file.schema_arrow) as writer,
    ):
        for number in range(file.num_row_groups):
            for batch in file.iter_batches(_ROWS_AT_A_TIME, row_groups=[number]):
                raise_if_requested()
                chosen = rows[first : first + len(batch)]
                first += len(batch)
                part = pa.table(batch).slice(0, len(chosen)).filter(pa.array(chosen))
                written += len(part)
                for group in groups.add(part):
                    writer.write_table(group, len(group))
            stream.check()
        for group in groups.rest():
            writer.write_table(group, len(group))
    return written


def _write_las(source: Path, rows: BoolArray, output: Path) -> int:
    first = written = 0
    with (
        laspy.open(source.open("rb"), laz_backend=decompressors()) as file,
        atomic_open(output, ANY_FILE) as stream,
    ):
        if file.header.point_format.id in WAVEFORM_POINT_FORMATS:
            raise ValueError(f"{source} has waveforms, without which its points are not written")
        writer = laspy.open(
            stream,
            mode="w",
            header=file.header,
            do_compress=output.suffix.lower() == ".laz",
            closefd=False,
        )
        for points in file.chunk_iterator(_ROWS_AT_A_TIME):
            raise_if_requested()
            chosen = rows[first : first + len(points)]
            first += len(points)
            written += int(np.count_nonzero(chosen))
            if chosen.any():
                writer.write_points(points[: len(chosen)][chosen])
            stream.check()
        if file.evlrs:
            writer.write_evlrs(file.evlrs)
        writer.close()
    return written


_WRITERS: dict[str, Callable[[Path, BoolArray, Path], int]] = {
    ".csv": _write_csv,
    ".parquet": _write_parquet,
    ".las": _write_las,
    ".laz": _write_las,
}
