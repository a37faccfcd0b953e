"""The type stub names what the compiled module has, no more and no less."""

from __future__ import annotations

import ast
from enum import IntEnum
from pathlib import Path

import pytest

import fullwaveform
from fullwaveform import _core

# Beside the package's source: the module itself may be built elsewhere.
STUB = Path(fullwaveform.__file__).with_name("_core.pyi")


def stated(body: list[ast.stmt]) -> set[str]:
    """Names of functions, classes and variables, without those that start with an underscore."""
    defined = {node.name for node in body if isinstance(node, ast.FunctionDef | ast.ClassDef)}
    variables = {
        node.target.id
        for node in body
        if isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name)
    }
    return {name for name in defined | variables if not name.startswith("_")}


def public(thing: object) -> set[str]:
    names = vars(thing) if isinstance(thing, type) else dir(thing)
    return {name for name in names if not name.startswith("_")}


def values(body: list[ast.stmt]) -> dict[str, object]:
    """Values of the members of an enumeration."""
    return {
        node.targets[0].id: ast.literal_eval(node.value)
        for node in body
        if isinstance(node, ast.Assign) and isinstance(node.targets[0], ast.Name)
    }


BODY = ast.parse(STUB.read_text(encoding="utf-8")).body
CLASSES = {node.name: node for node in BODY if isinstance(node, ast.ClassDef)}


def test_stub_and_module_have_the_same_names() -> None:
    assert stated(BODY) == public(_core)
    assert {"Grid", "ScannerDevice", "PeakDetectionFamily"} <= CLASSES.keys()


@pytest.mark.parametrize("name", CLASSES)
def test_stub_and_class_have_the_same_members(name: str) -> None:
    thing = getattr(_core, name)
    node = CLASSES[name]
    if issubclass(thing, IntEnum):
        assert values(node.body) == {member.name: member.value for member in thing}
        assert stated(node.body) == {n for n in vars(thing) if isinstance(vars(thing)[n], property)}
    else:
        assert stated(node.body) == public(thing)
