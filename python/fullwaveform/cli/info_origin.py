"""What ``fullwaveform info`` shows of the origin of a file and of its receivers."""

from __future__ import annotations

import json
from collections.abc import Sequence
from dataclasses import asdict
from pathlib import Path
from typing import Any

import typer

from fullwaveform.analysis.inspection import Receiver
from fullwaveform.analysis.origin import FileOrigin, PointFile
from fullwaveform.cli.summary import Row, print_table

_NANOSECONDS_PER_PICOSECOND = 1e-3
_MAX_SETTING = 60  # characters

#: Name and value.
NamedText = tuple[str, str]


def origin_rows(origin: FileOrigin | None) -> list[NamedText]:
    """Rows of the table; only what the header has."""
    if origin is None:
        return []
    rows = [("reference system", origin.reference_system or "none")]
    if origin.lower != origin.upper:
        ranges = zip("xyz", origin.lower, origin.upper, strict=True)
        text = ", ".join(f"{axis} {low:.10g} to {high:.10g}" for axis, low, high in ranges)
        rows.append(("bounding box", text))
    texts = (("software", origin.software), ("system", origin.system), ("date", origin.date))
    rows += [(name, text) for name, text in texts if text]
    rows += [(f"run: {name}", _short(str(value))) for name, value in (origin.run or {}).items()]
    return rows


def json_origin(origin: FileOrigin | None) -> dict[str, Any] | None:
    """All of the origin; bounding box in coordinate units."""
    return None if origin is None else asdict(origin)


def receiver_rows(receivers: Sequence[Receiver]) -> list[NamedText]:
    """A row for each packet descriptor in use; only files with descriptors have them."""
    return [
        (f"descriptor {one.number}", _described(one))
        for one in receivers
        if one.descriptor is not None
    ]


def json_receiver(receiver: Receiver) -> dict[str, Any]:
    """Number, name and waveforms, and the entries of the descriptor; interval in s, gain in V."""
    found: dict[str, Any] = {
        "number": receiver.number,
        **({"name": receiver.name} if receiver.name else {}),
        "waveforms": receiver.waveforms,
    }
    if (descriptor := receiver.descriptor) is not None:
        found |= {
            "bits": descriptor.bits_per_sample,
            "samples": descriptor.sample_count,
            "seconds": descriptor.spacing_ps / 1e12,
            "gain": descriptor.gain,
            "offset": descriptor.offset,
        }
    return found


def show_point_file(source: Path, points: PointFile, *, as_json: bool) -> None:
    """Print what is in a LAS file without waveforms."""
    if as_json:
        found = {
            "file": str(source),
            "format": points.format,
            "points": points.points,
            "origin": json_origin(points.origin),
        }
        typer.echo(json.dumps(found, indent=2))
        return
    rows: list[Row] = [("points", f"{points.points:,}", "")]
    rows += [(name, "", text) for name, text in origin_rows(points.origin)]
    print_table(f"{source.name}: {points.format}", rows, [], [])


def _described(receiver: Receiver) -> str:
    one = receiver.descriptor
    assert one is not None
    interval = one.spacing_ps * _NANOSECONDS_PER_PICOSECOND
    waveforms = "waveform" if receiver.waveforms == 1 else "waveforms"
    return (
        f"{receiver.waveforms:,} {waveforms} of {one.sample_count:,} samples at {interval:.6g} ns, "
        f"{one.bits_per_sample} bits, {one.gain:.6g} V per count, offset {one.offset:.6g} V"
    )


def _short(text: str) -> str:
    return text if len(text) <= _MAX_SETTING else f"{text[: _MAX_SETTING - 3]}..."
