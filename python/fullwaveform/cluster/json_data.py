"""Dataclasses as JSON text, with every type checked when it is read."""

from __future__ import annotations

import json
from typing import Any, TypeVar

from pydantic import ConfigDict, TypeAdapter, ValidationError

_T = TypeVar("_T")
_MAX_SHOWN = 60  # characters of a value in a message
_RULE = "Input should be "  # in front of pydantic's rules
_MESSAGES = {"missing": "missing", "unexpected_keyword_argument": "unknown entry"}

#: Configuration of a dataclass (`__pydantic_config__`) and those in its fields: no conversion of
#: types, no unknown entries, no NaN.
STRICT = ConfigDict(strict=True, extra="forbid", allow_inf_nan=False)


def from_json(adapter: TypeAdapter[_T], text: str, name: str) -> _T:
    """Read a dataclass; ValueError with the place of the first fault, `name` in front."""
    try:
        return adapter.validate_json(text)
    except ValidationError as error:
        faults = error.errors(include_url=False)
        content = json.loads(text)
        place = _place(faults[0]["loc"], content)
        # A value that could have several types has a fault for each of them.
        rules = [fault["msg"] for fault in faults if _place(fault["loc"], content) == place]
        raise ValueError(f"{name}{place}{_reason(faults[0], rules)}") from error


def _place(keys: tuple[int | str, ...], content: Any) -> str:
    """Path to the value: the keys without the names of types that pydantic appends."""
    place = ""
    for key in keys:
        if isinstance(content, dict) and isinstance(key, str):
            place, content = f"{place}.{key}", content.get(key)
        elif isinstance(content, list) and isinstance(key, int):
            place, content = f"{place}[{key}]", content[key]
    return place


def _reason(fault: Any, rules: list[str]) -> str:
    if fault["type"] in _MESSAGES:
        return f": {_MESSAGES[fault['type']]}"
    if all(rule.startswith(_RULE) for rule in rules):
        expected = " or ".join(rule.removeprefix(_RULE) for rule in rules)
        return f" is {_shortened(fault['input'])}, must be {expected}"
    return f": {fault['msg'].removeprefix('Value error, ')}"


def _shortened(value: Any) -> str:
    text = repr(value)
    return text if len(text) <= _MAX_SHOWN else f"{text[: _MAX_SHOWN - 3]}..."
