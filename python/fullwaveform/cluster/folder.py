"""The folder of a run, all that its machines share: manifest, parts, and the record of each part.

Every file gets its name when it is complete. A part that is written again has the same bytes, so it
does not matter which machine was the last to write it.
"""

from __future__ import annotations

import json
import os
import re
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path
from tempfile import TemporaryDirectory

from pydantic import TypeAdapter

from fullwaveform.cluster.json_data import from_json
from fullwaveform.cluster.manifest import (
    MANIFEST_NAME,
    MANIFEST_VERSION,
    Manifest,
    Part,
    PartOutcome,
    PartRecord,
)
from fullwaveform.io.atomic import ANY_FILE, atomic_path
from fullwaveform.io.remote import RemotePath, is_remote, location

_RECORD_SUFFIX = ".record.json"
# Temporary files of processes that were killed while writing a part, its metadata or its record.
_UNFINISHED = re.compile(r"\.(?P<part>.+\.part-\d+)\..+\.[0-9a-f]{8}\.part")
_MANIFEST = TypeAdapter(Manifest)
_RECORD = TypeAdapter(PartRecord)


class JobFolder:
    """Reads and writes the files of a run.

    Parameters
    ----------
    path
        The folder; it need not exist before the manifest is written.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        self.path = location(path).absolute()

    def __str__(self) -> str:
        return str(self.path)

    @property
    def has_manifest(self) -> bool:
        """Whether a run was planned in the folder."""
        return (self.path / MANIFEST_NAME).is_file()

    def check_new(self) -> None:
        """ValueError unless the folder is empty or missing."""
        if self.has_manifest:
            raise ValueError(f"{self} already contains a run; continue it or use another folder")
        if self.path.exists() and (not self.path.is_dir() or any(self.path.iterdir())):
            raise ValueError(f"{self} is not an empty folder; use a new or empty one")

    def read_manifest(self) -> Manifest:
        """The manifest.

        Raises
        ------
        OSError
            It is missing or cannot be read.
        ValueError
            It is not a manifest, has another version, or is inconsistent.
        """
        path = self.path / MANIFEST_NAME
        try:
            text = path.read_text(encoding="utf-8")
            content = json.loads(text)
        except (FileNotFoundError, NotADirectoryError) as error:
            raise FileNotFoundError(self._missing_manifest()) from error
        except (json.JSONDecodeError, UnicodeDecodeError, RecursionError) as error:
            raise ValueError(f"{path} is not valid JSON: {error}") from error
        version = content.get("manifest_version") if isinstance(content, dict) else None
        if version != MANIFEST_VERSION:
            raise ValueError(
                f"{path}: unsupported manifest_version {version!r}; expected {MANIFEST_VERSION}"
            )
        manifest = from_json(_MANIFEST, text, f"{path}: manifest")
        _check_parts(manifest, path)
        return manifest

    def _missing_manifest(self) -> str:
        if not self.path.exists():
            return f"the folder {self} does not exist"
        if not self.path.is_dir():
            return f"{self} is not the folder of a run"
        return f"{self} has no {MANIFEST_NAME}; no run was planned in it"

    def write_manifest(self, manifest: Manifest) -> None:
        """Write the manifest into the folder, which is made if it is missing."""
        self.path.mkdir(exist_ok=True)
        self.write(MANIFEST_NAME, _MANIFEST.dump_json(manifest, indent=1) + b"\n")

    def part_path(self, part: str) -> Path:
        """Where a part is written, by the name of its file."""
        return self.path / part

    @contextmanager
    def writing(self) -> Iterator[Path]:
        """Yield the folder to write the files of a part to: this one if it is of this machine.

        If it is at a URL, a temporary folder, whose files are stored when the ``with`` statement
        succeeds.
        """
        if not isinstance(self.path, RemotePath):
            yield self.path
            return
        with TemporaryDirectory(prefix="fullwaveform-") as name:
            yield Path(name)
            for file in sorted(Path(name).iterdir()):
                (self.path / file.name).upload(file, replace=True)

    def read_record(self, part: str) -> PartRecord | None:
        """How writing a part ended; None if nobody has tried, or the record is not readable."""
        try:
            text = (self.path / _record_name(part)).read_text(encoding="utf-8")
            return from_json(_RECORD, text, "record")
        except (FileNotFoundError, ValueError, RecursionError):
            return None

    def write_record(self, part: str, record: PartRecord) -> None:
        """Note how writing a part ended, after its files have reached the disk."""
        for name in [] if record.outcome is None else record.outcome.files:
            _flush(self.path / name)
        self.write(_record_name(part), _RECORD.dump_json(record) + b"\n")

    def remove_records(self, parts: Iterable[str]) -> None:
        """Remove the records of parts whose outcomes are in the manifest."""
        for part in parts:
            (self.path / _record_name(part)).unlink(missing_ok=True)

    def is_whole(self, outcome: PartOutcome) -> bool:
        """Whether the files of a part are in the folder with the sizes that were written."""
        paths = {self.path / name: size for name, size in outcome.files.items()}
        return all(path.is_file() and path.stat().st_size == size for path, size in paths.items())

    def remove_unfinished(self, parts: Iterable[str]) -> None:
        """Remove the temporary files of killed processes."""
        stems = {Path(part).stem for part in parts}
        for path in self.path.iterdir():
            found = _UNFINISHED.fullmatch(path.name)
            if found is not None and found["part"] in stems:
                path.unlink(missing_ok=True)

    def write(self, name: str, content: bytes) -> None:
        """Write a file of the folder, or replace it, in one step."""
        with atomic_path(self.path / name, ANY_FILE, overwrite=True) as temporary:
            temporary.write_bytes(content)
            _flush(temporary)


def _record_name(part: str) -> str:
    return f"{Path(part).stem}{_RECORD_SUFFIX}"


def _flush(path: Path) -> None:
    """Wait until a file is on the disk, so that it outlives its machine; object stores do so."""
    if is_remote(path):
        return
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def _check_parts(manifest: Manifest, path: Path) -> None:
    suffix = f".{manifest.settings.part_format}"
    for index, part in enumerate(manifest.parts):
        where = f"{path}: part {index}"
        if part.number != index or not 0 <= part.input < len(manifest.inputs):
            raise ValueError(f"{where} has invalid number {part.number} or input {part.input}")
        # A name from a file must not lead out of the folder.
        if Path(part.file).name != part.file or not part.file.endswith(suffix):
            raise ValueError(f"{where} has invalid file name {part.file!r}")
        if part.first < 0 or (part.stop is not None and part.stop <= part.first):
            raise ValueError(f"{where} has invalid blocks {part.first} to {part.stop}")
        if part.state not in (Part.WAITING, Part.DONE, Part.FAILED, Part.SKIPPED):
            raise ValueError(f"{where} has invalid state {part.state!r}")
        if (part.state == Part.DONE) != (part.outcome is not None):
            raise ValueError(f"{where} is {part.state}, but its outcome is {part.outcome}")
        for name in [] if part.outcome is None else part.outcome.files:
            if Path(name).name != name:
                raise ValueError(f"{where} has invalid file name {name!r} in its outcome")
    _check_coverage(manifest, path)


def _check_coverage(manifest: Manifest, path: Path) -> None:
    """Every block of every input must be in exactly one part, in order."""
    expected = (0, 0)
    for part in manifest.parts:
        if (part.input, part.first) != expected:
            raise ValueError(
                f"{path}: part {part.number} starts at block {part.first} of input {part.input}; "
                f"expected block {expected[1]} of input {expected[0]}"
            )
        expected = (part.input + 1, 0) if part.stop is None else (part.input, part.stop)
    if expected != (len(manifest.inputs), 0):
        raise ValueError(f"{path}: the parts do not cover all inputs")
    if len({part.file for part in manifest.parts}) != len(manifest.parts):
        raise ValueError(f"{path}: two parts have the same file name")
