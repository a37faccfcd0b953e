"""A run: its settings, inputs, parts and their outcomes."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field
from typing import ClassVar

from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.json_data import STRICT
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.data.blocks import ReadTally
from fullwaveform.extraction.extractor import ExtractionTally

#: Version of the manifest's layout.
MANIFEST_VERSION = 3
MANIFEST_NAME = "manifest.json"


@dataclass
class PartOutcome:
    """Counts of a part, or of several together."""

    rows: int = 0  # of the part file
    waveforms: int = 0
    written: int = 0  # rows that the summary counts as written
    not_representable: int = 0  # echoes that a LAS file could not hold
    saturated_return_numbers: int = 0  # shots with more echoes than a return number can count
    padded: int = 0  # waveforms with samples added, because a LAS file holds few lengths
    files: dict[str, int] = field(default_factory=dict)  # bytes of the part file and its companion
    checksums: dict[str, str] = field(default_factory=dict)  # CRC-32 of these files
    seconds: float = 0.0  # time of the units
    read: ReadTally = field(default_factory=ReadTally)
    extracted: ExtractionTally = field(default_factory=ExtractionTally)
    messages: Counter[str] = field(default_factory=Counter)  # of the library, by kind
    statistics: str = ""  # of suspicious blocks

    def add(self, other: PartOutcome) -> None:
        """Add the counts of another part."""
        self.rows += other.rows
        self.waveforms += other.waveforms
        self.written += other.written
        self.not_representable += other.not_representable
        self.saturated_return_numbers += other.saturated_return_numbers
        self.padded += other.padded
        self.files |= other.files
        self.checksums |= other.checksums
        self.seconds += other.seconds
        self.read += other.read
        self.extracted.add(other.extracted)
        self.messages.update(other.messages)
        self.statistics += other.statistics


@dataclass(frozen=True)
class PartRecord:
    """How writing a part ended: with an outcome or an error."""

    __pydantic_config__ = STRICT

    outcome: PartOutcome | None = None
    error: str = ""


@dataclass
class Part:
    """A range of blocks of a file, and the part file with its echoes."""

    WAITING: ClassVar[str] = "waiting"
    DONE: ClassVar[str] = "done"
    FAILED: ClassVar[str] = "failed"
    SKIPPED: ClassVar[str] = "skipped"  # failed, and the result is used without it

    number: int
    input: int  # index of the file among the inputs
    first: int  # block
    stop: int | None  # block after the last one; None: to the end of the file
    file: str  # name in the folder of the manifest
    state: str = WAITING
    error: str = ""  # of a failed part
    outcome: PartOutcome | None = None  # of a finished part

    def finish(self, outcome: PartOutcome) -> None:
        """Mark the part as written."""
        self.state, self.error, self.outcome = self.DONE, "", outcome

    def fail(self, error: str) -> None:
        """Mark the part as failed."""
        self.state, self.error, self.outcome = self.FAILED, error, None

    def reset(self, error: str = "") -> None:
        """Mark the part as not yet written, or as to be written again because of an error."""
        self.state, self.error, self.outcome = self.WAITING, error, None


@dataclass
class Manifest:
    """A run, and the outcomes that were collected so far."""

    __pydantic_config__ = STRICT

    manifest_version: int
    package_version: str
    settings: JobSettings
    inputs: list[InputFile]
    parts: list[Part]

    def unfinished(self) -> list[Part]:
        """The parts that are not written yet, in order."""
        finished = (Part.DONE, Part.SKIPPED)
        return [part for part in self.parts if part.state not in finished]

    def failures(self) -> list[str]:
        """The different error messages of failed and skipped parts."""
        return list(dict.fromkeys(part.error for part in self.parts if part.error))

    def skip_failed(self) -> None:
        """Mark failed parts as skipped, so that the run is finished without them."""
        for part in self.parts:
            if part.state == Part.FAILED:
                part.state = Part.SKIPPED

    def total(self) -> PartOutcome:
        """The counts of all finished parts, notes and statistics in order."""
        total = PartOutcome()
        for part in self.parts:
            if part.outcome is not None:
                total.add(part.outcome)
        return total
