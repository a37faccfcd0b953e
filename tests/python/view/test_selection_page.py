"""Selecting on the page in a real browser: box, bars, worst fits and files."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import numpy as np
import pytest
from playwright.sync_api import Browser, Locator, Page, Route, expect

from ..support.command_line import run
from . import page_scenes
from .pages import documented, middle_of, opened, pixels
from .serving import Served, served_files, served_scene

pytestmark = pytest.mark.slow

#: Colours of the classes 1 to 4, of the shots in the corners from south west on (Okabe and Ito).
_ORANGE, _SKY, _GREEN, _YELLOW = (230, 159, 0), (86, 180, 233), (0, 158, 115), (240, 228, 66)
_SELECTED = (255, 209, 102)


def wait_for(page: Page, echoes: int | str) -> None:
    """Wait until the selection is counted; "" without one."""
    expect(page.locator("#selection")).to_have_attribute("data-echoes", str(echoes))
    expect(page.locator("#selection")).to_have_attribute("data-state", "ready")


def corners(page: Page) -> dict[str, tuple[float, float]]:
    """Where on the page the shots are, found by their colours."""
    page.select_option("#colour", "class")
    box = page.locator("#map").bounding_box()
    assert box is not None
    names = {"SW": _ORANGE, "SE": _SKY, "NW": _GREEN, "NE": _YELLOW}
    found = {name: middle_of(page, colour) for name, colour in names.items()}
    return {name: (box["x"] + at["x"], box["y"] + at["y"]) for name, at in found.items()}


def drag(page: Page, start: tuple[float, float], end: tuple[float, float]) -> None:
    page.mouse.move(*start)
    page.mouse.down()
    page.mouse.move((start[0] + end[0]) / 2, (start[1] + end[1]) / 2)
    page.mouse.move(*end)
    page.mouse.up()


def select_east(page: Page) -> None:
    """A box around the shots 1 and 4, which have the echoes 1, 2 and 6."""
    at = corners(page)
    page.keyboard.down("Shift")
    drag(page, (at["NE"][0] - 20, at["NE"][1] - 5), (at["SE"][0] + 5, at["SE"][1] + 20))
    page.keyboard.up("Shift")
    wait_for(page, 3)


def open_statistics(page: Page) -> None:
    page.locator("#statistics summary").click()
    expect(page.locator("#histograms figure")).to_have_count(7)
    wait_for(page, page.locator("#selection").get_attribute("data-echoes") or "")


def histogram(page: Page, name: str) -> Locator:
    return page.locator(f'figure[data-name="{name}"]')


def counts(page: Page, name: str, what: str = "data-count") -> dict[int, int]:
    """Counts of a histogram by number of the bar, without those that are 0."""
    bars = histogram(page, name).locator(".bar").all()
    found = {i: int(bar.get_attribute(what) or 0) for i, bar in enumerate(bars)}
    return {i: count for i, count in found.items() if count}


def highlighted(page: Page) -> np.ndarray:
    return pixels(page, _SELECTED)


def at_places(page: Page, places: dict[str, tuple[float, float]]) -> set[str]:
    """The places of the page at which echoes are highlighted; no others are."""
    box = page.locator("#map").bounding_box()
    assert box is not None
    found = pixels(page, _SELECTED) + np.array([box["x"], box["y"]])
    near = {name: np.hypot(*(found - at).T) < 8 for name, at in places.items()}
    assert np.any(list(near.values()), axis=0).all()
    return {name for name, one in near.items() if one.any()}


def test_box_selects_the_echoes_in_it(page: Page) -> None:
    at = corners(page)
    select_east(page)
    expect(page.locator("#selection-status")).to_have_text("3 of 7 echoes selected, of 2 shots.")
    assert at_places(page, at) == {"SE", "NE"}
    expect(page.locator("#overlay .selection-box")).to_have_count(1)
    page.keyboard.press("Escape")
    wait_for(page, "")
    expect(page.locator("#selection-status")).to_have_text("No selection, 7 echoes.")
    expect(page.locator("#overlay .selection-box")).to_have_count(0)
    assert at_places(page, at) == set()


def test_box_is_drawn_with_the_tool(page: Page) -> None:
    at = corners(page)
    page.select_option("#tool", "box")
    drag(page, (at["SW"][0] - 5, at["SW"][1] + 5), (at["SE"][0] + 5, at["SE"][1] - 5))
    wait_for(page, 3)
    assert at_places(page, at) == {"SW", "SE"}
    # A click chooses an echo still, and leaves the selection.
    page.mouse.click(*at["SE"])
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "1")
    wait_for(page, 3)


def test_statistics_of_the_box_are_next_to_those_of_the_file(page: Page) -> None:
    select_east(page)
    open_statistics(page)
    assert counts(page, "echo_number") == {1: 4, 2: 2, 3: 1}
    assert counts(page, "echo_number", "data-selected") == {1: 2, 2: 1}
    # Shots, of which one has no echoes; those of the selection have 1 and 2.
    assert counts(page, "shot_echoes") == {0: 1, 1: 2, 2: 1, 3: 1}
    assert counts(page, "shot_echoes", "data-selected") == {1: 1, 2: 1}
    assert sum(counts(page, "amplitude", "data-selected").values()) == 3
    assert sum(counts(page, "noise").values()) == 5  # waveforms
    titles = {
        name: histogram(page, name).locator("svg > text").all_text_contents()
        for name in ("amplitude", "width", "shot_echoes", "noise")
    }
    assert titles == {
        "amplitude": ["amplitude, counts", "% of echoes"],
        "width": ["width (full, at half maximum), ns", "% of echoes"],
        "shot_echoes": ["echoes per shot", "% of shots"],
        "noise": ["noise rms, counts", "% of waveforms"],
    }


def test_bars_select_the_echoes_of_their_values(page: Page) -> None:
    at = corners(page)
    open_statistics(page)
    bars = histogram(page, "class").locator(".bar .place")
    bars.nth(3).click()
    wait_for(page, 3)
    # Places in a map that is smaller now.
    page.locator("#whole-map").click()
    expect(page.locator("#map")).to_have_attribute("data-complete", "true")
    bars.nth(4).click(modifiers=["Shift"])
    wait_for(page, 4)
    page.locator("#statistics summary").click()
    page.locator("#whole-map").click()
    expect(page.locator("#map")).to_have_attribute("data-complete", "true")
    assert at_places(page, at) == {"NW", "NE"}


@contextmanager
def served_noise(folder: Path) -> Iterator[Served]:
    """Waveforms with a noise rms of 0, 3, 6 and 6 counts, and an echo of each in a corner."""
    scan = page_scenes.write_waveforms(
        folder / "scan.las", [10 + rms * np.tile([-1, 1], 32) for rms in (0, 3, 6, 6)]
    )
    echoes = folder / "echoes.csv"
    lines = ["10,10,127,1,0", "90,10,127,2,1", "10,90,127,3,2", "90,90,127,4,3"]
    text = "\n".join(["x,y,z,classification,waveform_number", *lines])
    echoes.write_text(text, encoding="ascii")
    with served_files(scan, echoes) as served:
        yield served


def test_bars_of_the_noise_can_be_given_up(browser: Browser, tmp_path: Path) -> None:
    held: list[Route] = []
    with served_noise(tmp_path) as served:
        page = opened(served, browser)
        page.route("**/noise", lambda route: held.append(route))
        page.locator("#statistics summary").click()
        bars = histogram(page, "noise").locator("svg")
        bars.press("End")
        bars.press(" ")
        expect(page.locator("#selection")).to_have_attribute("data-state", "measuring")
        page.keyboard.press("Escape")
        wait_for(page, "")
        with page.expect_response("**/noise"):
            held[0].continue_()
        histogram(page, "class").locator(".bar .place").nth(1).click()
        wait_for(page, 1)  # none with the bar of the noise, whose echoes have classes 3 and 4
        assert counts(page, "class", "data-selected") == {1: 1}
        assert page.problems == []  # type: ignore[attr-defined]
        page.close()


def test_bars_of_the_noise_select_the_echoes_of_waveforms(browser: Browser, tmp_path: Path) -> None:
    with served_noise(tmp_path) as served:
        page = opened(served, browser)
        at = corners(page)
        page.locator("#statistics summary").click()
        bars = histogram(page, "noise").locator("svg")
        bars.press("End")
        bars.press(" ")
        wait_for(page, 2)
        assert counts(page, "noise") == {0: 1, 23: 1, 47: 2}
        assert counts(page, "noise", "data-selected") == {47: 2}
        assert counts(page, "class", "data-selected") == {3: 1, 4: 1}
        histogram(page, "noise").locator(".bar .place").first.click(modifiers=["Shift"])
        wait_for(page, 3)
        page.locator("#statistics summary").click()
        page.locator("#whole-map").click()
        expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        assert at_places(page, at) == {"SW", "NW", "NE"}
        assert page.problems == []  # type: ignore[attr-defined]
        page.close()


def test_bars_and_box_are_combined(page: Page) -> None:
    select_east(page)
    open_statistics(page)
    # All at once: bars are drawn anew when other counts arrive.
    first, last = (
        histogram(page, "echo_number")
        .locator(".bar .place")
        .evaluate_all("all => [2, 3].map((bar) => all[bar].getBoundingClientRect().toJSON())")
    )
    drag(page, (first["x"] + 5, first["y"] + 20), (last["x"] + 5, last["y"] + 20))
    wait_for(page, 1)  # echo 2 of shot 1
    assert counts(page, "class", "data-selected") == {2: 1}
    page.locator("#clear").click()
    wait_for(page, "")
    assert page.locator("#clear").is_disabled()


def test_selection_without_a_mouse(page: Page) -> None:
    page.locator("#statistics summary").press("Enter")
    expect(page.locator("#histograms figure")).to_have_count(7)
    bars = histogram(page, "echo_number").locator("svg")
    bars.focus()
    for key in ("ArrowRight", "ArrowRight", " "):
        page.keyboard.press(key)
    wait_for(page, 2)
    expect(bars).to_have_attribute("aria-activedescendant", "echo_number-bar-2")
    expect(page.locator("#echo_number-bar-2")).to_have_attribute("aria-selected", "true")
    expect(page.locator("#echo_number-bar-2")).to_have_attribute(
        "aria-label", "echo number 2: 2 echoes, 2 of the selection"
    )
    page.keyboard.press("Shift+ArrowRight")
    wait_for(page, 3)
    page.keyboard.press("Home")
    page.keyboard.press("End")
    page.keyboard.press(" ")
    wait_for(page, 2)
    for side, place in (("west", "85"), ("south", "0"), ("east", "95"), ("north", "100")):
        page.locator(f"#{side}").fill(place)
    page.locator("#north").press("Enter")
    wait_for(page, 1)
    bars.press("Delete")
    wait_for(page, 3)
    page.keyboard.press("Escape")
    wait_for(page, "")
    assert page.locator("#west").input_value() == ""
    page.locator("#map").press("b")
    wait_for(page, 7)


def test_worst_fits_lead_to_their_waveforms(page: Page) -> None:
    open_statistics(page)
    fits = page.locator("#worst button")
    expect(fits).to_have_text(
        ["9 · waveform 4", "2.5 · waveform 2", "1.5 · waveform 1", "1 · waveform 0"]
    )
    fits.nth(1).click()
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "2")
    fits.nth(0).press("Enter")
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "4")
    page.locator("#class-bar-2 .place").click()
    wait_for(page, 2)
    expect(fits).to_have_text(["1.5 · waveform 1"])


def test_saved_selection_has_the_rows_of_the_file(page: Page, viewer: Served) -> None:
    assert page.locator("#selection-files a").count() == 0
    select_east(page)
    before = sorted(viewer.scan.parent.iterdir())
    with page.expect_download() as started:
        page.locator("#selection-files a", has_text="csv").click()
    lines = (viewer.scan.parent / "echoes.csv").read_text().splitlines(keepends=True)
    expected = "".join([lines[0], lines[2], lines[3], lines[7]])  # echoes 1, 2 and 6
    assert Path(started.value.path()).read_text() == expected
    assert started.value.suggested_filename == "selected-echoes.csv"
    assert sorted(viewer.scan.parent.iterdir()) == before


def test_selections_of_two_pages_are_independent(
    viewer: Served, browser: Browser, page: Page
) -> None:
    other = opened(viewer, browser)
    select_east(page)
    open_statistics(other)
    other.locator("#class-bar-3 .place").click()
    wait_for(other, 3)
    wait_for(page, 3)
    assert counts(other, "class", "data-selected") == {3: 3}
    page.keyboard.press("Escape")
    wait_for(page, "")
    wait_for(other, 3)
    other.close()


def test_failed_request_does_not_end_the_counting(page: Page) -> None:
    """The selection changes while its numbers are asked for."""
    held: list[Route] = []
    page.route("**/selection?*", lambda route: held.append(route), times=1)
    with page.expect_request("**/selection?*"):
        page.locator("#map").press("b")
    page.keyboard.press("Escape")
    expect(page.locator("#clear")).to_be_disabled()
    held[0].abort()
    wait_for(page, "")
    expect(page.locator("#selection-status")).to_have_text("No selection, 7 echoes.")


def test_file_that_cannot_be_saved_is_explained(browser: Browser, tmp_path: Path) -> None:
    with served_scene(tmp_path) as served:
        page = opened(served, browser)
        page.locator("#map").press("b")
        wait_for(page, 7)
        (tmp_path / "echoes.csv").unlink()
        with page.expect_popup() as shown:
            page.locator("#selection-files a", has_text="csv").click()
        expect(shown.value.locator("body")).to_contain_text("was removed or renamed since")
        wait_for(page, 7)
        page.close()


def test_empty_selection_is_said(page: Page) -> None:
    select_east(page)
    open_statistics(page)
    page.locator("#echo_number-bar-3 .place").click()
    wait_for(page, 0)
    expect(page.locator("#selection-status")).to_have_text("0 of 7 echoes selected, of 0 shots.")
    expect(page.locator("#worst-note")).to_have_text("No echo of the selection has a reduced chi².")
    assert page.locator("#selection-files a").count() == 0


@pytest.mark.parametrize(
    ("lines", "echoes", "figures"),
    [
        (["10,10,127,nan", "90,90,127,4.7", "90,10,127,inf"], 3, ["width"]),
        (["10,10,127,nan"], 1, []),
        ([], 0, []),
    ],
    ids=["unknown widths", "one echo", "no echoes"],
)
def test_files_with_few_values(
    browser: Browser, tmp_path: Path, lines: list[str], echoes: int, figures: list[str]
) -> None:
    content = "\n".join(["x,y,z,fwhm_ns", *lines]) + "\n"
    with served_scene(tmp_path, echoes=content) as served:
        page = opened(served, browser)
        page.locator("#statistics summary").click()
        shown = [figure.get_attribute("data-name") for figure in page.locator("figure").all()]
        assert shown == [*figures, "noise"]
        page.locator("#map").press("b")
        wait_for(page, echoes)
        note = "The echoes have no reduced chi²; only mode pulse-fit computes it."
        expect(page.locator("#worst-note")).to_have_text(note)
        if figures:
            histogram(page, "width").locator("svg").press("End")
            page.keyboard.press("Shift+Home")
            wait_for(page, 1)
        assert page.problems == []  # type: ignore[attr-defined]
        page.close()


def test_picture_in_the_documents(browser: Browser, tmp_path: Path) -> None:
    """A box and bars of a simulated scan, and the worst fit of the selection."""
    scan, echoes = tmp_path / "scan.las", tmp_path / "echoes.csv"
    assert run("simulate", scan, "--shots", "600").exit_code == 0
    assert run("extract", scan, "-o", echoes, "--mode", "pulse-fit").exit_code == 0
    with served_files(scan, echoes) as served:
        page = opened(served, browser)
        page.locator("#statistics summary").click()
        page.locator("#map").press("+")
        page.locator("#map").press("b")
        bars = histogram(page, "echo_number").locator("svg")
        for key in ("ArrowRight", "ArrowRight", " ", "Shift+ArrowRight"):
            bars.press(key)
        page.locator("#map").press("-")
        expect(page.locator("#selection")).to_have_attribute("data-state", "ready")
        fit = page.locator("#worst button").first
        fit.click()
        expect(page.locator("#panel")).to_have_attribute(
            "data-waveform", fit.get_attribute("data-waveform") or ""
        )
        expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        expect(page.locator("body")).to_have_attribute("data-busy", "false")
        assert documented(page, "view-statistics.png", tmp_path)
        page.close()
