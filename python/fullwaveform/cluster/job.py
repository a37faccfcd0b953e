"""A job from its plan to its parts."""

from __future__ import annotations

import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from functools import partial
from pathlib import Path
from typing import Any

from fullwaveform import __version__
from fullwaveform.cluster.dispatch import Dispatcher
from fullwaveform.cluster.inputs import FileState, InputFile, check_states
from fullwaveform.cluster.manifest import MANIFEST_VERSION, Manifest, Part, PartOutcome
from fullwaveform.cluster.manifest_file import ManifestFile, read_manifest
from fullwaveform.cluster.plain import from_plain, to_plain
from fullwaveform.cluster.settings import JobSettings, differences
from fullwaveform.cluster.units import planned_parts
from fullwaveform.cluster.work import Plain, Unit, count_blocks, extract_unit
from fullwaveform.io.atomic import atomic_path

_A_WHILE = 15.0  # s; lost workers that are started again are back sooner
_LEFT_BEHIND = ".part-*.part"  # of workers that were killed while they wrote


@dataclass(frozen=True)
class JobWatch:
    """Who is told how a job goes on."""

    parts: Callable[[int, int], None] = field(default=lambda done, of: None)  # parts finished
    waiting: Callable[[], None] = field(default=lambda: None)  # workers are missing for a while


def plan_job(
    client: Any,
    sources: Sequence[tuple[Path, list[FileState]]],
    settings: JobSettings,
    watch: JobWatch,
) -> Manifest:
    """The manifest of a new job over files and their states; the workers count their blocks.

    Raises
    ------
    OSError, ValueError
        A file cannot be read on a worker.
    """
    blocks = [0] * len(sources)
    units = [
        (number, partial(_unit, settings, source, states, Part(number, number, 0, None, "")))
        for number, (source, states) in enumerate(sources)
    ]
    dispatcher = Dispatcher(client, _after_a_while(watch.waiting))
    for number, result in dispatcher.run(count_blocks, units):
        if "trouble" in result:
            raise ValueError(result["trouble"])
        blocks[number] = int(result["blocks"])
    inputs = [
        InputFile(str(source), states, count)
        for (source, states), count in zip(sources, blocks, strict=True)
    ]
    parts = planned_parts(inputs, settings.unit_blocks, f".{settings.part_format}")
    return Manifest(MANIFEST_VERSION, __version__, settings, inputs, parts)


def earlier_job(folder: Path, sources: Sequence[Path]) -> Manifest:
    """The manifest of a folder, if it is of the same inputs and version.

    Raises
    ------
    OSError
        The folder has no manifest, or an input cannot be read.
    ValueError
        The manifest is none, or it is of other inputs: the sentence says what differs.
    """
    manifest = read_manifest(folder)
    _refuse(
        folder,
        differences(
            {
                "version of fullwaveform": manifest.package_version,
                "inputs": {str(i): entry.path for i, entry in enumerate(manifest.inputs)},
            },
            {
                "version of fullwaveform": __version__,
                "inputs": {str(i): str(source) for i, source in enumerate(sources)},
            },
        ),
    )
    for entry in manifest.inputs:
        check_states(Path(entry.path), entry.files)
    return manifest


def prepare_to_continue(manifest: Manifest, folder: Path, settings: JobSettings) -> None:
    """Mark the parts that are not in the folder as they should be as ones to be done.

    ValueError, with what differs, if the job has other settings.
    """
    before, now = to_plain(manifest.settings), to_plain(settings)
    _refuse(folder, differences(before, now, "settings"))
    for part in manifest.parts:
        path = folder / part.file
        if part.outcome is None or not _has_size(path, part.outcome.bytes):
            part.forget()


def _refuse(folder: Path, found: list[str]) -> None:
    if found:
        raise ValueError(f"{folder} holds another job: {'; '.join(found)}")


def run_job(client: Any, manifest: Manifest, folder: Path, watch: JobWatch) -> None:
    """Write the parts that are not done; the manifest in the folder follows.

    However the run ends, by an error or Ctrl-C too, the manifest says which parts are finished.
    What is wrong with the content of a file costs its own parts only.

    Raises
    ------
    OSError
        Disks, folders or workers are not as they must be; parts that had begun are given up.
    """
    folder = folder.absolute()
    file = ManifestFile(manifest, folder)
    file.save()
    try:
        _run_parts(client, manifest, folder, watch, file)
    finally:
        file.save()
    _remove_what_was_left_behind(folder)
    _write_statistics(manifest, folder)


