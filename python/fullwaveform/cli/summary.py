"""The summary that extract and cluster print at the end."""

from __future__ import annotations

from collections import Counter
from collections.abc import Mapping, Sequence
from dataclasses import asdict, dataclass, replace
from pathlib import Path
from typing import Any

from fullwaveform.calibration.calibration import Calibration
from fullwaveform.calibration.receiver_names import receiver_name
from fullwaveform.core.driver import Mode
from fullwaveform.core.pulse_models import ReceiverModel, full_width
from fullwaveform.data.blocks import ReadTally
from fullwaveform.data.counting import counted
from fullwaveform.extraction.extractor import ExtractionSettings, ExtractionTally
from fullwaveform.extraction.prepare import MAX_AUTO_SCALE

#: Label, value, remark.
Row = tuple[str, str, str]
#: Origin of a pulse model -> pulses of which it was made.
PULSE_KINDS = {"returned": "isolated echoes", "outgoing": "outgoing pulses"}


@dataclass(frozen=True)
class RunSummary:
    """Counts and notes of an extraction."""

    name: str  # of the input
    destination: Path
    settings: ExtractionSettings
    read: ReadTally
    extracted: ExtractionTally
    calibrations: Mapping[str, Calibration]  # by name of the input
    written: int
    notes: tuple[str, ...]  # of the writer
    messages: Counter[str]  # of the library, by kind
    statistics: Path | None  # of suspicious blocks; None: not written
    seconds: float
    of_units: bool = False  # whether the time is that of units, some of which ran side by side

    def line(self) -> str:
        """The result on one line."""
        unreadable = self.read.rejected.total()
        skipped = f", {unreadable:,} unreadable skipped" if unreadable else ""
        return (
            f"{self.name}: {counted(self.written, 'echo', 'echoes')} of "
            f"{counted(self.read.waveforms, 'waveform')}{skipped} in {self.seconds:.1f} s: "
            f"{self.destination}"
        )

    def as_dict(self) -> dict[str, Any]:
        """The counts and notes, for JSON."""
        return {
            "input": self.name,
            "output": str(self.destination),
            "mode": self.settings.mode.title,
            "threshold": self.settings.threshold,
            "levels": [
                asdict(level) | {"threshold": self.settings.preparation.threshold_of(level)}
                for level in self.settings.calibration.levels
            ],
            **({"pulse_models": self._models()} if self.settings.mode is Mode.PULSE_FIT else {}),
            "points": self.read.points,
            "points_without_waveform": self.read.points_without_waveform,
            "points_sharing_waveform": self.read.points_sharing_waveform,
            "waveforms": self.read.waveforms,
            "waveforms_with_echoes": self.extracted.waveforms_with_echoes,
            "unreadable": dict(self.read.rejected),
            "left_out": dict(self.read.left_out),
            "without_echoes": dict(self.extracted.rejected),
            "echoes_skipped": self.extracted.echoes_left_out,
            "messages": dict(self.messages),
            "written": self.written,
            "seconds": round(self.seconds, 3),
            "notes": self.all_notes(),
        }

    def _models(self) -> list[dict[str, Any]]:
        """The pulse models, for JSON."""
        return [
            {
                "channel_flag": entry.channel_flag,
                "descriptor": entry.descriptor,
                "origin": entry.origin,
                "pulses": entry.pulses,
                "fwhm_ns": full_width(entry.model) * entry.model.sampling_interval * 1e9,
                "scatter": entry.model.scatter,
            }
            for entry in self.settings.calibration.pulse_models
        ]

    def show(self) -> None:
        """Print the summary as a table, with notes below."""
        title = f"{self.name}: {self.settings.mode.title}"
        rate = self.read.waveforms / self.seconds if self.seconds > 0 else 0.0
        remark = f"{rate:,.0f} waveforms per second"
        remark = f"of all units together, {remark}" if self.of_units else remark
        rows = [*self.rows(), ("time", f"{self.seconds:.2f} s", remark)]
        print_table(title, rows, self.all_notes(), [self.destination])

    def rows(self) -> list[Row]:
        """The rows of the table but the time, which differs from run to run."""
        read, found = self.read, self.extracted
        share = found.waveforms_with_echoes / read.waveforms if read.waveforms else 0.0
        rows = [
            ("points read", f"{read.points:,}", ""),
            *(
                (label, f"{count:,}", remark)
                for label, count, remark in (
                    ("points without waveform", read.points_without_waveform, "skipped"),
                    ("points sharing a waveform", read.points_sharing_waveform, "counted once"),
                )
                if count
            ),
            ("waveforms", f"{read.waveforms:,}", ""),
            ("with echoes", f"{found.waveforms_with_echoes:,}", f"{share:.1%} of the waveforms"),
        ]
        rows += self._level_rows()
        if read.points_short:
            rows.append(("two segments", f"{read.points_short:,}", "pulses that declare three"))
        rows += [("left out", f"{count:,}", reason) for reason, count in read.left_out.items()]
        rows += [("unreadable", f"{count:,}", reason) for reason, count in read.rejected.items()]
        # Most frequent first: the order in which they are found depends on the size of the blocks.
        reasons = sorted(found.rejected.items(), key=lambda entry: (-entry[1], entry[0]))
        rows += [("without echoes", f"{count:,}", reason) for reason, count in reasons]
        if phase := self._phase_row():
            rows.append(phase)
        if found.without_phase:
            rows.append(("without phase", f"{found.without_phase:,}", "outgoing pulse not fitted"))
        if found.echoes_left_out:
            rows.append(("echoes skipped", f"{found.echoes_left_out:,}", "not finite"))
        rows += [("messages", f"{count:,}", kind) for kind, count in self.messages.items()]
        label, remark = ("rows written", "echoes, and waveforms without echoes")
        if not self.settings.keep_empty:
            label, remark = ("echoes written", "")
        rows.append((label, f"{self.written:,}", remark))
        return rows

    def _phase_row(self) -> Row | None:
        phase = self.settings.calibration.outgoing_phase
        if phase is None:
            return None
        return ("outgoing phase", phase.result(), phase.reason())

    def _level_rows(self) -> list[Row]:
        """Thresholds and what was done to the samples."""
        found = self.extracted
        if self.settings.mode is Mode.PULSE_FIT:
            return self._pulse_model_rows()
        rows = threshold_rows(self.settings, self.calibrations)
        if self.settings.threshold == "estimate" or found.estimated_as_0 or found.estimated_as_180:
            remark = (
                f"{found.estimated_as_0:,} waveforms with 0, {found.estimated_as_180:,} with 180"
            )
            rows.append(("threshold", "estimate", f"of the library: {remark}"))
        if found.baseline_removed:
            remark = "waveforms; high against the noise"
            if self.settings.baseline != "auto":
                remark = "waveforms"
            rows.append(("baseline removed", f"{found.baseline_removed:,}", remark))
        if found.scaled:
            scale = self.settings.sample_scale
            factor = f"by up to {MAX_AUTO_SCALE}" if scale == "auto" else f"by {scale}"
            rows.append(("samples scaled", f"{found.scaled:,}", f"waveforms, {factor}"))
        return rows

    def _pulse_model_rows(self) -> list[Row]:
        """The pulse model of each receiver of each input, and where it comes from."""
        if known := self.settings.scanner.pulse_models:
            names = _common_names(list(self.calibrations.values()))
            return pulse_model_rows(known, names, "of the scanner description")
        return [
            row
            for name, one in self.calibrations.items()
            for row in pulse_model_rows(
                one.pulse_models,
                one.receiver_names,
                f"of {name}" if len(self.calibrations) > 1 else "of the file",
            )
        ]

    def all_notes(self) -> list[str]:
        """Notes on scanner, input and output, and on suspicious blocks if they were recorded."""
        notes = [*self.settings.scanner.notes, *self.read.notes, *self.notes]
        if self.extracted.suspicious_blocks and self.statistics is not None:
            notes.append(
                "half or more of the waveforms rejected in "
                f"{counted(self.extracted.suspicious_blocks, 'block')}; statistics appended to "
                f"{self.statistics}"
            )
        return notes


