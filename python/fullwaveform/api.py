"""The short way: a file in, tables of echoes and waveforms out."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator, Mapping
from dataclasses import fields, is_dataclass, replace
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar, cast

import laspy
import numpy as np
import pyarrow as pa

from fullwaveform.core.driver import (
    Mode,
    Threshold,
    check_system_wave,
    checked_mode,
    checked_threshold,
)
from fullwaveform.core.scanner import Scanner
from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.data.columns import Columns
from fullwaveform.data.echo_columns import EchoTable, echo_table_to_arrow, table_columns
from fullwaveform.extraction.extractor import (
    ExtractedBlock,
    ExtractionSettings,
    ExtractionTally,
    run_metadata,
)
from fullwaveform.extraction.pipeline import available_workers, extracted_blocks
from fullwaveform.extraction.waveform_table import WAVEFORM_SCHEMA, WaveformTable
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.echo_writers.opening import open_echo_file
from fullwaveform.io.opening import open_waveforms

if TYPE_CHECKING:
    import pandas as pd

Source = str | os.PathLike[str] | WaveformReader | WaveformBlock | Iterable[WaveformBlock]
_Table = TypeVar("_Table", EchoTable, WaveformTable)


class Extraction:
    """Echoes of a whole source, and what became of each of its waveforms.

    peaks : one row per echo, shot by shot along the flight of light: ``x``, ``y``, ``z``
        (coordinate units of the file; NaN where it has none), ``gps_time`` (s), ``echo_number``,
        ``echo_count``, ``amplitude_counts``, ``amplitude_db``, ``width_ns``, ``position``
        (samples), ``echo_type``, ``quality``, ``reflectance`` (dB), ``time`` (s),
        ``waveform_number``, ``channel_flag``
    waveforms : one row per waveform in the order of the file: ``waveform_number``, ``shot_time``
        (s), ``gps_time`` (s), ``channel_flag``, ``sample_count``, ``sampling_interval`` (s),
        ``threshold`` and ``max_amplitude`` (counts), ``max_position`` (samples), ``segment_count``,
        ``echo_count``, ``state`` (a `WaveformState`)
    tally : the extraction in numbers
    read : what the reader met; empty for a source of blocks
    """

    def __init__(
        self,
        blocks: list[ExtractedBlock],
        header: laspy.LasHeader | None,
        read: ReadTally,
        settings: ExtractionSettings,
    ) -> None:
        if not blocks:
            raise ValueError("the source holds no waveforms")
        self._settings = settings
        self._echoes = EchoTable.join([block.echoes for block in blocks])
        self._waveforms = _joined([block.waveforms for block in blocks])
        self._header = header
        self.read = read
        self.tally = ExtractionTally()
        for block in blocks:
            self.tally.add(block.tally)

    def __repr__(self) -> str:
        return f"Extraction({self.tally.echoes} echoes of {self.tally.waveforms} waveforms)"

    @property
    def peaks(self) -> Columns:
        """The echoes as NumPy columns of length m."""
        return Columns({column.name: self._echoes[column.name] for column in table_columns()})

    @property
    def waveforms(self) -> Columns:
        """The waveforms as NumPy columns of length n."""
        return Columns({name: getattr(self._waveforms, name) for name in WAVEFORM_SCHEMA.names})

    def to_arrow(self, table: str = "peaks") -> pa.Table:
        """One of the tables, "peaks" or "waveforms", with units in the metadata of its fields."""
        if table == "peaks":
            return echo_table_to_arrow(self._echoes)
        if table == "waveforms":
            return pa.table(dict(self.waveforms), schema=WAVEFORM_SCHEMA)
        raise ValueError(f"table {table!r} is neither 'peaks' nor 'waveforms'")

    def to_pandas(self, table: str = "peaks") -> pd.DataFrame:
        """One of the tables, "peaks" or "waveforms"; ImportError where pandas is missing."""
        return cast("pd.DataFrame", self.to_arrow(table).to_pandas())

    def to_las(self, path: str | os.PathLike[str]) -> int:
        """Write the echoes as points of a LAS or LAZ file; see `write`.

        Raises ValueError also when the path ends otherwise.
        """
        if Path(path).suffix.lower() not in (".las", ".laz"):
            raise ValueError(f"{path} must end in .las or .laz")
        return self.write(path)

    def write(self, path: str | os.PathLike[str]) -> int:
        """Write the echoes to a file of the kind that its ending says.

        Returns
        -------
        Echoes written. Those whose coordinates a LAS file cannot hold are left out.

        Raises
        ------
        ValueError
            No kind of file has the ending.
        OSError
            The file cannot be written.
        """
        with open_echo_file(path, self._header, run_metadata(self._settings)) as writer:
            writer.write(self._echoes)
        return writer.count


def extract(
    source: Source,
    *,
    mode: Mode | int = Mode.THREE_POINT,
    scanner: Scanner | str | os.PathLike[str] | None = None,
    threshold: Threshold = "estimate",
    channel_flags: Mapping[int, int] | int = 1,
    sampling_interval: float | None = None,
    workers: int | None = None,
    keep_empty: bool = False,
    skip_unreadable: bool = False,
) -> Extraction:
    """Extract the echoes of a file, an open reader, or blocks of waveforms.

    All echoes are held in memory; for files that are larger, go through `fullwaveform.open` block
    by block or use the command line.

    Parameters
    ----------
    source
        The path of a file in any format that `fullwaveform.open` knows, an open reader, a
        `WaveformBlock` or several of them. Arrays are for `Driver`.
    mode
        0 three-point Gauss fit, 1 decomposition, 2 deconvolution, 3 hybrid.
    scanner
        The scanner's description, or the path of its TOML file; when left out, what the file
        carries, else the documented default.
    threshold
        Counts, 0 to 65535: samples at or below it are not searched for echoes. "estimate"
        estimates it for every waveform from its samples.
    channel_flags
        Channel of the waveforms of a file (1 low power, 0 the other), one for all or by packet
        descriptor or channel number.
    sampling_interval
        s per sample, for the path of a NumPy archive, which may not say it.
    workers
        Threads; all processors when left out. The result does not depend on it.
    keep_empty
        Whether waveforms without echoes have a row in `peaks`, too, with ``echo_number`` 0 and NaN.
    skip_unreadable
        Whether waveforms of a file that cannot be used are left out and counted, or refused. An
        open reader has been told already.

    Raises
    ------
    OSError
        A file cannot be opened.
    WaveformFileError
        A file does not hold what its format promises.
    ValueError
        For arguments that make no sense, and for a source without waveforms.
    """
    wanted = ExtractionSettings(
        scanner=_scanner(scanner),
        mode=checked_mode(mode),
        threshold=checked_threshold(threshold),
        keep_empty=keep_empty,
    )
    threads = available_workers() if workers is None else workers
    if isinstance(source, str | os.PathLike):
        with open_waveforms(
            source,
            channel_flags=channel_flags,
            sampling_interval=sampling_interval,
            skip_unreadable=skip_unreadable,
        ) as reader:
            return _of_reader(reader, _described(wanted, scanner, reader), threads)
    if sampling_interval is not None:
        raise ValueError("sampling_interval is for the path of a file; blocks say their own")
    if hasattr(source, "blocks"):
        reader = cast(WaveformReader, source)
        return _of_reader(reader, _described(wanted, scanner, reader), threads)
    if isinstance(source, np.ndarray):
        raise ValueError("an array has no times and places: give it to Driver, or make blocks")
    check_system_wave(wanted.mode, wanted.scanner)
    extracted = list(extracted_blocks(_blocks_of(source), wanted, threads))
    return Extraction(extracted, None, ReadTally(), wanted)


def _blocks_of(source: object) -> Iterator[WaveformBlock]:
    blocks = [source] if isinstance(source, WaveformBlock) else source
    if not isinstance(blocks, Iterable):
        raise ValueError(f"{source!r} is neither the path of a file nor a reader nor blocks")
    for block in blocks:
        if not isinstance(block, WaveformBlock):
            raise ValueError(
                f"{block!r} is no WaveformBlock; several files are extracted one by one"
            )
        yield block


def _scanner(scanner: Scanner | str | os.PathLike[str] | None) -> Scanner:
    if scanner is None:
        return Scanner.default()
    if isinstance(scanner, Scanner):
        return scanner
    if not isinstance(scanner, str | os.PathLike):
        raise ValueError(
            f"scanner {scanner!r} is neither a Scanner nor the path of a description; attributes "
            "are for Scanner.from_attributes"
        )
    return Scanner.from_toml(Path(scanner))


def _described(
    wanted: ExtractionSettings, scanner: object, reader: WaveformReader
) -> ExtractionSettings:
    """The settings, with the scanner that the file carries where none was named."""
    carried = reader.scanner() if scanner is None else None
    settings = wanted if carried is None else replace(wanted, scanner=carried)
    check_system_wave(settings.mode, settings.scanner)
    return settings


def _of_reader(reader: WaveformReader, settings: ExtractionSettings, workers: int) -> Extraction:
    blocks = list(extracted_blocks(reader.blocks(), settings, workers))
    return Extraction(blocks, reader.header, reader.tally, settings)


def _joined(tables: list[_Table]) -> _Table:
    """One table of the rows of all, column by column."""
    return cast(_Table, _joined_dataclasses(tables))


def _joined_dataclasses(tables: list[Any]) -> Any:
    columns = []
    for column in fields(tables[0]):
        parts = [getattr(table, column.name) for table in tables]
        columns.append(
            _joined_dataclasses(parts) if is_dataclass(parts[0]) else np.concatenate(parts)
        )
    return type(tables[0])(*columns)
