"""The manifest as a file of JSON: written whole or not at all, checked when it is read."""

from __future__ import annotations

import json
import time
from pathlib import Path

from fullwaveform.cluster.manifest import MANIFEST_NAME, MANIFEST_VERSION, Manifest, Part
from fullwaveform.cluster.plain import from_plain, to_plain
from fullwaveform.io.atomic import atomic_path

_SHORTEST_PAUSE = 2.0  # s between two versions of the file
_SHARE = 20  # the pause is at least so many times what writing took


def read_manifest(folder: Path) -> Manifest:
    """The manifest of a folder.

    Raises
    ------
    OSError
        There is none, or it cannot be read.
    ValueError
        It is no manifest, of another version, or contradicts itself.
    """
    path = folder / MANIFEST_NAME
    try:
        content = json.loads(path.read_text(encoding="utf-8"))
    except FileNotFoundError as error:
        raise FileNotFoundError(f"{folder} holds no {MANIFEST_NAME}: no run began there") from error
    except (json.JSONDecodeError, UnicodeDecodeError, RecursionError) as error:
        raise ValueError(f"{path} is no JSON: {error}") from error
    version = content.get("manifest_version") if isinstance(content, dict) else None
    if version != MANIFEST_VERSION:
        raise ValueError(
            f"{path}: manifest_version is {version!r}; this program knows {MANIFEST_VERSION}"
        )
    manifest = from_plain(Manifest, content, f"{path}: manifest")
    _check(manifest, path)
    return manifest


def _check(manifest: Manifest, path: Path) -> None:
    ending = f".{manifest.settings.part_format}"
    for place, part in enumerate(manifest.parts):
        where = f"{path}: part {place}"
        if part.number != place or not 0 <= part.input < len(manifest.inputs):
            raise ValueError(f"{where} has number {part.number} and input {part.input}")
        # A name from a file must not lead out of the folder.
        if Path(part.file).name != part.file or not part.file.endswith(ending):
            raise ValueError(f"{where} has the file name {part.file!r}")
        if part.first < 0 or (part.stop is not None and part.stop <= part.first):
            raise ValueError(f"{where} has the blocks from {part.first} to {part.stop}")
        if part.state not in (Part.WAITING, Part.DONE, Part.FAILED):
            raise ValueError(f"{where} has the state {part.state!r}")
        if (part.state == Part.DONE) != (part.outcome is not None):
            raise ValueError(f"{where} is {part.state} and has outcome {part.outcome}")
    _check_that_parts_cover_the_inputs(manifest, path)


def _check_that_parts_cover_the_inputs(manifest: Manifest, path: Path) -> None:
    """Every block of every input stands in exactly one part, in their order."""
    expected = (0, 0)
    for part in manifest.parts:
        if (part.input, part.first) != expected:
            raise ValueError(
                f"{path}: part {part.number} begins with block {part.first} of input {part.input}, "
                f"where block {expected[1]} of input {expected[0]} is next"
            )
        expected = (part.input + 1, 0) if part.stop is None else (part.input, part.stop)
    if expected != (len(manifest.inputs), 0):
        raise ValueError(f"{path}: the parts end before the inputs do")
    if len({part.file for part in manifest.parts}) != len(manifest.parts):
        raise ValueError(f"{path}: two parts have the same file name")


class ManifestFile:
    """Keeps the file of a manifest up to date, not more often than is worth its writing."""

    def __init__(self, manifest: Manifest, folder: Path) -> None:
        self._manifest, self._path = manifest, folder / MANIFEST_NAME
        self._began = time.monotonic()
        self._seconds_before = manifest.seconds
        self._next = 0.0
        self._is_behind = True

    def change(self) -> None:
        """Tell that the manifest is no longer as the file says."""
        self._is_behind = True

    def save_when_due(self) -> None:
        """Write the file if it is behind and the last writing is long enough ago."""
        if self._is_behind and time.monotonic() >= self._next:
            self.save()

    def save(self) -> None:
        """Write the file; OSError if that is not possible."""
        begin = time.monotonic()
        self._manifest.seconds = self._seconds_before + begin - self._began
        text = json.dumps(to_plain(self._manifest), indent=1, allow_nan=False)
        with atomic_path(self._path) as temporary:
            temporary.write_text(text + "\n", encoding="utf-8")
        end = time.monotonic()
        self._next = end + max(_SHORTEST_PAUSE, _SHARE * (end - begin))
        self._is_behind = False
