"""``fullwaveform extract``: waveforms of a file in, echoes out."""

from __future__ import annotations

import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from rich.console import Console

from fullwaveform.cli.common_options import (
    AfterPulseWindow,
    BlockSize,
    ChannelTexts,
    IntervalNs,
    ModeName,
    NoiseLevel,
    Quiet,
    ScannerFile,
)
from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.cli.extract_options import Wanted
from fullwaveform.cli.messages import counted_messages, tell_unreadable, told_to_people
from fullwaveform.cli.options import (
    after_pulse_from,
    channel_flags_from,
    mode_from,
    refuse_quiet_and_verbose,
    refuse_same_file,
    seconds_from,
    threshold_from,
)
from fullwaveform.cli.progress import progress_of
from fullwaveform.cli.summary import RunSummary
from fullwaveform.extraction.extractor import ExtractionSettings, ExtractionTally, run_metadata
from fullwaveform.extraction.pipeline import available_workers, extracted_blocks, write_echoes
from fullwaveform.io.base import EchoWriter, WaveformReader
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, check_takes_empty, open_echo_file

if TYPE_CHECKING:
    from fullwaveform.cli.cluster import ClusterCall


def extract(
    sources: Annotated[
        list[Path],
        typer.Argument(
            metavar="IN",
            help="LAS, LAZ, PulseWaves .pls, HDF5 scan or .npz; several with --cluster.",
        ),
    ],
    output: Annotated[
        Path,
        typer.Option(
            "-o",
            "--output",
            metavar="OUT",
            help=f"Echoes: {', '.join(ECHO_ENDINGS)}; a folder with --cluster.",
        ),
    ],
    mode: ModeName = "three-point",
    noise: NoiseLevel = "auto",
    scanner: ScannerFile = None,
    channel: ChannelTexts = None,
    after_pulse: AfterPulseWindow = None,
    interval: IntervalNs = None,
    keep_empty: Annotated[
        bool, typer.Option("--keep-empty", help="A row for each waveform without echoes, too.")
    ] = False,
    skip_unreadable: Annotated[
        bool,
        typer.Option(
            "--skip-unreadable", help="Leave out waveforms that cannot be read, and count them."
        ),
    ] = False,
    workers: Annotated[
        int | None,
        typer.Option(
            min=1, help="Threads, or processes with --cluster local; all processors by default."
        ),
    ] = None,
    block: BlockSize = 20_000,
    verbose: Annotated[
        bool,
        typer.Option(
            "-v", "--verbose", help="A line for each waveform left out or without echoes."
        ),
    ] = False,
    quiet: Quiet = False,
    cluster: Annotated[
        str | None,
        typer.Option(
            metavar="ADDRESS|local",
            help="Workers of a Dask scheduler, or new processes here; OUT is a folder of parts.",
        ),
    ] = None,
    resume: Annotated[
        bool, typer.Option("--resume", help="Continue the run whose parts are in the folder OUT.")
    ] = False,
    unit_blocks: Annotated[
        int | None,
        typer.Option(min=1, help="Blocks of a part, at most; some minutes of work by default."),
    ] = None,
    part_format: Annotated[
        str | None, typer.Option(metavar="ENDING", help="Kind of the parts; parquet by default.")
    ] = None,
) -> None:
    """Extract echoes from the waveforms of a file.

    Worked examples:

        fullwaveform extract scan.las -o echoes.las --noise 20

        fullwaveform extract scan.las -o echoes.parquet --mode decomposition --keep-empty

        fullwaveform extract scan.las -o echoes.csv --channel 2=high --workers 2 --verbose

        fullwaveform extract scan.las -o parts --cluster local --workers 2
    """
    call: _Call | ClusterCall
    left: Callable[[], str] | None = None
    if cluster is None:
        _check_that_no_cluster_is_needed(
            sources,
            {"--resume": resume, "--unit-blocks": unit_blocks, "--part-format": part_format},
        )
        threads = workers or available_workers()
        call = _Call(sources[0], output, keep_empty, threads, verbose, quiet)
    else:
        from fullwaveform.cli.cluster import ClusterCall  # loaded when it is wanted

        call = ClusterCall(
            sources=sources,
            folder=output,
            address=cluster,
            resume=resume,
            unit_blocks=unit_blocks,
            part_format=part_format or "parquet",
            workers=workers,
            keep_empty=keep_empty,
            verbose=verbose,
            quiet=quiet,
        )
        left = call.left
    call.check()
    wanted = Wanted(
        mode=mode_from(mode),
        threshold=threshold_from(noise),
        scanner=scanner,
        after_pulse=after_pulse_from(after_pulse),
        keep_empty=keep_empty,
        channels=channel_flags_from(channel or []),
        interval=seconds_from(interval),
        skip_unreadable=skip_unreadable,
        block=block,
    )
    with told_in_a_sentence(left):
        summary = call.run(wanted)
        if not quiet:
            summary.show(Console())


def _check_that_no_cluster_is_needed(sources: list[Path], options: Mapping[str, object]) -> None:
    if len(sources) > 1:
        raise typer.BadParameter(
            f"{len(sources)} files are extracted together with --cluster only", param_hint="IN"
        )
    for name, value in options.items():
        if value:
            raise typer.BadParameter("is for a run with --cluster", param_hint=name)


@dataclass(frozen=True)
class _Call:
    """What of a call is about the run, not about the echoes."""

    source: Path
    output: Path
    keep_empty: bool
    workers: int
    verbose: bool
    quiet: bool

    def check(self) -> None:
        """Refuses what contradicts itself; the input is never overwritten."""
        refuse_same_file(self.source, self.output, "-o")
        refuse_quiet_and_verbose(self.quiet, self.verbose)
        try:
            check_takes_empty(self.output, self.keep_empty)
        except ValueError as error:
            raise typer.BadParameter(str(error), param_hint="-o") from error

    def run(self, wanted: Wanted) -> RunSummary:
        """Extracts the file."""
        with wanted.opened(self.source) as reader:
            wanted.channels.check({self.source: reader.channel_numbers})
            return _run(reader, wanted.settings([reader.scanner()]), self)

    @property
    def statistics(self) -> Path:
        """Where the statistics of suspicious blocks are appended."""
        return self.output.absolute().parent / f"{self.source.stem}_Warning.txt"


def _check_that_some_have_a_place(tally: ExtractionTally, writer: EchoWriter) -> None:
    if tally.echoes > 0 and writer.count == 0:
        raise ValueError(
            f"{writer.path} would be empty: none of the {tally.echoes:,} echoes has a place in "
            "space that it can hold; a table (.csv, .parquet, .h5) holds echoes without a place"
        )


def _run(reader: WaveformReader, settings: ExtractionSettings, call: _Call) -> RunSummary:
    began = time.perf_counter()
    writer = open_echo_file(call.output, reader.header, run_metadata(settings))
    tell_unreadable(reader, call.verbose)
    with (
        writer,
        progress_of(reader, call.quiet) as blocks,
        counted_messages(call.verbose) as messages,
    ):
        tally = write_echoes(
            extracted_blocks(blocks, settings, call.workers),
            writer,
            statistics=call.statistics,
            on_rejected=told_to_people if call.verbose else None,
        )
        _check_that_some_have_a_place(tally, writer)
    return RunSummary(
        name=reader.path.name,
        destination=call.output,
        settings=settings,
        read=reader.tally,
        extracted=tally,
        written=writer.count,
        notes=writer.notes(),
        messages=messages,
        statistics=call.statistics,
        seconds=time.perf_counter() - began,
    )
