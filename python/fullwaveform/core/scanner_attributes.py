"""Names and types of the attributes of a scanner description, and their check."""

from __future__ import annotations

import math
from collections.abc import Mapping
from numbers import Real
from typing import Any

AttributeValue = float | str | list[float]

# Attribute name -> type of its values in the host's grids.
SCANNER_ATTRIBUTES = {
    "Scanner Group Velocity": "double",
    "Scanner Serial Number": "text",
    "Scanner Build Number": "text",
    "Scanner Type": "text",
    "Wavelength[nm]": "float",
    "UnambiguousRange": "double",
    "reflectance_calculation_delta": "double",
    "ampl_unit": "double",
    "reflectance_calculation_table": "float list",
}
#: Values of attributes that a description may omit, for the library, which needs all of them.
VALUES_IF_OMITTED: Mapping[str, AttributeValue] = {
    "Scanner Build Number": "",
    "ampl_unit": 1.0,
    "t_ref": 0.0,
}
#: The exponential sums of the system wave.
SYSTEM_WAVE = ("a_real", "a_imag", "b_real", "b_imag")
WAVEFORM_ATTRIBUTES = {
    "WaveformSampleInterval": "double",
    **dict.fromkeys(SYSTEM_WAVE, "double list"),
}
_MUST_BE_POSITIVE = ("Scanner Group Velocity", "ampl_unit", "WaveformSampleInterval")
SBL_ATTRIBUTES = {"t_ref": "double"}
ALL_ATTRIBUTES = SCANNER_ATTRIBUTES | WAVEFORM_ATTRIBUTES | SBL_ATTRIBUTES
_KIND_NAMES = {
    "text": "text",
    "double": "finite number",
    "float": "finite number",
    "double list": "list of finite numbers",
    "float list": "list of finite numbers",
}


def checked_attributes(attributes: Mapping[str, Any], origin: str) -> dict[str, AttributeValue]:
    """The attributes in plain Python types; one ValueError lists everything that is invalid."""
    required = [name for name in SCANNER_ATTRIBUTES if name not in VALUES_IF_OMITTED]
    problems = []
    if missing := [name for name in required if name not in attributes]:
        problems.append("missing: " + ", ".join(missing))
    if unknown := [name for name in attributes if name not in ALL_ATTRIBUTES]:
        problems.append("unknown: " + ", ".join(unknown))
    result: dict[str, AttributeValue] = {}
    for name, kind in ALL_ATTRIBUTES.items():
        if name not in attributes:
            continue
        value = plain_value(attributes[name], kind)
        if value is None:
            problems.append(
                f"wrong type: {name} is {attributes[name]!r}; expected {_KIND_NAMES[kind]}"
            )
        else:
            result[name] = value
    for table in ("a", "b"):
        real, imag = result.get(f"{table}_real"), result.get(f"{table}_imag")
        if (real is None) != (imag is None) or (
            isinstance(real, list) and isinstance(imag, list) and len(real) != len(imag)
        ):
            problems.append(
                f"{table}_real and {table}_imag must be given together, with equal lengths"
            )
    a, b = result.get("a_real"), result.get("b_real")
    # Tables without elements count as missing, as in the library.
    if isinstance(a, list) and isinstance(b, list) and a and b and len(a) != len(b):
        problems.append(
            f"a_real has {len(a)} values and b_real {len(b)}; the numbers must be equal"
        )
    problems += [
        f"{name} is {result[name]}; it must be above 0"
        for name in _MUST_BE_POSITIVE
        if isinstance(value := result.get(name), float) and not value > 0.0
    ]
    if problems:
        raise ValueError(f"{origin}: {'; '.join(problems)}")
    return result


def plain_value(value: Any, kind: str) -> AttributeValue | None:
    """The value as text, number or list of numbers; None if it has another type."""
    if kind == "text":
        return value if isinstance(value, str) else None
    if kind.endswith("list"):
        if isinstance(value, str | bytes):
            return None
        try:
            numbers = list(value)
        except TypeError:  # a single number, possibly as a zero-dimensional array
            return None
        return [float(n) for n in numbers] if all(map(_is_number, numbers)) else None
    return float(value) if _is_number(value) else None


def _is_number(value: Any) -> bool:
    return isinstance(value, Real) and not isinstance(value, bool) and math.isfinite(value)
