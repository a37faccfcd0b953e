"""The lint for code that could execute data."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from .checkout import LINTS, faults, write


def of_code(root: Path, code: str, name: str = "package/a.py") -> list[str]:
    write(root, {name: code})
    subprocess.run(["git", "init", "--quiet", root], check=True)
    return faults("code_from_data.py", root)


@pytest.mark.parametrize(
    "code",
    [
        "import pickle",
        "import marshal as m",
        "import os, shelve",
        "from pickle import loads",
        "from joblib.externals import loky",
        "eval(text)",
        "exec(text)",
        "code = compile(text, 'a', 'exec')",
        "import builtins\nbuiltins.eval(text)",
        "np.load(path, allow_pickle=True)",
        "np.load(path, allow_pickle=flag)",
        "subprocess.run(text, shell=True)",
        "frame = pandas.read_pickle(path)",
        "yaml.load(text)",
        "from yaml import load",
    ],
)
def test_code_from_data(tmp_path: Path, code: str) -> None:
    (fault,) = of_code(tmp_path, f"'''text'''\n{code}\n")
    assert fault.startswith(f"package/a.py:{2 + code.count(chr(10))}: ")


@pytest.mark.parametrize(
    "code",
    [
        "np.load(path, allow_pickle=False)",
        "re.compile(text)",
        "yaml.safe_load(text)",
        "from yaml import safe_load",
        "from .pickle import field",
        "model.eval()",
        "# import pickle\n'eval(text)'",
    ],
)
def test_accepted_code(tmp_path: Path, code: str) -> None:
    assert of_code(tmp_path, code) == []


def test_tests_may_execute_documents(tmp_path: Path) -> None:
    assert of_code(tmp_path, "exec(document)", name="tests/python/test_a.py") == []
    assert len(of_code(tmp_path, "exec(document)", name="tests/soak/a.py")) == 1


def test_this_checkout() -> None:
    assert faults("code_from_data.py", LINTS.parents[1]) == []
