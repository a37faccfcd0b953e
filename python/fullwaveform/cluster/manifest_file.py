"""The manifest as a JSON file: written atomically, checked when it is read."""

from __future__ import annotations

import json
import time
from pathlib import Path

from pydantic import TypeAdapter

from fullwaveform.cluster.json_data import from_json
from fullwaveform.cluster.manifest import MANIFEST_NAME, MANIFEST_VERSION, Manifest, Part
from fullwaveform.io.atomic import ANY_FILE, atomic_path

_MIN_PAUSE_S = 2.0  # between two versions of the file
_PAUSE_FACTOR = 20  # the pause is at least this many times the time of writing
_MANIFEST = TypeAdapter(Manifest)


def read_manifest(folder: Path) -> Manifest:
    """The manifest of a folder.

    Raises
    ------
    OSError
        It is missing or cannot be read.
    ValueError
        It is not a manifest, has another version, or is inconsistent.
    """
    path = folder / MANIFEST_NAME
    try:
        text = path.read_text(encoding="utf-8")
        content = json.loads(text)
    except FileNotFoundError as error:
        raise FileNotFoundError(f"{folder} has no {MANIFEST_NAME}; no run to continue") from error
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


class ManifestFile:
    """Keeps the file of a manifest up to date, at a bounded share of the run time."""

    def __init__(self, manifest: Manifest, folder: Path) -> None:
        self._manifest, self._path = manifest, folder / MANIFEST_NAME
        self._start = time.monotonic()
        self._seconds_before = manifest.seconds
        self._next_save = 0.0
        self._is_outdated = True

    def mark_changed(self) -> None:
        """Note that the manifest differs from the file."""
        self._is_outdated = True

    def save_if_due(self) -> None:
        """Write the file if it is outdated and the pause since the last writing is over."""
        if self._is_outdated and time.monotonic() >= self._next_save:
            self.save()

    def save(self) -> None:
        """Write the file; OSError if that is not possible."""
        start = time.monotonic()
        self._manifest.seconds = self._seconds_before + start - self._start
        text = _MANIFEST.dump_json(self._manifest, indent=1)
        with atomic_path(self._path, ANY_FILE, overwrite=True) as temporary:
            temporary.write_bytes(text + b"\n")
        end = time.monotonic()
        self._next_save = end + max(_MIN_PAUSE_S, _PAUSE_FACTOR * (end - start))
        self._is_outdated = False