def threshold_rows(
    settings: ExtractionSettings, calibrations: Mapping[str, Calibration]
) -> list[Row]:
    """A row per receiver of each input with its measured threshold, or one with the given one."""
    threshold = settings.threshold
    if isinstance(threshold, str):
        return []
    if threshold is not None:
        return [("threshold", f"{threshold} counts", "as given")]
    rows = []
    for name, calibration in calibrations.items():
        preparation = replace(settings, calibration=calibration).preparation
        for level in calibration.levels:
            value = f"{preparation.threshold_of(level):,} counts"
            receiver = receiver_name(level, calibration.levels, calibration.receiver_names)
            named = ", ".join(filter(None, [name if len(calibrations) > 1 else "", receiver]))
            measured = f"baseline {level.baseline:.4g}, noise rms {level.noise_rms:.3g}"
            rows.append(("threshold", value, f"{named}: {measured}" if named else measured))
    return rows


def _common_names(calibrations: Sequence[Calibration]) -> dict[int, str]:
    """The names of receivers on which all inputs agree."""
    entries = [set(one.receiver_names.items()) for one in calibrations]
    return dict(set.intersection(*entries)) if entries else {}


def pulse_model_rows(
    entries: Sequence[ReceiverModel], names: Mapping[int, str], source: str
) -> list[Row]:
    """Width of the pulse of each model, and the pulses of which it was made."""
    rows = []
    for entry in entries:
        width = full_width(entry.model) * entry.model.sampling_interval * 1e9
        receiver = receiver_name(entry, entries, names)
        pulses = f"{entry.pulses:,} {PULSE_KINDS[entry.origin]} {source}"
        rows.append(
            ("pulse model", f"{width:.2f} ns", f"{receiver}: {pulses}" if receiver else pulses)
        )
    return rows


def print_table(title: str, rows: list[Row], notes: list[str], results: list[Path]) -> None:
    """Print rows as a table, then a line for each note and each file written."""
    # Loaded here, because a quiet run prints no table.
    from rich.console import Console
    from rich.markup import escape
    from rich.table import Table

    console = Console()
    table = Table(title=escape(title), show_header=False)
    table.add_column(style="bold", no_wrap=True)
    table.add_column(justify="right", no_wrap=True)
    table.add_column()
    for row in rows:
        table.add_row(*map(escape, row))
    console.print(table)
    for line in [*(f"note: {note}" for note in notes), *(f"result: {path}" for path in results)]:
        console.print(line, soft_wrap=True, markup=False, highlight=False)
