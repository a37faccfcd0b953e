"""What a job is made of: its settings, its inputs, its parts and what became of them."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field
from typing import ClassVar

from fullwaveform.cluster.inputs import InputFile
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.data.blocks import ReadTally
from fullwaveform.extraction.extractor import ExtractionTally

#: Version of the manifest's form.
MANIFEST_VERSION = 1
MANIFEST_NAME = "manifest.json"


@dataclass
class PartOutcome:
    """What was met and written in a part, or in several together."""

    rows: int = 0  # of the part file
    waveforms: int = 0
    written: int = 0  # what the summary calls written
    not_representable: int = 0  # echoes that a LAS file could not hold
    saturated_return_numbers: int = 0  # shots with more echoes than a return number can say
    bytes: int = 0  # of the part file
    read: ReadTally = field(default_factory=ReadTally)
    extracted: ExtractionTally = field(default_factory=ExtractionTally)
    messages: Counter[str] = field(default_factory=Counter)  # of the library, by kind
    record: str = ""  # statistics of suspicious blocks

    def add(self, other: PartOutcome) -> None:
        """Count what the other one counted as well."""
        self.rows += other.rows
        self.waveforms += other.waveforms
        self.written += other.written
        self.not_representable += other.not_representable
        self.saturated_return_numbers += other.saturated_return_numbers
        self.bytes += other.bytes
        self.read += other.read
        self.extracted.add(other.extracted)
        self.messages.update(other.messages)
        self.record += other.record


@dataclass
class Part:
    """A file or a range of its blocks, and the part file with its echoes."""

    WAITING: ClassVar[str] = "waiting"
    DONE: ClassVar[str] = "done"
    FAILED: ClassVar[str] = "failed"

    number: int
    input: int  # index of the file among the inputs
    first: int  # block
    stop: int | None  # the block behind the last one; None: to the end of the file
    file: str  # name of the part in the folder of the manifest
    state: str = WAITING
    trouble: str = ""  # why it failed, a sentence
    outcome: PartOutcome | None = None  # where it is done

    def finish(self, outcome: PartOutcome) -> None:
        """Mark the part as written."""
        self.state, self.trouble, self.outcome = self.DONE, "", outcome

    def fail(self, sentence: str) -> None:
        """Mark the part as one that could not be written."""
        self.state, self.trouble, self.outcome = self.FAILED, sentence, None

    def forget(self) -> None:
        """Mark the part as one to be done."""
        self.state, self.trouble, self.outcome = self.WAITING, "", None


@dataclass
class Manifest:
    """A job: what it is to do, and how far it is."""

    manifest_version: int
    package_version: str
    settings: JobSettings
    inputs: list[InputFile]
    parts: list[Part]
    seconds: float = 0.0  # that its runs took together

    def unfinished(self) -> list[Part]:
        """The parts that are still to be written, in their order."""
        return [part for part in self.parts if part.state != Part.DONE]

    def total(self) -> PartOutcome:
        """What the finished parts met and wrote together, in their order."""
        total = PartOutcome()
        for part in self.parts:
            if part.outcome is not None:
                total.add(part.outcome)
        return total
