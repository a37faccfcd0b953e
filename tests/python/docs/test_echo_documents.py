"""The documents describe the columns and formats of echo files as they are."""

from __future__ import annotations

import re
from pathlib import Path

import laspy
import pyarrow as pa
import pytest

from fullwaveform.analysis.pulse_table import PULSE_COLUMNS
from fullwaveform.data.columns import arrow_schema
from fullwaveform.data.echo_columns import echo_schema, las_dimensions
from fullwaveform.extraction.waveform_table import WAVEFORM_COLUMNS
from fullwaveform.io.echo_writers.las_header import echo_header
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file

KEYS = (b"unit", b"description")
DOCS = Path(__file__).resolve().parents[3] / "docs"
DOCUMENT = DOCS / "file-formats.md"


def section(title: str) -> str:
    """The text under a heading, up to the next one of any level."""
    text = DOCUMENT.read_text(encoding="utf-8")
    _, _, rest = text.partition(f"\n{title}\n")
    assert rest, f"{DOCUMENT} has no heading {title!r}"
    return re.split(r"^#+ ", rest, maxsplit=1, flags=re.MULTILINE)[0]


def rows(text: str) -> list[list[str]]:
    """Cells of the first table, without its two lines of heading."""
    lines = [line for line in text.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[2:]]


@pytest.mark.parametrize(
    ("title", "schema"),
    [
        ("### Columns of the tables", echo_schema()),
        ("### Columns of the waveform table", arrow_schema(WAVEFORM_COLUMNS)),
        ("### Columns of the pulse table", arrow_schema(PULSE_COLUMNS)),
    ],
)
def test_documented_columns_are_those_of_the_tables(title: str, schema: pa.Schema) -> None:
    described = [tuple(row) for row in rows(section(title))]
    assert described == [
        (f"`{field.name}`", str(field.type), *(field.metadata[key].decode() for key in KEYS))
        for field in schema
    ]


def test_documented_endings_are_those_of_the_writers(tmp_path: Path) -> None:
    table = rows(section("## Echoes"))
    endings = [ending for row in table for ending in re.findall(r"`(\.\w+)`", row[0])]
    assert sorted(endings) == sorted(ECHO_ENDINGS)
    for row in table:
        for ending in re.findall(r"`(\.\w+)`", row[0]):
            takes_empty = open_echo_file(tmp_path / f"e{ending}", None).takes_empty
            assert takes_empty == (row[3] == "`--keep-empty`"), ending


def test_documented_dimensions_are_those_of_the_points() -> None:
    described = re.findall(r"`(\w+)`", " ".join(row[0] for row in rows(section(
        "### Points of LAS and LAZ"))))  # fmt: skip
    header = echo_header(laspy.LasHeader(version="1.4", point_format=9))
    names = set(header.point_format.dimension_names)
    assert set(described) <= names
    assert set(header.point_format.extra_dimension_names) <= set(described)


def test_command_line_lists_columns_and_dimensions() -> None:
    text = (DOCS / "command-line.md").read_text(encoding="utf-8")
    for title, names in (
        ("Extra dimensions of points", list(las_dimensions())),
        ("Columns of tables", echo_schema().names),
    ):
        (listed,) = re.findall(rf"^- {title}: ([^.]*)\.$", text, flags=re.MULTILINE)
        assert re.findall(r"`(\w+)`", listed) == names
