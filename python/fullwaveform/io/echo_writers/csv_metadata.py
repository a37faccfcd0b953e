"""The metadata file of a CSV file, as the W3C's "Metadata Vocabulary for Tabular Data" has it."""

from __future__ import annotations

import json
from collections.abc import Mapping, Sequence
from pathlib import Path

import numpy as np

from fullwaveform.data.columns import Column
from fullwaveform.io.atomic import FileKind
from fullwaveform.io.run_record import RUN_METADATA_KEY

_CONTEXT = "http://www.w3.org/ns/csvw"


def _describes_echoes(path: Path) -> bool:
    return RUN_METADATA_KEY in json.loads(path.read_bytes())["notes"][0]


METADATA_KIND = FileKind("the metadata of a CSV file of echoes", _describes_echoes)


def metadata_path(path: Path) -> Path:
    """Where programs look for the metadata of a CSV file."""
    return path.with_name(f"{path.name}-metadata.json")


def _datatype(column: Column) -> str:
    if np.issubdtype(column.dtype, np.str_):
        return "string"
    return "integer" if np.issubdtype(column.dtype, np.integer) else "number"


def metadata_text(path: Path, run: Mapping[str, str], described: Sequence[Column]) -> str:
    """Columns with unit and meaning, and how the echoes were made."""
    columns = [
        {
            "name": column.name,
            "titles": column.name,
            "datatype": _datatype(column),
            "dc:description": column.description,
            "schema:unitText": column.unit,
        }
        for column in described
    ]
    content = {
        "@context": _CONTEXT,
        "url": path.name,
        "dialect": {"header": True},
        "null": "nan",
        "tableSchema": {"columns": columns},
        "notes": [{RUN_METADATA_KEY: dict(run)}],
    }
    return json.dumps(content, indent=2) + "\n"
