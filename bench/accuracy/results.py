"""The figures of a run, as JSON and as CSV."""

from __future__ import annotations

import csv
import json
import math
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from accuracy.plan import Row

_DIGITS = 5  # significant; more are noise, and differ between compilers
#: Columns that say what a row is about; all others are measured.
KEYS = (
    *(
        "pulse",
        "bits",
        "widening",
        "ratio",
        "noise",
        "height",
        "channels",
        "echoes",
        "snr",
        "separation",
    ),
    *("stated", "method"),
)


@dataclass(frozen=True)
class Results:
    """Rows of each table, and how they were made."""

    settings: Row
    tables: dict[str, list[Row]]

    def rows(self, table: str, **keys: str | float) -> list[Row]:
        """The rows of a table with these values, in order; none if the table was not made."""
        return [
            row
            for row in self.tables.get(table, [])
            if all(row.get(name) == value for name, value in keys.items())
        ]

    def value(self, table: str, column: str, **keys: str | float) -> float:
        """A figure of the only row with these values; NaN if there is none."""
        rows = self.rows(table, **keys)
        return float(rows[0].get(column, math.nan)) if len(rows) == 1 else math.nan

    def json(self) -> str:
        """As text: a row per line, null for NaN."""
        lines = ["{", f'"settings": {_line(self.settings)},', '"tables": {']
        parts = [
            f'"{name}": [\n' + ",\n".join(map(_line, rows)) + "\n]"
            for name, rows in self.tables.items()
        ]
        return "\n".join([*lines, ",\n".join(parts), "}", "}"]) + "\n"

    @classmethod
    def read(cls, path: Path) -> Results:
        """From a file of `json`."""
        content = json.loads(path.read_text(encoding="utf-8"))
        return cls(
            _with_nan(content["settings"]),
            {name: [_with_nan(row) for row in rows] for name, rows in content["tables"].items()},
        )

    def write_csv(self, path: Path) -> None:
        """One line per figure: table, the columns of `KEYS`, measure, value."""
        with path.open("w", encoding="utf-8", newline="") as stream:
            writer = csv.writer(stream, lineterminator="\n")
            writer.writerow(["table", *KEYS, "measure", "value"])
            for table, rows in self.tables.items():
                for row in rows:
                    key = [_cell(row.get(name, "")) for name in KEYS]
                    writer.writerows(
                        [table, *key, name, _cell(value)]
                        for name, value in row.items()
                        if name not in KEYS
                    )


def rounded(rows: Iterable[Row]) -> list[Row]:
    """The rows with floats of five significant digits."""
    return [{name: _rounded(value) for name, value in row.items()} for row in rows]


def _rounded(value: str | float) -> str | float:
    return float(f"{value:.{_DIGITS}g}") if isinstance(value, float) else value


def _line(row: Row) -> str:
    plain = {name: None if value != value else value for name, value in row.items()}
    return json.dumps(plain, ensure_ascii=False)


def _with_nan(row: dict[str, str | float | None]) -> Row:
    return {name: math.nan if value is None else value for name, value in row.items()}


def _cell(value: str | float) -> str:
    if isinstance(value, float):
        return "" if math.isnan(value) else f"{value:g}"
    return str(value)
