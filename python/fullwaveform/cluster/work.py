"""What a worker runs: plain data in, a part file and plain data out.

Nothing is kept from one unit to the next, and a unit done again writes the same bytes, so that it
does not matter how often or where it is done.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from fullwaveform import __version__
from fullwaveform.cluster.inputs import FileState, check_states
from fullwaveform.cluster.manifest import MANIFEST_NAME, PartOutcome
from fullwaveform.cluster.message_counts import messages_of_this_thread
from fullwaveform.cluster.plain import from_plain, to_plain
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.extraction.extractor import ExtractedBlock, run_metadata
from fullwaveform.extraction.pipeline import extracted_blocks, write_echoes
from fullwaveform.io.base import EchoWriter, WaveformReader
from fullwaveform.io.echo_writers.las import LasEchoWriter
from fullwaveform.io.echo_writers.opening import open_echo_file
from fullwaveform.io.opening import open_waveforms

Plain = dict[str, Any]


class _UnfitWorkerError(Exception):
    """This worker cannot work on the job, whatever the unit."""


@dataclass(frozen=True)
class Unit:
    """A file or a range of its blocks, and where its echoes go; paths are absolute."""

    package_version: str
    settings: JobSettings
    path: str
    files: list[FileState]
    first: int
    stop: int | None
    output: str


def count_blocks(unit: Plain) -> Plain:
    """The number of blocks of a file, under ``blocks``, or what `_told` says."""
    return _told(unit, _count_blocks)


def extract_unit(unit: Plain) -> Plain:
    """Write the part of a unit; its outcome as plain data, or what `_told` says."""
    return _told(unit, _extract_unit)


def _told(plain: Plain, work: Callable[[Unit], Plain]) -> Plain:
    """What the work gives, or ``trouble``: a sentence.

    Under ``ends_the_job`` stands whether it is one that other units would meet as well: with disks,
    folders and memory, not with the content of a file.
    """
    path = str(plain.get("path"))
    try:
        unit = from_plain(Unit, plain, "unit")
        _check_version(unit)
        check_states(Path(unit.path), unit.files)
        return work(unit)
    except OSError as error:
        where = f"{error.filename}: " if error.filename and error.strerror else ""
        return _trouble(path, f"{where}{error.strerror or error}", ends_the_job=True)
    except _UnfitWorkerError as error:
        return _trouble(path, str(error), ends_the_job=True)
    except MemoryError:
        sentence = "not enough memory for one block of waveforms; try a smaller --block"
        return _trouble(path, sentence, ends_the_job=True)
    except ValueError as error:
        return _trouble(path, str(error), ends_the_job=False)


def _trouble(path: str, sentence: str, *, ends_the_job: bool) -> Plain:
    named = sentence if path in sentence else f"{path}: {sentence}"
    return {"trouble": named, "ends_the_job": ends_the_job}


def _check_version(unit: Unit) -> None:
    if unit.package_version != __version__:
        raise _UnfitWorkerError(
            f"a worker has version {__version__} of fullwaveform, the job is of "
            f"version {unit.package_version}; all machines must have the same"
        )


def _opened(unit: Unit) -> WaveformReader:
    return open_waveforms(
        unit.path,
        waveforms_per_block=unit.settings.block,
        channel_flags=unit.settings.flags(),
        sampling_interval=unit.settings.sampling_interval,
        skip_unreadable=unit.settings.skip_unreadable,
    )


def _count_blocks(unit: Unit) -> Plain:
    with _opened(unit) as reader:
        return {"blocks": reader.block_count()}


def _extract_unit(unit: Unit) -> Plain:
    output = Path(unit.output)
    if not (output.parent / MANIFEST_NAME).is_file():
        raise _UnfitWorkerError(
            f"{output.parent} on a worker is not the folder of the job: all machines must see the "
            "same one under this name"
        )
    outcome = PartOutcome()
    with messages_of_this_thread() as messages, _opened(unit) as reader:
        blocks = reader.blocks(unit.first, unit.stop)
        settings = unit.settings.extraction()
        writer = open_echo_file(output, reader.header, run_metadata(settings))
        with writer:
            extracted = extracted_blocks(blocks, settings)
            outcome.extracted = write_echoes(_noted(extracted, outcome), writer)
        outcome.read, outcome.messages = reader.tally, messages
    outcome.waveforms = outcome.read.waveforms
    _enter_writer(outcome, writer)
    outcome.bytes = output.stat().st_size
    return {"outcome": to_plain(outcome)}


def _noted(extracted: Iterable[ExtractedBlock], outcome: PartOutcome) -> Iterator[ExtractedBlock]:
    for block in extracted:
        outcome.rows += len(block.echoes)
        outcome.record += block.record
        yield block


def _enter_writer(outcome: PartOutcome, writer: EchoWriter) -> None:
    outcome.written = writer.count
    if not writer.takes_empty:
        outcome.rows = writer.count
    if isinstance(writer, LasEchoWriter):
        outcome.not_representable = writer.not_representable
        outcome.saturated_return_numbers = writer.saturated_return_numbers
