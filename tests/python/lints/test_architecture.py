"""The reader of the tables in docs/architecture.md."""

from __future__ import annotations

import importlib.util
from pathlib import Path
from types import ModuleType

import pytest

from .checkout import LINTS


@pytest.fixture(scope="module")
def architecture() -> ModuleType:
    found = importlib.util.spec_from_file_location("architecture", LINTS / "architecture.py")
    assert found is not None
    assert found.loader is not None
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


def page(folder: Path, table: str, heading: str = "### Rows") -> Path:
    path = folder / "page.md"
    path.write_text(f"# Page\n\n{heading}\n\nText.\n\n```text\n{table}\n```\n", encoding="utf-8")
    return path


def test_table(architecture: ModuleType, tmp_path: Path) -> None:
    path = page(tmp_path, "a -> nothing\nb -> a\nlong_name -> a, b")
    expected = {"a": set(), "b": {"a"}, "long_name": {"a", "b"}}
    assert architecture.allowed_dependencies("Rows", path) == expected


@pytest.mark.parametrize("table", ["a: b", "a -> b", "a -> ", "", "a -> a b"])
def test_unreadable_table(architecture: ModuleType, tmp_path: Path, table: str) -> None:
    with pytest.raises(architecture.TableError):
        architecture.allowed_dependencies("Rows", page(tmp_path, table))


def test_missing_table(architecture: ModuleType, tmp_path: Path) -> None:
    with pytest.raises(architecture.TableError):
        architecture.allowed_dependencies("Rows", page(tmp_path, "a -> nothing", "### Other"))


def test_tables_name_the_folders(architecture: ModuleType) -> None:
    root = LINTS.parents[1]
    modules = {path.parent.name for path in root.glob("fullwaveform/*/CMakeLists.txt")}
    assert set(architecture.allowed_dependencies("C++")) == modules
    folders = {path.parent.name for path in root.glob("python/fullwaveform/*/__init__.py")}
    assert set(architecture.allowed_dependencies("Python")) == folders | {"api"}
