"""``fullwaveform extract``: waveforms of a file in, echoes out."""

from __future__ import annotations

import time
from dataclasses import dataclass
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console

from fullwaveform.cli.messages import counted_messages
from fullwaveform.cli.options import after_pulse_from, channel_flags_from, mode_from, noise_from
from fullwaveform.cli.progress import progress_of
from fullwaveform.cli.summary import RunSummary
from fullwaveform.cli.trouble import told_in_a_sentence
from fullwaveform.driver import check_system_wave
from fullwaveform.extraction import ExtractionSettings
from fullwaveform.formats.echo_files import ECHO_ENDINGS, check_takes_empty, open_echo_file
from fullwaveform.formats.opening import WaveformReader, open_waveforms
from fullwaveform.pipeline import available_workers, extracted_blocks, write_echoes
from fullwaveform.scanner import AfterPulse, Scanner


def extract(
    source: Annotated[
        Path,
        typer.Argument(metavar="IN", help="LAS, LAZ, PulseWaves .pls, HDF5 scan or .npz."),
    ],
    output: Annotated[
        Path,
        typer.Option("-o", "--output", metavar="OUT", help=f"Echoes: {', '.join(ECHO_ENDINGS)}."),
    ],
    mode: Annotated[
        str, typer.Option(help="three-point, decomposition, deconvolution, hybrid, or 0 to 3.")
    ] = "three-point",
    noise: Annotated[
        str, typer.Option(help="Noise level in counts; auto estimates it for every waveform.")
    ] = "auto",
    scanner: Annotated[
        Path | None,
        typer.Option(help="Scanner description (TOML, attribute names as keys)."),
    ] = None,
    channel: Annotated[
        list[str] | None,
        typer.Option(
            help="Channel of all packets (low, high) or of a descriptor (2=high); else low."
        ),
    ] = None,
    after_pulse: Annotated[
        str | None,
        typer.Option(metavar="OFFSET,WIDTH", help="After-pulse window in samples, or off."),
    ] = None,
    keep_empty: Annotated[
        bool, typer.Option("--keep-empty", help="A row for each waveform without echoes, too.")
    ] = False,
    workers: Annotated[
        int | None, typer.Option(min=1, help="Threads that extract; all processors by default.")
    ] = None,
    block: Annotated[
        int, typer.Option(min=1, help="Waveforms per block: what is in memory at a time.")
    ] = 20_000,
    verbose: Annotated[
        bool, typer.Option("-v", "--verbose", help="A line for each waveform without echoes.")
    ] = False,
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="No progress, no summary.")] = False,
) -> None:
    """Extract echoes from the waveforms of a file.

    Worked examples:

        fullwaveform extract scan.las -o echoes.las --noise 20

        fullwaveform extract scan.las -o echoes.parquet --mode decomposition --keep-empty

        fullwaveform extract scan.las -o echoes.csv --channel 2=high --workers 2 --verbose
    """
    call = _Call(source, output, keep_empty, workers or available_workers(), block, verbose, quiet)
    call.check()
    chosen_mode, level = mode_from(mode), noise_from(noise)
    channels = channel_flags_from(channel or [])
    chosen_after_pulse = after_pulse_from(after_pulse)
    with told_in_a_sentence():
        settings = ExtractionSettings(
            scanner=_scanner(scanner, chosen_after_pulse),
            mode=chosen_mode,
            noise=level,
            keep_empty=keep_empty,
        )
        check_system_wave(settings.mode, settings.scanner)
        with open_waveforms(source, waveforms_per_block=block, channel_flags=channels) as reader:
            summary = _run(reader, settings, call)
        if not quiet:
            summary.show(Console())


@dataclass(frozen=True)
class _Call:
    """What of a call is about the run, not about the echoes."""

    source: Path
    output: Path
    keep_empty: bool
    workers: int
    block: int
    verbose: bool
    quiet: bool

    def check(self) -> None:
        """Refuses what contradicts itself; the input is never overwritten."""
        if self.output.exists() and self.source.exists() and self.output.samefile(self.source):
            raise typer.BadParameter(f"{self.output} is the input itself", param_hint="-o")
        if self.quiet and self.verbose:
            raise typer.BadParameter("contradicts --verbose", param_hint="--quiet")
        try:
            check_takes_empty(self.output, self.keep_empty)
        except ValueError as error:
            raise typer.BadParameter(str(error), param_hint="-o") from error

    @property
    def statistics(self) -> Path:
        """Where the statistics of suspicious blocks are appended."""
        return self.output.absolute().parent / f"{self.source.stem}_Warning.txt"


def _scanner(path: Path | None, after_pulse: AfterPulse | None) -> Scanner:
    if path is None:
        return Scanner.default(after_pulse=after_pulse)
    return Scanner.from_toml(path, after_pulse=after_pulse)


def _run(reader: WaveformReader, settings: ExtractionSettings, call: _Call) -> RunSummary:
    began = time.perf_counter()
    writer = open_echo_file(call.output, reader.header)
    with (
        writer,
        progress_of(reader, call.quiet) as blocks,
        counted_messages(call.verbose) as messages,
    ):
        tally = write_echoes(
            extracted_blocks(blocks, settings, call.workers),
            writer,
            statistics=call.statistics,
            each=(lambda sentence: typer.echo(sentence, err=True)) if call.verbose else None,
        )
    return RunSummary(
        source=reader.path,
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
