"""What the commands share that end a run: checks of its parts, and the summary."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

from fullwaveform.cli.extract_options import more_echoes
from fullwaveform.cli.job_planning import name_of
from fullwaveform.cli.progress import print_line
from fullwaveform.cli.summary import RunSummary
from fullwaveform.cluster.manifest import MANIFEST_NAME, Manifest, Part
from fullwaveform.core.driver import Mode
from fullwaveform.data.counting import counted
from fullwaveform.extraction.warning_file import warning_path
from fullwaveform.io.echo_writers.las import las_notes
from fullwaveform.io.echo_writers.packets import packet_notes
from fullwaveform.io.remote import location

_MAX_ERRORS = 20  # in a message


def check_complete(manifest: Manifest, how_to_retry: str, *, skip_bad_files: bool) -> None:
    """ValueError for missing parts, unless they have failed and are to be skipped.

    At least one part must be there in any case.
    """
    unfinished, total = manifest.unfinished(), len(manifest.parts)
    if not unfinished:
        return
    failures = manifest.failures()
    more = len(failures) - _MAX_ERRORS
    shown = failures if more <= 0 else [*failures[:_MAX_ERRORS], counted(more, "more error")]
    all_failed = all(part.state == Part.FAILED for part in unfinished)
    if skip_bad_files and all_failed and len(unfinished) < total:
        for text in failures:
            print_line(f"skipped: {text}")
        manifest.skip_failed()
        return
    verb = "is" if len(unfinished) == 1 else "are"
    damaged = any(part.state == Part.WAITING and part.error for part in unfinished)
    state = "missing or damaged" if damaged else "missing"
    missing = f"{len(unfinished)} of {counted(total, 'part')} {verb} {state}, the others are kept"
    raise ValueError("; ".join([*shown, missing, how_to_retry]))


def check_not_empty(manifest: Manifest) -> None:
    """ValueError if the run has found nothing."""
    total = manifest.total()
    if total.written == 0 and not (manifest.settings.keep_empty and total.rows):
        more = more_echoes(Mode(manifest.settings.mode))
        raise ValueError(
            f"no echoes in {counted(total.waveforms, 'waveform')}; {more}, or --allow-empty"
        )


def show_summary(
    manifest: Manifest, folder: Path, more_notes: Sequence[str] = (), more_padded: int = 0
) -> None:
    """Print the counts of all parts, and notes on them.

    `more_padded`: waveforms that were padded when the parts were joined.
    """
    sources = [location(entry.path) for entry in manifest.inputs]
    total = manifest.total()
    if len(sources) > 1:
        total.read.notes = _notes_by_file(manifest)
    notes = las_notes(total.written, total.not_representable, total.saturated_return_numbers)
    notes = (*notes, *packet_notes(total.padded + more_padded), *_phase_notes(manifest))
    parts = f"{counted(len(manifest.parts), 'part')}, listed in {MANIFEST_NAME}"
    RunSummary(
        name=name_of(sources),
        destination=folder,
        settings=manifest.settings.extraction(),
        read=total.read,
        extracted=total.extracted,
        calibrations={location(entry.path).name: entry.calibration for entry in manifest.inputs},
        written=total.written,
        notes=(*notes, *more_notes, parts),
        messages=total.messages,
        statistics=warning_path(folder, sources[0] if len(sources) == 1 else Path("*")),
        seconds=total.seconds,
        of_units=True,
    ).show()


def _phase_notes(manifest: Manifest) -> list[str]:
    """The decision on the outgoing pulses of each file that has them."""
    phases = [
        (location(file.path).name, file.calibration.outgoing_phase) for file in manifest.inputs
    ]
    return [
        f"{name}: outgoing phase {phase.result()}: {phase.reason()}"
        for name, phase in phases
        if phase is not None
    ]


def _notes_by_file(manifest: Manifest) -> list[str]:
    notes = [
        f"{location(manifest.inputs[part.input].path).name}: {note}"
        for part in manifest.parts
        if part.outcome is not None
        for note in part.outcome.read.notes
    ]
    return list(dict.fromkeys(notes))
