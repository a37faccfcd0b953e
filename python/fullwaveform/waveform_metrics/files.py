"""Files of metrics."""

from __future__ import annotations

import os
from collections.abc import Sequence
from dataclasses import asdict
from pathlib import Path

import h5py
import laspy
import pyarrow as pa
import pyarrow.parquet

from fullwaveform import __version__
from fullwaveform.io.atomic import FileKind
from fullwaveform.io.echo_writers.csv import CsvTableFile
from fullwaveform.io.echo_writers.hdf5 import Hdf5TableFile
from fullwaveform.io.echo_writers.parquet import ParquetTableFile
from fullwaveform.io.echo_writers.table_file import TableFile
from fullwaveform.io.reference_system import reference_system
from fullwaveform.io.remote import location, path_or_stream
from fullwaveform.waveform_metrics.columns import metrics_columns
from fullwaveform.waveform_metrics.settings import MetricsSettings

# A column that no other table has.
_MARK = "rh_100"


def _is_csv(path: Path) -> bool:
    with path.open(encoding="ascii") as file:
        return _MARK in file.readline(1 << 16).rstrip("\n").split(",")


def _is_parquet(path: Path) -> bool:
    return _MARK in pa.parquet.ParquetFile(path_or_stream(path)).schema_arrow.names


def _is_hdf5(path: Path) -> bool:
    with h5py.File(path_or_stream(path)) as file:
        return _MARK in file


class CsvMetricsWriter(CsvTableFile):
    """Writes metrics to a CSV file, as `CsvTableFile`."""

    kind = FileKind("a CSV file of metrics", _is_csv)


class ParquetMetricsWriter(ParquetTableFile):
    """Writes metrics to a Parquet file, as `ParquetTableFile`; its points are on the ground."""

    kind = FileKind("a Parquet file of metrics", _is_parquet)
    axes = ("x", "y", "ground_z")


class Hdf5MetricsWriter(Hdf5TableFile):
    """Writes metrics to an HDF5 file, as `Hdf5TableFile`."""

    kind = FileKind("an HDF5 file of metrics", _is_hdf5)


_WRITERS: dict[str, type[TableFile]] = {
    ".parquet": ParquetMetricsWriter,
    ".csv": CsvMetricsWriter,
    ".h5": Hdf5MetricsWriter,
    ".hdf5": Hdf5MetricsWriter,
}
#: Endings of the files of metrics.
METRICS_ENDINGS = tuple(_WRITERS)


def open_metrics_file(
    path: str | os.PathLike[str],
    settings: MetricsSettings,
    *,
    sources: Sequence[Path] = (),
    header: laspy.LasHeader | None = None,
    shot_columns: tuple[str, ...] = (),
    overwrite: bool = False,
) -> TableFile:
    """A writer for the path, selected by its ending; to be used in a ``with`` statement.

    Parameters
    ----------
    path
        Ends in one of `METRICS_ENDINGS`, in lower or upper case.
    settings, sources
        Stored as metadata: the parameters, and the names of the inputs.
    header
        LAS header of the input, whose coordinate reference system the table has.
    shot_columns
        As for `metrics_columns`.
    overwrite
        Whether an existing file of metrics of the same format is replaced.

    Raises ValueError if no format has the ending.
    """
    writer_class = _writer_class(location(path))
    system = reference_system(header)
    metadata = _metadata(settings, sources)
    if system is not None:
        metadata["crs"] = system.to_wkt()
    columns = metrics_columns(settings, shot_columns)
    writer = writer_class(path, columns, metadata, system)
    writer.overwrite = overwrite
    return writer


def metrics_outputs(path: Path) -> dict[Path, FileKind]:
    """The files that are written for metrics, as `FileWriter.outputs`.

    Raises ValueError as `open_metrics_file`.
    """
    return _writer_class(path).outputs(path)


def _writer_class(path: Path) -> type[TableFile]:
    ending = path.suffix.lower()
    if ending not in _WRITERS:
        raise ValueError(
            f"{path} must end in {', '.join(METRICS_ENDINGS[:-1])} or {METRICS_ENDINGS[-1]}"
        )
    return _WRITERS[ending]


def _metadata(settings: MetricsSettings, sources: Sequence[Path]) -> dict[str, str]:
    """Version, settings and names of the inputs."""
    return {
        **({"input": ", ".join(source.name for source in sources)} if sources else {}),
        "version": __version__,
        **{name: repr(value) for name, value in asdict(settings).items()},
    }
