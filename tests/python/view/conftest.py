"""Set-up of the tests of the viewer: a cache folder of their own, indexes, a browser and a page."""

from __future__ import annotations

import shutil
from collections.abc import Iterator
from pathlib import Path
from typing import TYPE_CHECKING

import pytest

from fullwaveform.io.opening import open_waveforms
from fullwaveform.view.directory import BLOCK, WaveformDirectory
from fullwaveform.view.echo_index import EchoIndex

from . import scenes

if TYPE_CHECKING:
    from playwright.sync_api import Browser, Page

    from .serving import Served


@pytest.fixture(scope="package", autouse=True)
def cache(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Path]:
    folder = tmp_path_factory.mktemp("cache")
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("XDG_CACHE_HOME", str(folder))
        yield folder


@pytest.fixture(scope="package")
def browser() -> Iterator[Browser]:
    # Here, so that the tests without a browser do not need its driver.
    from playwright.sync_api import sync_playwright

    program = shutil.which("chromium")
    assert program, "the Debian package chromium is missing; ./dev setup installs it"
    # Without a sandbox, which needs more rights than a container gives; the page is our own.
    options = ["--no-sandbox", "--use-gl=angle", "--use-angle=swiftshader"]
    options.append("--enable-unsafe-swiftshader")
    with sync_playwright() as playwright:
        launched = playwright.chromium.launch(executable_path=program, args=options)
        yield launched
        launched.close()


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The scan of the scene."""
    return scenes.write_scan(tmp_path_factory.mktemp("scan") / "scan.las")


@pytest.fixture(scope="module")
def viewer(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Served]:
    from .serving import served_scene

    with served_scene(tmp_path_factory.mktemp("view")) as served:
        yield served


@pytest.fixture
def page(viewer: Served, browser: Browser) -> Iterator[Page]:
    """The page of the scene; its scripts must not have failed at the end."""
    from .pages import opened

    page = opened(viewer, browser)
    yield page
    problems = page.problems  # type: ignore[attr-defined]
    page.close()
    assert problems == []


@pytest.fixture(scope="module")
def waveforms(scan: Path) -> Iterator[WaveformDirectory]:
    with open_waveforms(scan, waveforms_per_block=BLOCK) as reader:
        directory = WaveformDirectory.of(reader, {})
        yield directory
        directory.close()


@pytest.fixture(scope="module")
def index(
    waveforms: WaveformDirectory, tmp_path_factory: pytest.TempPathFactory
) -> Iterator[EchoIndex]:
    path = scenes.write_echoes(tmp_path_factory.mktemp("echoes") / "echoes.csv")
    echoes = EchoIndex.of(path, waveforms)
    yield echoes
    echoes.close()
