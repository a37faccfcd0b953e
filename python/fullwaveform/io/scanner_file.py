"""Scanner descriptions as TOML files."""

from __future__ import annotations

import os
from collections.abc import Mapping, Sequence
from dataclasses import asdict
from typing import Any

import tomli_w

from fullwaveform.core.pulse_models import model_table
from fullwaveform.core.scanner import NO_AFTER_PULSE, Scanner
from fullwaveform.io.atomic import FileKind, atomic_path


def scanner_text(
    scanner: Scanner,
    remarks: Sequence[str] = (),
    deconvolution: Mapping[str, Any] | None = None,
) -> str:
    """The TOML of a scanner, from which `Scanner.from_toml` reads the same.

    Parameters
    ----------
    scanner
        notes and a disabled after-pulse filter are not stored
    remarks
        comments at the beginning, one line each
    deconvolution
        content of the table of this name; None: the offsets of the scanner
    """
    content: dict[str, Any] = dict(scanner.attributes)
    if scanner.after_pulse not in (None, NO_AFTER_PULSE):
        content["after_pulse"] = asdict(scanner.after_pulse)
    table = _offsets(scanner) if deconvolution is None else dict(deconvolution)
    if table:
        content["deconvolution"] = table
    if scanner.pulse_models:
        content["pulse_model"] = [model_table(entry) for entry in scanner.pulse_models]
    head = "".join(f"# {' '.join(remark.split())}\n" for remark in remarks)
    return head + tomli_w.dumps(content)


def _offsets(scanner: Scanner) -> dict[str, float]:
    if not (scanner.deconvolution_offset or scanner.deconvolution_offset_hybrid):
        return {}
    table = {"position_offset": scanner.deconvolution_offset}
    if scanner.deconvolution_offset_hybrid is not None:
        table["position_offset_hybrid"] = scanner.deconvolution_offset_hybrid
    return table


def write_text(
    path: str | os.PathLike[str], text: str, kind: FileKind, *, overwrite: bool = False
) -> None:
    """Write the TOML of a scanner; the file appears when it is complete.

    Raises OSError; FileExistsError for an existing file, unless `overwrite` is set and it is of the
    kind.
    """
    with atomic_path(path, kind, overwrite=overwrite) as temporary:
        temporary.write_text(text, encoding="utf-8")
