"""The type stub names what the compiled module has, no more and no less."""

from __future__ import annotations

import ast
from pathlib import Path

from fullwaveform import _core, errors

# Beside the package's source: the module itself may be built elsewhere.
STUB = Path(errors.__file__).with_name("_core.pyi")


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
    return {name for name in dir(thing) if not name.startswith("_")}


def test_stub_and_module_have_the_same_names() -> None:
    body = ast.parse(STUB.read_text(encoding="utf-8")).body
    assert stated(body) == public(_core)
    classes = [node for node in body if isinstance(node, ast.ClassDef)]
    assert {"Grid", "ScannerDevice", "PeakDetectionFamily"} <= {node.name for node in classes}
    for node in classes:
        assert stated(node.body) == public(getattr(_core, node.name)), node.name
