"""Dataclasses as plain data that JSON can hold, and back with every type checked."""

from __future__ import annotations

import math
from collections import Counter
from collections.abc import Mapping
from dataclasses import MISSING, fields, is_dataclass
from types import NoneType, UnionType
from typing import Any, Literal, TypeVar, Union, cast, get_args, get_origin, get_type_hints

_T = TypeVar("_T")
_IN_WORDS = {
    int: "a whole number",
    float: "a finite number",
    str: "text",
    bool: "true or false",
    NoneType: "null",
}


def to_plain(value: Any) -> Any:
    """Dataclasses and mappings as dictionaries, sequences as lists; the rest as it is."""
    if is_dataclass(value):
        return {entry.name: to_plain(getattr(value, entry.name)) for entry in fields(value)}
    if isinstance(value, Mapping):
        return {key: to_plain(entry) for key, entry in value.items()}
    if isinstance(value, list | tuple):
        return [to_plain(entry) for entry in value]
    return value


def from_plain(kind: type[_T], value: Any, where: str) -> _T:
    """A dataclass from plain data, as `to_plain` gives it.

    Fields may be whole and real numbers, text, truth values, None, other dataclasses, lists,
    dictionaries and counters of these by text, and unions.

    Raises
    ------
    ValueError
        Entries are missing, unknown or of another type; `where` names the value in the sentence.
    """
    return cast(_T, _checked(kind, value, where))


def _checked(kind: Any, value: Any, where: str) -> Any:
    if is_dataclass(kind):
        return _dataclass(kind, value, where)
    origin, arguments = get_origin(kind), get_args(kind)
    if origin in (UnionType, Union):
        return _one_of(arguments, value, where)
    if origin is Literal and value in arguments:
        return value
    if origin is list and isinstance(value, list):
        return [_checked(arguments[0], v, f"{where}[{i}]") for i, v in enumerate(value)]
    if origin in (dict, Counter) and isinstance(value, dict):
        entry = int if origin is Counter else arguments[1]
        return origin({key: _checked(entry, v, f"{where}.{key}") for key, v in value.items()})
    if origin is None and _is_a(kind, value):
        return float(value) if kind is float else value
    raise ValueError(f"{where} is {_shortened(value)}, must be {_in_words(kind)}")


def _dataclass(kind: Any, value: Any, where: str) -> Any:
    if not isinstance(value, dict):
        raise ValueError(f"{where} is {_shortened(value)}, must be an object of JSON")
    names = {entry.name for entry in fields(kind)}
    needed = {
        entry.name
        for entry in fields(kind)
        if entry.default is MISSING and entry.default_factory is MISSING
    }
    if missing := sorted(needed - set(value)):
        raise ValueError(f"{where} lacks {', '.join(missing)}")
    if unknown := sorted(set(value) - names):
        raise ValueError(f"{where} has unknown entries: {', '.join(unknown)}")
    hints = get_type_hints(kind)
    return kind(**{name: _checked(hints[name], v, f"{where}.{name}") for name, v in value.items()})


def _one_of(kinds: tuple[Any, ...], value: Any, where: str) -> Any:
    for kind in kinds:
        try:
            return _checked(kind, value, where)
        except ValueError:
            # The only one that an object could be says what is wrong inside it.
            if is_dataclass(kind) and isinstance(value, dict):
                raise
    wanted = " or ".join(_in_words(kind) for kind in kinds)
    raise ValueError(f"{where} is {_shortened(value)}, must be {wanted}")


def _is_a(kind: Any, value: Any) -> bool:
    if kind is bool or isinstance(value, bool):
        return kind is bool and isinstance(value, bool)
    if kind is float:
        return isinstance(value, int | float) and math.isfinite(value)
    return isinstance(value, kind)


def _in_words(kind: Any) -> str:
    if get_origin(kind) is list:
        return "a list"
    if get_origin(kind) is Literal:
        return " or ".join(map(repr, get_args(kind)))
    return _IN_WORDS.get(kind, "an object of JSON")


def _shortened(value: Any) -> str:
    text = repr(value)
    return text if len(text) <= 60 else f"{text[:57]}..."
