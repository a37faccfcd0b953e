"""The scanner description with its system wave, as a TOML file."""

from __future__ import annotations

import os
import tomllib
from dataclasses import replace
from typing import Any

from fullwaveform.core.scanner import Scanner
from fullwaveform.io.atomic import FileKind
from fullwaveform.io.scanner_file import scanner_text, write_text
from fullwaveform.system_wave.exponentials import ExponentialSum
from fullwaveform.system_wave.offset import DeconvolutionOffset

#: What `write_description` writes.
DESCRIPTION_KIND = FileKind(
    "a scanner description with a system wave",
    lambda path: "a_real" in tomllib.loads(path.read_text(encoding="utf-8")),
)


def with_system_wave(scanner: Scanner, wave: ExponentialSum, interval: float) -> Scanner:
    """The scanner with a system wave over seconds, estimated at sampling interval `interval`, s."""
    tables = {
        "a_real": wave.coefficients.real.tolist(),
        "a_imag": wave.coefficients.imag.tolist(),
        "b_real": wave.exponents.real.tolist(),
        "b_imag": wave.exponents.imag.tolist(),
    }
    attributes = {**scanner.attributes, **tables}
    # Offsets measured with another system wave are not valid for this one.
    return replace(
        scanner, attributes=attributes, deconvolution_offset=0.0, deconvolution_offset_hybrid=None
    ).at_interval(interval)


def description_text(
    scanner: Scanner, offset: DeconvolutionOffset | None, remarks: tuple[str, ...] = ()
) -> str:
    """The TOML of a scanner, after remarks as comments, one line each."""
    table: dict[str, Any] = {}
    if offset is not None:
        table = {
            "position_offset": offset.position,
            "position_offset_hybrid": offset.hybrid,
            "position_spread": offset.spread,
            "echoes": offset.echoes,
        }
    return scanner_text(scanner, remarks, table)


def write_description(
    path: str | os.PathLike[str],
    scanner: Scanner,
    offset: DeconvolutionOffset | None,
    remarks: tuple[str, ...] = (),
    *,
    overwrite: bool = False,
) -> None:
    """Write the TOML of a scanner; the file appears when it is complete.

    Raises OSError; FileExistsError for an existing file, unless `overwrite` is set and it is a
    scanner description with a system wave.
    """
    text = description_text(scanner, offset, remarks)
    write_text(path, text, DESCRIPTION_KIND, overwrite=overwrite)
