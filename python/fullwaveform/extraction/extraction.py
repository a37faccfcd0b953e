"""The result of the extraction of a whole source."""

from __future__ import annotations

import os
from collections.abc import Sequence
from html import escape
from pathlib import Path
from typing import TYPE_CHECKING, cast

import laspy
import numpy as np
import pyarrow as pa

from fullwaveform.data.blocks import ReadTally
from fullwaveform.data.columns import Columns, html_table
from fullwaveform.data.echo_columns import EchoTable, echo_table_to_arrow, table_columns
from fullwaveform.extraction.extractor import (
    ExtractedBlock,
    ExtractionSettings,
    ExtractionTally,
)
from fullwaveform.extraction.run_metadata import run_metadata
from fullwaveform.extraction.waveform_table import WAVEFORM_COLUMNS, WaveformTable
from fullwaveform.io.atomic import protected_inputs
from fullwaveform.io.echo_writers.opening import open_echo_file
from fullwaveform.io.remote import location

if TYPE_CHECKING:
    import pandas as pd


class Extraction:
    """Echoes and waveforms of a whole source.

    peaks : one row per echo, shot by shot along the flight of light: ``x``, ``y``, ``z``
        (coordinate units of the file; NaN where it has none), ``gps_time`` (s), ``echo_number``,
        ``echo_count``, ``amplitude`` (counts above the baseline), ``amplitude_db``,
        ``amplitude_library_db``, ``sigma_ns``, ``fwhm_ns``, ``position`` (samples),
        ``sigma_position_ns``, ``sigma_amplitude`` (counts), ``sigma_width_ns``, ``sigma_range``
        (m), ``significance``, ``fit_flags``, ``reduced_chi_square``, ``echo_type``, ``quality``,
        ``reflectance`` (dB), ``time`` (s), ``waveform_number``, ``channel_flag``
    waveforms : one row per waveform in the order of the file: ``waveform_number``, ``shot_time``
        (s), ``gps_time`` (s), ``channel_flag``, ``sample_count``, ``sampling_interval`` (s),
        ``threshold`` and ``max_amplitude`` (counts), ``max_position`` (samples), ``segment_count``,
        ``echo_count``; of the pulse fit ``baseline`` (counts), ``reduced_chi_square`` and
        ``clipped_samples``; ``state`` (a `WaveformState`)
    tally : counts of the extraction
    read : counts of the reader; zero for a source of blocks
    """

    def __init__(
        self,
        blocks: list[ExtractedBlock],
        header: laspy.LasHeader | None,
        read: ReadTally,
        settings: ExtractionSettings,
        sources: Sequence[Path] = (),
    ) -> None:
        if not blocks:
            raise ValueError("the source has no waveforms")
        self._settings = settings
        self._sources = tuple(sources)
        self._echoes = EchoTable.join([block.echoes for block in blocks])
        self._waveforms = WaveformTable.join([block.waveforms for block in blocks])
        self._header = header
        self.read = read
        self.tally = ExtractionTally()
        for block in blocks:
            self.tally.add(block.tally)

    def __repr__(self) -> str:
        return f"Extraction({self.tally.echoes} echoes of {self.tally.waveforms} waveforms)"

    def __len__(self) -> int:
        """Number of echoes."""
        return self.tally.echoes

    def _repr_html_(self) -> str:
        """The first echoes as a table, for notebooks."""
        return f"<p>{escape(repr(self))}</p>{html_table(self.peaks)}"

    @property
    def peaks(self) -> Columns:
        """The echoes as NumPy columns of length m."""
        columns = table_columns(self._echoes.shot_columns)
        return Columns({column.name: self._echoes[column.name] for column in columns})

    @property
    def waveforms(self) -> Columns:
        """The waveforms as NumPy columns of length n."""
        return self._waveforms.columns

    def _has_places(self) -> bool:
        return len(self) == 0 or bool(np.isfinite(self._echoes.xyz).all(axis=1).any())

    def to_arrow(self, table: str = "peaks") -> pa.Table:
        """The table "peaks" or "waveforms"; units and descriptions are metadata of its fields."""
        if table == "peaks":
            return echo_table_to_arrow(self._echoes)
        if table == "waveforms":
            return self._waveforms.to_arrow(WAVEFORM_COLUMNS)
        raise ValueError(f"unknown table {table!r}; expected 'peaks' or 'waveforms'")

    def to_pandas(self, table: str = "peaks") -> pd.DataFrame:
        """The table "peaks" or "waveforms" for pandas; ImportError if pandas is not installed."""
        return cast("pd.DataFrame", self.to_arrow(table).to_pandas())

    def to_las(self, path: str | os.PathLike[str], *, overwrite: bool = False) -> int:
        """Write the echoes as points of a LAS or LAZ file; see `write`."""
        if location(path).suffix.lower() not in (".las", ".laz"):
            raise ValueError(f"{path} must end in .las or .laz")
        return self.write(path, overwrite=overwrite)

    def write(self, path: str | os.PathLike[str], *, overwrite: bool = False) -> int:
        """Write the echoes to a file; its suffix chooses the format. Return the number written.

        An existing file is replaced if `overwrite` is set, it is a file of echoes of this format
        and not the file from which these were extracted or one of its companions. LAS files skip
        echoes whose coordinates they cannot represent.

        Raises
        ------
        ValueError
            Unknown suffix, or a LAS file of echoes none of which has a place in space.
        FileExistsError
            The file exists and is not replaced.
        OSError
            The file cannot be written.
        """
        if location(path).suffix.lower() in (".las", ".laz") and not self._has_places():
            raise ValueError(
                f"cannot write {path}: the echoes have no place in space; write a table "
                "(.csv, .parquet, .h5)"
            )
        run = run_metadata(self._settings, self._sources)
        with (
            protected_inputs(*self._sources),
            open_echo_file(
                path,
                self._header,
                run,
                carry=self._settings.carry,
                shot_columns=self._echoes.shot_columns,
                overwrite=overwrite,
            ) as writer,
        ):
            writer.write(self._echoes)
        return writer.count
