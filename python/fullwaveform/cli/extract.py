"""``fullwaveform extract``: waveforms of a file in, echoes out."""

from __future__ import annotations

import time
from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console
from rich.progress import BarColumn, Progress, TaskProgressColumn, TextColumn, TimeRemainingColumn

from fullwaveform.cli.options import after_pulse_from, channel_flags_from, mode_from, noise_from
from fullwaveform.cli.summary import RunSummary
from fullwaveform.cli.trouble import told_in_a_sentence
from fullwaveform.driver import check_system_wave
from fullwaveform.extraction import ExtractionSettings, ExtractionTally, Extractor
from fullwaveform.formats.csv_writer import CsvEchoWriter
from fullwaveform.formats.las_writer import LasEchoWriter
from fullwaveform.formats.opening import WaveformReader, open_waveforms
from fullwaveform.scanner import AfterPulse, Scanner

EchoWriter = LasEchoWriter | CsvEchoWriter


def extract(
    source: Annotated[
        Path,
        typer.Argument(metavar="IN", help="LAS file with waveform packets, or PulseWaves .pls."),
    ],
    output: Annotated[
        Path, typer.Option("-o", "--output", metavar="OUT", help="Echoes as .las or .csv.")
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
    block: Annotated[
        int, typer.Option(min=1, help="Waveforms per block: what is in memory at a time.")
    ] = 20_000,
    quiet: Annotated[bool, typer.Option("-q", "--quiet", help="No progress, no summary.")] = False,
) -> None:
    """Extract echoes from the waveforms of a LAS or PulseWaves file.

    Example: fullwaveform extract scan.las -o echoes.las --mode 0 --noise 20
    """
    chosen_mode, level = mode_from(mode), noise_from(noise)
    channels = channel_flags_from(channel or [])
    chosen_after_pulse = after_pulse_from(after_pulse)
    writer_of = _writer_for(output, source)
    with told_in_a_sentence():
        settings = ExtractionSettings(
            scanner=_scanner(scanner, chosen_after_pulse),
            mode=chosen_mode,
            noise=level,
            report_directory=output.absolute().parent,
            input_file=source.name,
        )
        check_system_wave(settings.mode, settings.scanner)
        with open_waveforms(source, waveforms_per_block=block, channel_flags=channels) as reader:
            summary = _run(reader, writer_of, output, settings, quiet)
        if not quiet:
            summary.show(Console())


def _scanner(path: Path | None, after_pulse: AfterPulse | None) -> Scanner:
    if path is None:
        return Scanner.default(after_pulse=after_pulse)
    return Scanner.from_toml(path, after_pulse=after_pulse)


def _writer_for(output: Path, source: Path) -> type[LasEchoWriter] | type[CsvEchoWriter]:
    """Kind of writer by the output's extension; the input is never overwritten."""
    if output.exists() and source.exists() and output.samefile(source):
        raise typer.BadParameter(f"{output} is the input itself", param_hint="-o")
    kinds: dict[str, type[LasEchoWriter] | type[CsvEchoWriter]] = {
        ".las": LasEchoWriter,
        ".csv": CsvEchoWriter,
    }
    kind = kinds.get(output.suffix.lower())
    if kind is None:
        raise typer.BadParameter(f"{output} must end in {' or '.join(kinds)}", param_hint="-o")
    return kind


def _run(
    reader: WaveformReader,
    writer_of: type[LasEchoWriter] | type[CsvEchoWriter],
    output: Path,
    settings: ExtractionSettings,
    quiet: bool,
) -> RunSummary:
    began = time.perf_counter()
    extractor = Extractor(settings)
    writer: EchoWriter = (
        LasEchoWriter(output, reader.header)
        if writer_of is LasEchoWriter
        else CsvEchoWriter(output)
    )
    with writer, _progress(quiet) as progress:
        task = progress.add_task(reader.path.name, total=reader.point_count)
        for waveforms in reader.blocks():
            writer.write(extractor.extract(waveforms))
            progress.update(task, completed=reader.points_done)
        progress.update(task, completed=reader.points_done)
    return RunSummary(
        source=reader.path,
        destination=output,
        settings=settings,
        read=reader.tally,
        extracted=extractor.tally,
        written=writer.count,
        write_notes=_write_notes(writer, extractor.tally),
        seconds=time.perf_counter() - began,
    )


def _progress(quiet: bool) -> Progress:
    console = Console(stderr=True)
    return Progress(
        TextColumn("{task.description}"),
        BarColumn(),
        TaskProgressColumn(),
        TextColumn("{task.completed:,.0f} points"),
        TimeRemainingColumn(),
        console=console,
        disable=quiet or not console.is_terminal,
    )


def _write_notes(writer: EchoWriter, tally: ExtractionTally) -> tuple[str, ...]:
    notes = []
    if isinstance(writer, LasEchoWriter):
        if writer.not_representable:
            notes.append(
                f"{writer.not_representable:,} of {tally.echoes:,} echoes left out: their "
                "coordinates do not fit the file's scale and offset"
            )
        if writer.saturated_return_numbers:
            notes.append(
                f"{writer.saturated_return_numbers:,} shots have more echoes than a return "
                "number can say; the numbers stop at the largest"
            )
    return tuple(notes)
