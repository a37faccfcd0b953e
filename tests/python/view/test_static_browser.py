"""The page without a server in a real browser that has no network."""

from __future__ import annotations

import io
import os
from pathlib import Path

import numpy as np
import pytest
from matplotlib import image
from playwright.sync_api import Browser, Page, expect

from fullwaveform.core.driver import Mode
from fullwaveform.simulation import ScanSettings, simulate_scan
from fullwaveform.simulation import write_scan as write_simulated
from fullwaveform.view.legible import contrast

from ..support.child_processes import TIMEOUT_S
from . import page_scenes as scenes

pytestmark = pytest.mark.slow

ROOT = Path(__file__).parents[3]


@pytest.fixture(scope="module")
def scan(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return scenes.write_scan(tmp_path_factory.mktemp("scan") / "scan.las")


@pytest.fixture(scope="module")
def written(scan: Path) -> Path:
    scenes.written_page(scan, scan.with_name("page.html"))
    return scan.with_name("page.html")


def opened(browser: Browser, path: Path, scheme: str = "light", media: str = "screen") -> Page:
    """The page in a context without a network; `problems` are messages of its console."""
    context = browser.new_context(
        offline=True,
        color_scheme=scheme,  # type: ignore[arg-type]
        viewport={"width": 1180, "height": 900},
    )
    page = context.new_page()
    page.set_default_timeout(TIMEOUT_S * 1000)
    page.problems = []  # type: ignore[attr-defined]
    page.on("console", lambda message: page.problems.append(message.text))  # type: ignore[attr-defined]
    page.on("pageerror", lambda error: page.problems.append(str(error)))  # type: ignore[attr-defined]
    page.on("request", lambda request: page.problems.append(request.url))  # type: ignore[attr-defined]
    page.emulate_media(media=media)  # type: ignore[arg-type]
    page.goto(path.as_uri())
    return page


def close(page: Page, path: Path) -> None:
    """Close the page, which has asked for nothing but itself and the picture within it."""
    problems = page.problems  # type: ignore[attr-defined]
    page.context.close()
    assert [text[:100] for text in problems if not text.startswith("data:image/png")] == [
        path.as_uri()
    ]


def pixels(page: Page, selector: str) -> np.ndarray:
    """Colours (rows, columns, 3) of the first element, 0 to 255."""
    picture = image.imread(io.BytesIO(page.locator(selector).first.screenshot()))
    return np.round(picture[:, :, :3] * 255).astype(int)


def count_of(colours: np.ndarray, wanted: str) -> int:
    """Number of pixels of a colour "rgb(r, g, b)"."""
    parts = np.array([int(part) for part in wanted[4:-1].split(",")])
    return int((abs(colours - parts) <= 2).all(axis=2).sum())


def style(page: Page, selector: str, name: str) -> str:
    found = page.locator(selector).first.evaluate(
        "(element, name) => getComputedStyle(element)[name]", name
    )
    return str(found)


def as_hex(colour: str) -> str:
    return "#" + "".join(f"{int(part):02x}" for part in colour[4:-1].split(","))


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_pictures_are_drawn_and_nothing_is_asked_for(
    browser: Browser, written: Path, scheme: str
) -> None:
    page = opened(browser, written, scheme)
    assert page.title() == "scan.las – waveforms and echoes"
    figure = "#most figure:first-of-type svg"
    drawn = pixels(page, figure)
    for mark in (".echoes", ".samples", ".fitted"):
        assert count_of(drawn, style(page, f"{figure} {mark}", "stroke")) > 50
    bars = pixels(page, "#statistics svg")
    assert count_of(bars, style(page, "#statistics .bars", "fill")) > 500
    # Sixty shots on a grid of 8 by 8, three of them without echoes: marks of 7 pixels.
    map_picture = pixels(page, "#map svg")
    covered = (map_picture.max(axis=2) - map_picture.min(axis=2) > 60).mean()
    assert covered > 0.01
    close(page, written)


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_text_can_be_read(browser: Browser, written: Path, scheme: str) -> None:
    page = opened(browser, written, scheme)
    behind = as_hex(style(page, "body", "backgroundColor"))
    of_example = as_hex(style(page, ".example", "backgroundColor"))
    assert contrast(behind, "#ffffff" if scheme == "light" else "#000000") < 1.3
    assert contrast(as_hex(style(page, "h1", "color")), behind) >= 7.0
    for selector, property_, background in (
        ("figcaption", "color", behind),
        ("nav a", "color", behind),
        (".example caption", "color", of_example),
        (".example code", "color", of_example),
        (".example text", "fill", of_example),
        (".example .echoes", "stroke", of_example),
    ):
        assert contrast(as_hex(style(page, selector, property_)), background) >= 4.5
    close(page, written)


def test_every_section_is_reached_with_the_keyboard(browser: Browser, written: Path) -> None:
    page = opened(browser, written)
    for name in ("summary", "statistics", "map"):
        page.keyboard.press("Tab")
        page.keyboard.press("Enter")
        assert page.url.endswith(f"#{name}")
        expect(page.locator(f"#{name}-heading")).to_be_in_viewport()
        page.locator(f'nav a[href="#{name}"]').focus()
    close(page, written)


def test_printed_page_is_light(browser: Browser, written: Path) -> None:
    page = opened(browser, written, "dark", "print")
    assert style(page, "body", "backgroundColor") == "rgb(255, 255, 255)"
    assert len(page.pdf()) > 50_000
    close(page, written)


@pytest.mark.parametrize("shots", [scenes.EMPTY, (33,), scenes.SATURATED])
def test_unusual_files(browser: Browser, tmp_path: Path, shots: tuple[int, ...]) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las", shots)
    for mode in (Mode.THREE_POINT, Mode.DECOMPOSITION):
        path = tmp_path / f"{mode}.html"
        scenes.written_page(scan, path, mode)
        page = opened(browser, path)
        expect(page.locator("h2")).to_have_count(9)
        close(page, path)


def test_malicious_name_runs_nothing(browser: Browser, tmp_path: Path) -> None:
    name = "<img src=x onerror=alert(1)><script>alert(2)<&.las"
    scan = scenes.write_scan(tmp_path / name, range(5))
    path = tmp_path / "page.html"
    scenes.written_page(scan, path)
    page = opened(browser, path)
    expect(page.locator("h1")).to_have_text(name)
    assert page.locator("h1 *").count() == 0
    close(page, path)


def test_picture_in_the_documents(
    browser: Browser, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Drawn anew into the folder of FULLWAVEFORM_PICTURES, if that is set."""
    monkeypatch.chdir(tmp_path)  # the commands of the page name the scan without a folder
    scan = write_simulated(simulate_scan(ScanSettings(shots=300)), "scan.las").las
    path = tmp_path / "page.html"
    scenes.written_page(scan, path)
    page = opened(browser, path)
    page.locator("#most").evaluate("element => element.scrollIntoView()")
    target = Path(os.environ.get("FULLWAVEFORM_PICTURES", tmp_path)) / "static-page.png"
    page.screenshot(path=target)
    shown, made = (image.imread(one) for one in (ROOT / "docs" / "static-page.png", target))
    assert shown.shape == made.shape
    # Fonts differ between machines; the areas of the page do not.
    areas = [
        picture[:900, :1150, :3].reshape(18, 50, 23, 50, 3).mean(axis=(1, 3))
        for picture in (shown, made)
    ]
    assert abs(areas[0] - areas[1]).mean() < 0.01
    page.context.close()
