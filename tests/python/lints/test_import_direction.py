"""The lint for imports between the folders of the Python package."""

from __future__ import annotations

from pathlib import Path

import pytest

from .checkout import LINTS, faults, write

UPPER = ["io", "core", "data"]
ALLOWED = {
    "data": [],
    "core": ["data"],
    "io": ["data", "core"],
    "extraction": UPPER,
    "system_wave": ["extraction", *UPPER],
    "simulation": ["extraction", *UPPER],
    "analysis": ["extraction", *UPPER],
    "plotting": ["analysis", "data"],
    "cluster": ["extraction", *UPPER],
}
ALLOWED["api"] = list(ALLOWED)
ALLOWED["cli"] = list(ALLOWED)
PAIRS = [(part, other, other in ALLOWED[part]) for part in ALLOWED for other in ALLOWED]


def of_code(root: Path, name: str, code: str) -> list[str]:
    return faults("import_direction.py", write(root, {f"python/fullwaveform/{name}": f"{code}\n"}))


@pytest.mark.parametrize(("part", "other", "allowed"), PAIRS)
def test_direction(tmp_path: Path, part: str, other: str, allowed: bool) -> None:
    name = "api.py" if part == "api" else f"{part}/a.py"
    found = of_code(tmp_path, name, f"\nfrom fullwaveform.{other}.b import c")
    assert (found == []) == (allowed or part == other)
    assert all(f"{name}:2: fullwaveform.{other}.b.c: " in fault for fault in found)


@pytest.mark.parametrize(
    "code",
    [
        "import fullwaveform.cli.main",
        "import os, fullwaveform.cli",
        "from fullwaveform import cli",
        "from ..cli import main",
        "from .. import cli",
        "def late():\n    from fullwaveform.cli import main",
        "if TYPE_CHECKING:\n    from ..cli.main import app",
    ],
)
def test_every_form_of_import(tmp_path: Path, code: str) -> None:
    (fault,) = of_code(tmp_path, "io/a.py", code)
    assert fault.endswith("io must not import cli (allowed: core, data)")


def test_relative_import_from_a_nested_folder(tmp_path: Path) -> None:
    assert of_code(tmp_path, "io/las/a.py", "from ..base import Reader\nfrom . import b") == []
    assert len(of_code(tmp_path, "io/las/a.py", "from ...cli import main")) == 1


@pytest.mark.parametrize("code", ["from fullwaveform import _core", "import fullwaveform._core"])
def test_only_core_imports_the_compiled_module(tmp_path: Path, code: str) -> None:
    assert of_code(tmp_path, "core/a.py", code) == []
    for name in ("cli/a.py", "extraction/a.py", "api.py", "__init__.py"):
        assert "only core/ imports the compiled module" in "".join(
            of_code(tmp_path / "b", name, code)
        )


def test_top_level_gives_the_version_only(tmp_path: Path) -> None:
    assert of_code(tmp_path, "data/a.py", "from fullwaveform import __version__") == []
    assert len(of_code(tmp_path, "data/a.py", "from fullwaveform import Driver")) == 1
    assert len(of_code(tmp_path, "data/a.py", "import fullwaveform")) == 1


def test_entry_points(tmp_path: Path) -> None:
    assert of_code(tmp_path, "__init__.py", "from fullwaveform.io.a import b") == []
    assert of_code(tmp_path, "__main__.py", "from fullwaveform.cli.main import main") == []
    assert len(of_code(tmp_path, "__init__.py", "from fullwaveform.cli.main import main")) == 1


def test_every_folder_may_write_complete_files(tmp_path: Path) -> None:
    assert (
        of_code(tmp_path, "plotting/a.py", "from fullwaveform.io.atomic import atomic_open") == []
    )
    assert len(of_code(tmp_path, "plotting/a.py", "from fullwaveform.io.base import Reader")) == 1


def test_unknown_folder(tmp_path: Path) -> None:
    (fault,) = of_code(tmp_path, "helpers/a.py", "import os")
    assert "helpers is not in the Python table" in fault


def test_this_checkout() -> None:
    assert faults("import_direction.py", LINTS.parents[1]) == []
