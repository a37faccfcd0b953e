"""How the echoes of a file were made, as text in the metadata or a record of the file."""

from __future__ import annotations

import json
from collections.abc import Iterable, Mapping
from typing import Any

import laspy

#: Key of the metadata of echo files that says how the echoes were made.
RUN_METADATA_KEY = "fullwaveform"
_USER = "fullwaveform"
_FIRST_RECORD = 1
_MAX_RECORD = 65535  # bytes of an ordinary variable record


def run_metadata_text(metadata: Mapping[str, str]) -> str:
    """How echoes were made, as JSON; equal entries give equal text."""
    return json.dumps(dict(metadata), sort_keys=True)


def run_records(metadata: Mapping[str, str]) -> list[laspy.VLR]:
    """The text as variable records of a LAS file, in consecutive pieces if it is long."""
    data = run_metadata_text(metadata).encode()
    pieces = [data[start : start + _MAX_RECORD] for start in range(0, len(data), _MAX_RECORD)]
    return [
        laspy.VLR(_USER, number, "extraction settings, JSON", piece)
        for number, piece in enumerate(pieces, _FIRST_RECORD)
    ]


def read_run_records(records: Iterable[laspy.VLR]) -> dict[str, Any] | None:
    """How the echoes of a LAS file were made; None if its records do not say so."""
    pieces = {one.record_id: one.record_data_bytes() for one in records if one.user_id == _USER}
    try:
        found = json.loads(b"".join(pieces[number] for number in sorted(pieces)))
    except ValueError:
        return None
    return found if isinstance(found, dict) else None
