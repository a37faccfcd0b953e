"""Extraction of one file."""

from __future__ import annotations

import time
from collections import Counter
from collections.abc import Callable, Sequence
from contextlib import closing
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path
from typing import TYPE_CHECKING

from fullwaveform.calibration.calibration import measure
from fullwaveform.cli.extract_options import ExtractOptions
from fullwaveform.cli.progress import followed_blocks
from fullwaveform.cli.summary import RunSummary
from fullwaveform.core.driver import RunMonitor
from fullwaveform.data.counting import counted
from fullwaveform.extraction.extractor import ExtractionTally
from fullwaveform.extraction.pipeline import extracted_blocks, write_echoes
from fullwaveform.extraction.run_metadata import run_metadata
from fullwaveform.extraction.warning_file import warning_path
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.opening import open_echo_file
from fullwaveform.io.remote import is_remote

if TYPE_CHECKING:
    from fullwaveform.cli.progress import RunProgress


@dataclass(frozen=True)
class FileRun:
    """How the files of a run are extracted."""

    options: ExtractOptions
    workers: int  # threads of each file
    overwrite: bool
    progress: RunProgress
    quiet: bool
    # Called with input and text for each waveform that is skipped or without echoes.
    on_waveform: Callable[[Path, str], None] | None
    monitors: list[RunMonitor] = field(default_factory=list)  # of the files begun so far

    def cancel(self) -> None:
        """End the files in progress, also within a block."""
        for monitor in self.monitors:
            monitor.cancel()

    def extract(self, sources: Sequence[Path], output: Path) -> RunSummary:
        """Write the echoes of a file, or of several that are read as one.

        The summary has no messages of the library.

        Raises
        ------
        OSError, ValueError
            The input cannot be read or is invalid, the output cannot be written or would be empty.
        typer.BadParameter
            The file has no channel that an option names.
        """
        start = time.perf_counter()
        monitor = RunMonitor()
        self.monitors.append(monitor)
        options, source = self.options, sources[0]
        with options.open(sources) as reader:
            settings = options.settings([reader.scanner()])
            calibration = measure(reader, options.outgoing_phase, settings.pulses)
            settings = replace(settings, calibration=calibration)
            writer = open_echo_file(
                output,
                reader.header,
                run_metadata(settings, reader.paths),
                carry=settings.carry,
                with_waveforms=settings.with_waveforms,
                shot_columns=reader.shot_columns,
                overwrite=self.overwrite,
            )
            each = None if self.on_waveform is None else partial(self.on_waveform, source)
            reader.on_unreadable = each
            statistics = warning_path(_statistics_folder(output), source)
            with (
                writer,
                followed_blocks(reader, self.progress, self.quiet, monitor) as blocks,
                closing(extracted_blocks(blocks, settings, self.workers, monitor)) as extracted,
            ):
                tally = write_echoes(
                    extracted,
                    writer,
                    statistics=statistics,
                    on_rejected=each,
                )
                if not options.allow_empty:
                    _check_not_empty(tally, options, writer)
        return RunSummary(
            name=source.name,
            destination=output,
            settings=settings,
            read=reader.tally,
            extracted=tally,
            calibrations={source.name: settings.calibration},
            written=writer.count,
            notes=writer.notes(),
            messages=Counter(),
            statistics=statistics,
            seconds=time.perf_counter() - start,
        )


def _statistics_folder(output: Path) -> Path:
    """Where the output is; the current folder for a URL, to which nothing can be appended."""
    return Path.cwd() if is_remote(output) else output.absolute().parent


def _check_not_empty(tally: ExtractionTally, options: ExtractOptions, writer: EchoWriter) -> None:
    if writer.count > 0 or (options.keep_empty and tally.waveforms > 0):
        return
    if tally.echoes > 0:
        raise ValueError(
            f"{writer.path} would be empty: none of the {tally.echoes:,} echoes has coordinates "
            "that it can hold; write a table (.csv, .parquet, .h5) instead"
        )
    reasons = ", ".join(f"{count:,} x {reason}" for reason, count in tally.rejected.items())
    raise ValueError(
        f"{writer.path} would be empty: no echoes in {counted(tally.waveforms, 'waveform')}"
        f"{f' ({reasons})' if reasons else ''}; {options.more_echoes}, or --allow-empty"
    )
