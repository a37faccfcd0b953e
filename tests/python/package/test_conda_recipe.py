"""The conda recipe follows the schema of rattler-build and states what pyproject.toml states."""

from __future__ import annotations

import re
import tomllib
from pathlib import Path
from typing import Any

import pytest
from rattler_build import Stage0Recipe, VariantConfig

ROOT = Path(__file__).resolve().parents[3]
# PyPI name with its extra -> conda-forge packages.
CONDA_NAMES = {
    "isal": ("python-isal",),
    "laspy[lazrs]": ("laspy", "lazrs-python"),
    "matplotlib": ("matplotlib-base",),
}
REQUIREMENT = re.compile(r"([A-Za-z0-9_.-]+(?:\[[a-z,]+\])?)(.*)")


def on_conda(requirements: list[str]) -> set[str]:
    """Requirements of PyPI in the notation of conda; the bound belongs to the first package."""
    found = set()
    for requirement in requirements:
        match = REQUIREMENT.fullmatch(requirement)
        assert match is not None
        first, *others = CONDA_NAMES.get(match[1], (match[1],))
        assert "[" not in first
        found |= {f"{first} {match[2]}", *others}
    return found


@pytest.fixture(scope="module")
def document() -> dict[str, Any]:
    return tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))


@pytest.fixture(scope="module")
def recipe() -> dict[str, Any]:
    """The recipe as rattler-build understands it for this machine; it refuses unknown fields."""
    variants = VariantConfig.from_yaml("c_stdlib: [sysroot]\n")
    (rendered,) = Stage0Recipe.from_file(ROOT / "conda" / "recipe.yaml").render(variants)
    return rendered.recipe.to_dict()


def test_name_and_version_are_those_of_the_package(
    recipe: dict[str, Any], document: dict[str, Any]
) -> None:
    project = document["project"]
    assert recipe["package"] == {"name": project["name"], "version": project["version"]}
    assert recipe["about"]["summary"] == project["description"]


def test_packages_to_run_are_those_of_the_package(
    recipe: dict[str, Any], document: dict[str, Any]
) -> None:
    project = document["project"]
    python = f"python {project['requires-python']}"
    assert set(recipe["requirements"]["run"]) == {python, *on_conda(project["dependencies"])}


def test_extras_are_constraints(recipe: dict[str, Any], document: dict[str, Any]) -> None:
    extras = document["project"]["optional-dependencies"].values()
    needed = [requirement for extra in extras for requirement in extra]
    assert set(recipe["requirements"]["run_constraints"]) == on_conda(needed)


def test_packages_to_build_are_those_of_the_package(
    recipe: dict[str, Any], document: dict[str, Any]
) -> None:
    python = f"python {document['project']['requires-python']}"
    build = on_conda(document["build-system"]["requires"])
    assert set(recipe["requirements"]["host"]) == {python, "pip", "fftw >=3.3", *build}
    cmake = document["tool"]["scikit-build"]["cmake"]["version"]
    assert f"cmake {cmake}" in recipe["requirements"]["build"]
