"""One file from files of echoes that were written one after the other, of the same format.

It has the bytes that a single writer would have written, which depend on the rows and their order
only.
"""

from __future__ import annotations

import json
import shutil
from collections.abc import Callable, Sequence
from pathlib import Path

from fullwaveform.io.atomic import atomic_open
from fullwaveform.io.echo_writers.opening import echo_outputs
from fullwaveform.io.remote import path_or_stream

_ROWS_AT_A_TIME = 2**16


def join_echo_files(
    parts: Sequence[Path], output: Path, *, overwrite: bool = False, with_waveforms: bool = False
) -> int:
    """Write the echoes of the parts, in order, to one file.

    Parameters
    ----------
    parts
        Files of echoes of one input, extracted with the same settings; at least one.
    output
        Has the ending of the parts.
    overwrite
        Whether an existing file of echoes of the same format is replaced.
    with_waveforms
        Whether the parts are LAS files with waveforms, which have a file of their own.

    Returns
    -------
    Number of waveforms that are padded in the output and not in the parts, see `PacketWriter`.

    Raises
    ------
    ValueError
        The output has another ending than the parts, or the waveforms need more descriptors than a
        file can have.
    OSError
        A part cannot be read, or the output not written or not replaced.
    """
    ending = parts[0].suffix.lower()
    if output.suffix.lower() != ending:
        raise ValueError(f"{output} must end in {ending}, as the parts do")
    if with_waveforms:
        from fullwaveform.io.echo_writers.joining_las import join_las_with_packets

        return join_las_with_packets(parts, output, overwrite)
    _JOINERS[ending](parts, output, overwrite)
    return 0


def _join_text(parts: Sequence[Path], output: Path, overwrite: bool, header: int = 0) -> None:
    with atomic_open(output, echo_outputs(output)[output], overwrite=overwrite) as stream:
        for number, part in enumerate(parts):
            with part.open("rb") as file:
                for _ in range(header if number > 0 else 0):
                    file.readline()
                shutil.copyfileobj(file, stream)
            stream.check()


def _join_csv(parts: Sequence[Path], output: Path, overwrite: bool) -> None:
    from fullwaveform.io.echo_writers.csv_metadata import METADATA_KIND, metadata_path

    content = json.loads(metadata_path(parts[0]).read_bytes())
    content["url"] = output.name
    with atomic_open(metadata_path(output), METADATA_KIND, overwrite=overwrite) as description:
        description.write((json.dumps(content, indent=2) + "\n").encode())
        _join_text(parts, output, overwrite, header=1)


def _join_parquet(parts: Sequence[Path], output: Path, overwrite: bool) -> None:
    import pyarrow.parquet as pq

    from fullwaveform.io.echo_writers.parquet import ROWS_PER_GROUP, parquet_writer
    from fullwaveform.io.echo_writers.row_groups import RowGroups

    groups = RowGroups(ROWS_PER_GROUP)
    schema = pq.read_schema(path_or_stream(parts[0]))
    with (
        atomic_open(output, echo_outputs(output)[output], overwrite=overwrite) as stream,
        parquet_writer(stream, schema) as writer,
    ):
        for part in parts:
            # As a file, not as a data set, which would take columns from its name.
            with pq.ParquetFile(path_or_stream(part)) as file:
                for number in range(file.num_row_groups):
                    for group in groups.add(file.read_row_group(number)):
                        writer.write_table(group, len(group))
            stream.check()
        for group in groups.rest():
            writer.write_table(group, len(group))


def _join_hdf5(parts: Sequence[Path], output: Path, overwrite: bool) -> None:
    import h5py
    import pyarrow as pa

    from fullwaveform.data.echo_columns import SHOT_COLUMNS, table_columns
    from fullwaveform.io.echo_writers.hdf5 import Hdf5EchoWriter
    from fullwaveform.io.run_record import RUN_METADATA_KEY

    with h5py.File(path_or_stream(parts[0])) as file:
        metadata = json.loads(file.attrs[RUN_METADATA_KEY])
        shot_columns = tuple(column.name for column in SHOT_COLUMNS if column.name in file)
    names = [column.name for column in table_columns(shot_columns)]
    joined = Hdf5EchoWriter(output, metadata, shot_columns=shot_columns)
    joined.overwrite = overwrite
    with joined:
        for part in parts:
            with h5py.File(path_or_stream(part)) as file:
                for first in range(0, len(file["echo_number"]), _ROWS_AT_A_TIME):
                    rows = slice(first, first + _ROWS_AT_A_TIME)
                    joined.write_rows(pa.table({name: file[name][rows] for name in names}))


def _join_points(parts: Sequence[Path], output: Path, overwrite: bool) -> None:
    from fullwaveform.io.echo_writers.joining_las import join_las

    join_las(parts, output, overwrite)


_JOINERS: dict[str, Callable[[Sequence[Path], Path, bool], None]] = {
    ".las": _join_points,
    ".laz": _join_points,
    ".csv": _join_csv,
    ".parquet": _join_parquet,
    ".h5": _join_hdf5,
    ".hdf5": _join_hdf5,
    ".txt": _join_text,
}
