"""What a run says at its end."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from rich.console import Console
from rich.table import Table

from fullwaveform.data.blocks import ReadTally
from fullwaveform.extraction.extractor import ExtractionSettings, ExtractionTally


@dataclass(frozen=True)
class RunSummary:
    """Everything a person wants to know when an extraction is done."""

    name: str  # of the input
    destination: Path
    settings: ExtractionSettings
    read: ReadTally
    extracted: ExtractionTally
    written: int
    notes: tuple[str, ...]  # of the writer
    messages: Counter[str]  # of the library, by kind
    statistics: Path  # of suspicious blocks
    seconds: float

    def show(self, console: Console) -> None:
        """Prints the summary as a table, notes below it."""
        table = Table(title=f"{self.name}: {self.settings.mode.title}", show_header=False)
        table.add_column(style="bold", no_wrap=True)
        table.add_column(justify="right", no_wrap=True)
        table.add_column()
        for label, value, remark in self._rows():
            table.add_row(label, value, remark)
        console.print(table)
        for note in self._notes():
            console.print(f"note: {note}", soft_wrap=True, markup=False, highlight=False)
        console.print(f"result: {self.destination}", soft_wrap=True, markup=False, highlight=False)

    def _rows(self) -> list[tuple[str, str, str]]:
        read, found = self.read, self.extracted
        share = found.waveforms_with_echoes / read.waveforms if read.waveforms else 0.0
        rows = [
            ("points read", f"{read.points:,}", ""),
            ("without a packet", f"{read.points_without_waveform:,}", "passed over"),
            ("sharing a packet", f"{read.points_sharing_waveform:,}", "their waveform counts once"),
            ("waveforms", f"{read.waveforms:,}", ""),
            ("with echoes", f"{found.waveforms_with_echoes:,}", f"{share:.1%} of the waveforms"),
        ]
        rows += [("unreadable", f"{count:,}", reason) for reason, count in read.rejected.items()]
        rows += [
            ("without echoes", f"{count:,}", reason) for reason, count in found.rejected.items()
        ]
        if found.echoes_left_out:
            rows.append(("echoes left out", f"{found.echoes_left_out:,}", "not finite"))
        rows += [("messages", f"{count:,}", kind) for kind, count in self.messages.items()]
        rate = read.waveforms / self.seconds if self.seconds > 0 else 0.0
        label, remark = ("rows written", "echoes, and waveforms without them")
        if not self.settings.keep_empty:
            label, remark = ("echoes written", "")
        rows.append((label, f"{self.written:,}", remark))
        rows.append(("time", f"{self.seconds:.2f} s", f"{rate:,.0f} waveforms per second"))
        return rows

    def _notes(self) -> list[str]:
        notes = [*self.settings.scanner.notes, *self.read.notes, *self.notes]
        if self.extracted.suspicious_blocks:
            notes.append(
                f"half or more of the waveforms of {self.extracted.suspicious_blocks} blocks were "
                f"rejected, statistics appended to {self.statistics}"
            )
        return notes
