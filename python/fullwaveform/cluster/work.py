"""What a worker runs: JSON text in, a part file and JSON text out.

A unit has no persistent state, and repeating it writes the same bytes, so it does not matter how
often or where it runs.
"""

from __future__ import annotations

import time
from collections.abc import Callable, Iterable, Iterator
from contextlib import closing
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path

from pydantic import TypeAdapter

from fullwaveform import __version__
from fullwaveform.calibration.calibration import Calibration, measure
from fullwaveform.cluster.checksums import checksum
from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.inputs import FileState, InputFile, check_states
from fullwaveform.cluster.json_data import STRICT, from_json
from fullwaveform.cluster.manifest import Manifest, Part, PartOutcome, PartRecord
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.core.messages import counted_messages
from fullwaveform.data.errors import describe, naming
from fullwaveform.extraction.extractor import ExtractedBlock
from fullwaveform.extraction.pipeline import extracted_blocks, write_echoes
from fullwaveform.extraction.run_metadata import run_metadata
from fullwaveform.io.atomic import ANY_FILE, protected_inputs
from fullwaveform.io.base import WaveformReader
from fullwaveform.io.block_range import BlockStart
from fullwaveform.io.echo_writers.echo_writer import EchoWriter
from fullwaveform.io.echo_writers.las import LasEchoWriter
from fullwaveform.io.echo_writers.opening import echo_outputs, open_echo_file
from fullwaveform.io.opening import open_waveforms
from fullwaveform.io.remote import location


class _WorkerError(Exception):
    """This worker cannot run any unit."""


@dataclass(frozen=True)
class Unit:
    """A file or a range of its blocks, and the part to write; paths are absolute."""

    __pydantic_config__ = STRICT

    package_version: str
    settings: JobSettings
    path: str
    files: list[FileState]
    first: int = 0
    stop: int | None = None
    folder: str = ""  # of the run
    part: str = ""  # name of the part file
    calibration: Calibration = field(default_factory=Calibration)  # of the file
    start: BlockStart = field(default_factory=BlockStart)  # at or before the first block


@dataclass
class UnitResult:
    """The result of a unit: blocks and calibration of its file, or its part, or an error."""

    __pydantic_config__ = STRICT

    blocks: int | None = None
    calibration: Calibration | None = None
    starts: list[BlockStart] = field(default_factory=list)  # of the parts of its file
    outcome: PartOutcome | None = None
    error: str = ""
    ends_run: bool = False  # the error is of disk, folder, memory or worker: others would meet it
    lost_workers: bool = False  # the error may be that of another unit


_UNIT = TypeAdapter(Unit)
_RESULT = TypeAdapter(UnitResult)


def file_unit(manifest: Manifest, source: InputFile) -> str:
    """The unit of a whole input, to count its blocks, as JSON."""
    unit = Unit(manifest.package_version, manifest.settings, source.path, source.files)
    return _UNIT.dump_json(unit).decode()


def part_unit(manifest: Manifest, part: Part, folder: JobFolder) -> str:
    """The unit that writes a part into the folder, as JSON."""
    source = manifest.inputs[part.input]
    unit = Unit(
        manifest.package_version,
        manifest.settings,
        source.path,
        source.files,
        first=part.first,
        stop=part.stop,
        folder=str(folder),
        part=part.file,
        calibration=source.calibration,
        start=source.start_of(part.first),
    )
    return _UNIT.dump_json(unit).decode()


def read_result(text: str) -> UnitResult:
    """The result from JSON; ValueError if it is none."""
    return from_json(_RESULT, text, "result of a worker")


def count_blocks(unit: str) -> str:
    """The result of a unit with the number of blocks of its file, both as JSON."""
    return _RESULT.dump_json(_run(unit, _count_blocks)).decode()


def extract_unit(unit: str, threads: int = 1) -> str:
    """Write the part of a unit and its record; the result with its outcome, both as JSON."""
    return _RESULT.dump_json(_run(unit, partial(_extract_unit, threads=threads))).decode()