def failures(manifest: Manifest) -> list[str]:
    """A sentence for each part that failed, equal ones once."""
    return list(dict.fromkeys(part.trouble for part in manifest.parts if part.trouble))


def statistics_path(folder: Path, source: Path) -> Path:
    """Where the statistics of the suspicious blocks of a file stand."""
    return folder / f"{source.stem}_Warning.txt"


def _run_parts(
    client: Any, manifest: Manifest, folder: Path, watch: JobWatch, file: ManifestFile
) -> None:
    unfinished = manifest.unfinished()
    done = len(manifest.parts) - len(unfinished)
    watch.parts(done, len(manifest.parts))
    say_waiting = _after_a_while(watch.waiting)

    def tick(are_there_workers: bool) -> None:
        file.save_when_due()
        say_waiting(are_there_workers)

    def enter(number: int, result: Plain) -> None:
        nonlocal done
        done += 1
        _enter(manifest.parts[number], result, manifest)
        file.change()
        watch.parts(done, len(manifest.parts))

    dispatcher = Dispatcher(client, tick)
    units = {part.number: partial(_unit_of, manifest, part, folder) for part in unfinished}
    suspects = []
    for number, result in dispatcher.run(extract_unit, list(units.items())):
        if result.get("lost_workers"):
            suspects.append(number)
        else:
            enter(number, result)
    # One by one it shows which of them the workers die of, and which were only near.
    for suspect in suspects:
        for number, result in dispatcher.run(extract_unit, [(suspect, units[suspect])]):
            enter(number, result)


def _enter(part: Part, result: Plain, manifest: Manifest) -> None:
    if "trouble" not in result:
        part.finish(from_plain(PartOutcome, result.get("outcome"), f"outcome of {part.file}"))
        return
    path = manifest.inputs[part.input].path
    sentence = str(result["trouble"])
    if result["ends_the_job"]:
        raise OSError(sentence)
    part.fail(sentence if path in sentence else f"{path}: {sentence}")


def _unit_of(manifest: Manifest, part: Part, folder: Path) -> Plain:
    source = manifest.inputs[part.input]
    output = folder / part.file
    return _unit(manifest.settings, Path(source.path), source.files, part, output)


def _unit(
    settings: JobSettings,
    source: Path,
    states: list[FileState],
    part: Part,
    output: Path | None = None,
) -> Plain:
    unit = Unit(
        package_version=__version__,
        settings=settings,
        path=str(source.absolute()),
        files=states,
        first=part.first,
        stop=part.stop,
        output=str(output or ""),
    )
    plain: Plain = to_plain(unit)
    return plain


def _after_a_while(say: Callable[[], None]) -> Callable[[bool], None]:
    """Says it, once each time, when workers have been missing for a while."""
    missing_since: float | None = None
    is_said = False

    def tick(are_there: bool) -> None:
        nonlocal missing_since, is_said
        if are_there:
            missing_since, is_said = None, False
            return
        now = time.monotonic()
        missing_since = now if missing_since is None else missing_since
        if not is_said and now - missing_since > _A_WHILE:
            say()
            is_said = True

    return tick


def _has_size(path: Path, size: int) -> bool:
    return path.is_file() and path.stat().st_size == size


def _remove_what_was_left_behind(folder: Path) -> None:
    for path in folder.glob(_LEFT_BEHIND):
        path.unlink(missing_ok=True)


def _write_statistics(manifest: Manifest, folder: Path) -> None:
    """The statistics of suspicious blocks in the order of the parts; silent where they cannot be.

    The files are written anew, so that a job that is continued has each block once.
    """
    texts: dict[Path, str] = {}
    for part in manifest.parts:
        if part.outcome is not None and part.outcome.record:
            path = statistics_path(folder, Path(manifest.inputs[part.input].path))
            texts[path] = texts.get(path, "") + part.outcome.record
    for path, text in texts.items():
        try:
            with atomic_path(path) as temporary:
                temporary.write_bytes(text.encode("ascii"))
        except OSError:
            continue
