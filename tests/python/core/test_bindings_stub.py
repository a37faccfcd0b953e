"""The type stub agrees with the compiled module: names, enumerations, result columns."""

from __future__ import annotations

import ast
from enum import IntEnum
from pathlib import Path

import numpy as np
import pytest

import fullwaveform
from fullwaveform import Scanner, _core
from fullwaveform.data.echo_columns import ECHO_COLUMNS

# In the source folder of the package; the module itself may be built elsewhere.
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


# Tables of a result and their types in the stub.
TABLES = {
    "waveforms": "_WaveformColumns",
    "segments": "_SegmentColumns",
    "peaks": "_EchoColumns",
    "on_board": "_OnBoardColumns",
    "echo_table": "_EchoTableColumns",
}


def columns_stub(table: str) -> str:
    """The part of the stub that declares the columns of a table."""
    types = {"bool": "bool_"}
    lines = [
        f"    {name}: npt.NDArray[np.{types.get(kind, kind)}]"
        for name, kind in _core.RESULT_COLUMNS[table].items()
    ]
    return "\n".join([f"class {TABLES[table]}(TypedDict):", *lines, "", ""])


BODY = ast.parse(STUB.read_text(encoding="utf-8")).body
CLASSES = {
    node.name: node
    for node in BODY
    if isinstance(node, ast.ClassDef) and not node.name.startswith("_")
}


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


def test_columns_of_echo_tables_are_described_with_their_types() -> None:
    computed = _core.RESULT_COLUMNS["echo_table"]
    described = {column.name: np.dtype(column.dtype).name for column in ECHO_COLUMNS}
    assert {name: computed[name] for name in described} == described


@pytest.mark.parametrize("table", TABLES)
def test_stub_declares_the_columns_of_the_library(table: str) -> None:
    assert columns_stub(table) in STUB.read_text(encoding="utf-8")


def test_results_have_the_declared_columns() -> None:
    one = np.zeros(1)
    device = Scanner.default(1e-9).device()
    driver = _core.PeakDetectionFamily(0, device, "/dev/null", "waveforms", 0)
    samples = np.array([[5, 50, 60, 5, 5]], np.uint16)
    count, flag, noise = np.array([5], np.uint16), np.ones(1, np.uint8), np.array([10], np.int32)
    block = driver.apply(samples, count, one, one, flag, noise, "")
    single = np.zeros(1, np.float32)
    on_board = _core.evaluate_online(device, one, one, single, np.ones(1, np.uint8), single)
    results = {
        "waveforms": block["waveforms"],
        "segments": block["segments"],
        "peaks": block["peaks"],
        "on_board": on_board,
    }
    assert results.keys() | {"echo_table"} == TABLES.keys()
    for table, columns in results.items():
        found = [(name, values.dtype.name, len(values)) for name, values in columns.items()]
        assert found == [(name, kind, 1) for name, kind in _core.RESULT_COLUMNS[table].items()]