def _run(text: str, work: Callable[[Unit], UnitResult]) -> UnitResult:
    unit = from_json(_UNIT, text, "unit")
    try:
        _check_version(unit)
        return work(unit)
    except (OSError, MemoryError, _WorkerError) as error:
        return UnitResult(error=naming(unit.path, describe(error)), ends_run=True)
    except ValueError as error:
        return UnitResult(error=naming(unit.path, str(error)))


def _check_version(unit: Unit) -> None:
    if unit.package_version != __version__:
        raise _WorkerError(
            f"a worker has fullwaveform {__version__}, the run needs "
            f"{unit.package_version}; install the same version on all machines"
        )


def _opened(unit: Unit) -> WaveformReader:
    check_states(location(unit.path), unit.files)
    return open_waveforms(
        unit.path,
        waveforms_per_block=unit.settings.block,
        channel_flags=unit.settings.flags(),
        sampling_interval=unit.settings.sampling_interval,
        skip_unreadable=unit.settings.skip_unreadable,
        max_samples=unit.settings.max_samples,
        keep_degraded=unit.settings.keep_degraded,
        crs=unit.settings.crs,
    )


def _count_blocks(unit: Unit) -> UnitResult:
    with _opened(unit) as reader:
        calibration = measure(reader, unit.settings.outgoing_phase, unit.settings.pulse)
        starts = reader.block_starts()
        known = [start for start in starts[:: unit.settings.blocks_per_part] if start.place]
        return UnitResult(blocks=len(starts), calibration=calibration, starts=known)


def _extract_unit(unit: Unit, threads: int) -> UnitResult:
    folder = JobFolder(unit.folder)
    if not folder.has_manifest:
        raise _WorkerError(
            f"{folder} on a worker is not the folder of the run; all machines must share it "
            "under the same path"
        )
    try:
        with folder.writing() as path:
            outcome = _written_part(unit, path / unit.part, threads)
    except ValueError as error:
        folder.write_record(unit.part, PartRecord(error=naming(unit.path, str(error))))
        raise
    folder.write_record(unit.part, PartRecord(outcome))
    return UnitResult(outcome=outcome)


def _written_part(unit: Unit, output: Path, threads: int) -> PartOutcome:
    start = time.perf_counter()
    outcome = PartOutcome()
    with (
        protected_inputs(location(unit.path)),
        counted_messages(own_thread=threads == 1) as messages,
        _opened(unit) as reader,
    ):
        settings = replace(unit.settings.extraction(), calibration=unit.calibration)
        reader.with_outgoing = unit.calibration.needs_outgoing
        blocks = reader.blocks(unit.first, unit.stop, unit.start)
        writer = open_echo_file(
            output,
            reader.header,
            run_metadata(settings, reader.paths),
            carry=settings.carry,
            with_waveforms=settings.with_waveforms,
            shot_columns=reader.shot_columns,
            overwrite=True,
        )
        writer.kind = ANY_FILE  # a part that was left by an earlier run may be truncated
        with writer, closing(extracted_blocks(blocks, settings, threads)) as extracted:
            outcome.extracted = write_echoes(_counted(extracted, outcome), writer)
        outcome.read, outcome.messages = reader.tally, messages
    outcome.waveforms = outcome.read.waveforms
    _add_writer_counts(outcome, writer)
    names = echo_outputs(output, settings.with_waveforms)
    outcome.files = {path.name: path.stat().st_size for path in names}
    outcome.checksums = {path.name: checksum(path) for path in names}
    outcome.seconds = round(time.perf_counter() - start, 3)
    return outcome


def _counted(extracted: Iterable[ExtractedBlock], outcome: PartOutcome) -> Iterator[ExtractedBlock]:
    for block in extracted:
        outcome.rows += len(block.echoes)
        outcome.statistics += block.record
        yield block


def _add_writer_counts(outcome: PartOutcome, writer: EchoWriter) -> None:
    outcome.written = writer.count
    if not writer.takes_empty:
        outcome.rows = writer.count
    if isinstance(writer, LasEchoWriter):
        outcome.not_representable = writer.not_representable
        outcome.saturated_return_numbers = writer.saturated_return_numbers
        outcome.padded = writer.padded
