"""Which LAS files this program has written, by their headers."""

from __future__ import annotations

import struct
from pathlib import Path

#: "Generating software" of the headers; a version may follow.
SOFTWARE = "fullwaveform"
#: "System identifier": what was done.
EXTRACTED, SIMULATED = "EXTRACTION", "SIMULATION"
_FIELDS = struct.Struct("<4s22x32s32s")  # signature, system identifier, generating software


def is_written_here(path: Path, system_identifier: str) -> bool:
    """Whether the file is a LAS or LAZ file of this program with the identifier."""
    with path.open("rb") as file:
        signature, system, software = _FIELDS.unpack(file.read(_FIELDS.size))
    return (
        signature == b"LASF"
        and system.rstrip(b"\0") == system_identifier.encode("ascii")
        and bool(software.startswith(SOFTWARE.encode("ascii")))
    )
