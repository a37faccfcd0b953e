"""Metrics of a whole file or source of blocks as a table."""

from __future__ import annotations

import os
from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, cast

import laspy
import numpy as np
import pyarrow as pa

from fullwaveform.calibration.calibration import measure_first
from fullwaveform.data.blocks import ReadTally, WaveformBlock, blocks_of
from fullwaveform.data.columns import Columns, html_table
from fullwaveform.extraction.pipeline import available_workers
from fullwaveform.io.atomic import protected_inputs
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.limits import DEFAULT_MAX_SAMPLES
from fullwaveform.io.opening import open_waveforms
from fullwaveform.waveform_metrics.files import open_metrics_file
from fullwaveform.waveform_metrics.pipeline import block_metrics, measured_run
from fullwaveform.waveform_metrics.settings import MetricsSettings
from fullwaveform.waveform_metrics.table import MetricsRun, MetricsTable

if TYPE_CHECKING:
    import pandas as pd


class Metrics:
    """Metrics of the waveforms of a whole source.

    columns : one row per waveform in the order of the file, see docs/metrics.md
    settings : the parameters
    read : counts of the reader; zero for a source of blocks
    """

    def __init__(
        self,
        tables: list[MetricsTable],
        settings: MetricsSettings,
        read: ReadTally,
        header: laspy.LasHeader | None = None,
        sources: Sequence[Path] = (),
    ) -> None:
        if not tables:
            raise ValueError("the source has no waveforms")
        self._table = MetricsTable.join(tables)
        self._header, self._sources = header, tuple(sources)
        self.settings = settings
        self.read = read

    def __repr__(self) -> str:
        return f"Metrics({len(self)} waveforms)"

    def __len__(self) -> int:
        """Number of waveforms."""
        return len(self._table)

    def _repr_html_(self) -> str:
        """The first waveforms as a table, for notebooks."""
        return html_table(self.columns)

    @property
    def columns(self) -> Columns:
        """The metrics as NumPy columns of length n."""
        described = self._table.described(self.settings)
        return Columns({column.name: self._table[column.name] for column in described})

    def to_arrow(self) -> pa.Table:
        """The table; units and descriptions are metadata of its fields."""
        return self._table.to_arrow(self._table.described(self.settings))

    def to_pandas(self) -> pd.DataFrame:
        """The table for pandas; ImportError if pandas is not installed."""
        return cast("pd.DataFrame", self.to_arrow().to_pandas())

    def write(self, path: str | os.PathLike[str], *, overwrite: bool = False) -> int:
        """Write the table to a file; its suffix chooses the format. Return the number of rows.

        An existing file is replaced if `overwrite` is set and it is a file of metrics of this
        format.

        Raises
        ------
        ValueError
            Unknown suffix.
        FileExistsError
            The file exists and is not replaced.
        OSError
            The file cannot be written.
        """
        with (
            protected_inputs(*self._sources),
            open_metrics_file(
                path,
                self.settings,
                sources=self._sources,
                header=self._header,
                shot_columns=self._table.shot_columns,
                overwrite=overwrite,
            ) as writer,
        ):
            writer.write_table(self._table)
        return writer.count


def metrics(
    source: str | os.PathLike[str] | WaveformReader | WaveformBlock | Iterable[WaveformBlock],
    settings: MetricsSettings | None = None,
    *,
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    workers: int | None = None,
    skip_unreadable: bool = False,
    max_samples: int = DEFAULT_MAX_SAMPLES,
    keep_degraded: bool = False,
    crs: str | None = None,
) -> Metrics:
    """Compute the metrics of the waveforms of a file, an open reader, or blocks.

    All metrics are held in memory. For larger files use the command line.

    Parameters
    ----------
    source
        The path of a file in any format that `fullwaveform.open` knows, an open reader, a
        `WaveformBlock` or an iterable of them.
    settings
        The parameters. Default: `MetricsSettings()`, for large footprints.
    channel_flags, sampling_interval, skip_unreadable, max_samples, keep_degraded, crs
        As for `extract`.
    workers
        Number of threads. Default: all processors. The result does not depend on it.

    Raises
    ------
    OSError
        A file cannot be opened.
    WaveformFileError
        A file is not valid.
    ValueError
        Invalid argument, or a source without waveforms.
    """
    settings = settings or MetricsSettings()
    if not isinstance(settings, MetricsSettings):
        raise ValueError(f"invalid settings {settings!r}; expected MetricsSettings")
    threads = available_workers() if workers is None else workers
    if isinstance(source, str | os.PathLike):
        with open_waveforms(
            source,
            channel_flags=channel_flags,
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
            max_samples=max_samples,
            keep_degraded=keep_degraded,
            crs=crs,
        ) as reader:
            return _of_reader(reader, settings, threads)
    if sampling_interval is not None:
        raise ValueError("sampling_interval is only for paths; readers and blocks have their own")
    if hasattr(source, "blocks"):
        return _of_reader(cast(WaveformReader, source), settings, threads)
    if isinstance(source, np.ndarray):
        raise ValueError("the source is an array; make a WaveformBlock of it")
    calibration, blocks = measure_first(blocks_of(source))
    run = MetricsRun(settings, calibration)
    return Metrics(list(block_metrics(blocks, run, threads)), settings, ReadTally())


def _of_reader(reader: WaveformReader, settings: MetricsSettings, workers: int) -> Metrics:
    run = measured_run(reader, settings)
    tables = list(block_metrics(reader.blocks(), run, workers))
    sources = [path.absolute() for path in reader.paths]
    return Metrics(tables, settings, reader.tally, reader.header, sources)
