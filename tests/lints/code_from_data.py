"""Checks that Python code cannot execute file content: no pickle, eval and similar.

Usage: code_from_data.py [ROOT]    (ROOT: top of a git checkout, default: the one of this file)
"""

from __future__ import annotations

import ast
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

# Top-level names of modules whose formats can hold code or calls.
MODULES = frozenset(
    {"cloudpickle", "code", "dill", "joblib", "marshal", "pickle", "shelve", "_pickle"}
)
CALLS = frozenset({"eval", "exec", "compile", "__import__"})
# Methods that can execute what they read, on any object.
METHODS = frozenset({"read_pickle", "to_pickle", "load_module", "unsafe_load", "full_load"})
# The only safe names of these modules.
ONLY = {"yaml": frozenset({"safe_load", "safe_dump", "YAMLError"})}
FLAGS = frozenset({"allow_pickle", "shell"})  # allowed only as False

# Tests run the code of the documents, and create pickles that must be rejected.
EXEMPT = "tests/python/"


def python_files(root: Path) -> list[Path]:
    """Python files of the checkout, added to git or not."""
    listing = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", "--", "*.py"],
        cwd=root,
        check=True,
        capture_output=True,
    ).stdout
    names = sorted(name for name in listing.decode().split("\0") if name)
    paths = [root / name for name in names if not name.startswith(EXEMPT)]
    return [path for path in paths if path.is_file()]


def faults_of(tree: ast.AST) -> Iterator[tuple[int, str]]:
    """Line and the unsafe expression."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            for one in node.names:
                if one.name.split(".")[0] in MODULES:
                    yield node.lineno, f"import {one.name}"
        elif isinstance(node, ast.ImportFrom) and node.level == 0:
            yield from _faults_of_from(node)
        elif isinstance(node, ast.Call):
            yield from _faults_of_call(node)


def _faults_of_from(node: ast.ImportFrom) -> Iterator[tuple[int, str]]:
    module = (node.module or "").split(".")[0]
    if module in MODULES:
        yield node.lineno, f"from {node.module} import"
    for one in node.names:
        if module in ONLY and one.name not in ONLY[module]:
            yield node.lineno, f"{module}.{one.name}"


def _faults_of_call(node: ast.Call) -> Iterator[tuple[int, str]]:
    called = node.func
    if isinstance(called, ast.Name) and called.id in CALLS:
        yield node.lineno, f"{called.id}()"
    if isinstance(called, ast.Attribute):
        owner = called.value.id if isinstance(called.value, ast.Name) else ""
        if called.attr in METHODS or (owner == "builtins" and called.attr in CALLS):
            yield node.lineno, f"{called.attr}()"
        elif owner in ONLY and called.attr not in ONLY[owner]:
            yield node.lineno, f"{owner}.{called.attr}()"
    for keyword in node.keywords:
        harmless = isinstance(keyword.value, ast.Constant) and keyword.value.value is False
        if keyword.arg in FLAGS and not harmless:
            yield node.lineno, f"{keyword.arg}="


def check(root: Path) -> Iterator[str]:
    """Faults of a checkout, one line each."""
    for path in python_files(root):
        tree = ast.parse(path.read_bytes(), str(path))
        for line, what in sorted(faults_of(tree)):
            yield f"{path.relative_to(root)}:{line}: {what}: could execute data as code"


def main(arguments: list[str]) -> int:
    """Prints every fault; returns 1 if there is one."""
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2]
    faults = list(check(root))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
