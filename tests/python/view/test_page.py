"""The page in a real browser, on a scene worked out by hand."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any

import pytest
from playwright.sync_api import Browser, Page, Route, expect

from ..support.command_line import run
from . import scenes
from .pages import documented, middle_of, opened, pixels
from .serving import Served, served_files, served_scene

pytestmark = pytest.mark.slow

#: Colours of the classes 1 to 4 of the scene, as the page promises them (Okabe and Ito).
_ORANGE, _SKY, _GREEN, _YELLOW = (230, 159, 0), (86, 180, 233), (0, 158, 115), (240, 228, 66)


def colour_by_class(page: Page) -> None:
    page.select_option("#colour", "class")


def choose_shot_four(page: Page) -> None:
    """Click the echo of class 4, the only one of waveform 4."""
    colour_by_class(page)
    page.locator("#map").click(position=middle_of(page, _YELLOW))  # type: ignore[arg-type]
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "4")


def echoes(page: Page, mode: str) -> list[tuple[float, float, float]]:
    """Position, amplitude and width of the echoes of a mode in the panel."""
    found = page.locator(f'#panel .echo[data-mode="{mode}"]')
    names = ("data-position", "data-amplitude", "data-width")
    return [
        tuple(float(one.get_attribute(name) or "nan") for name in names)  # type: ignore[misc]
        for one in found.all()
    ]


def press(page: Page, key: str, waveform: int) -> None:
    """Press a key and wait for the waveform to which it moves."""
    page.keyboard.press(key)
    expect(page.locator("#panel")).to_have_attribute("data-waveform", str(waveform))


def test_opens_with_its_title_and_all_echoes(page: Page) -> None:
    assert page.title() == "scan.las – fullwaveform view"
    expect(page.locator("#map")).to_have_attribute("data-points", "7")
    expect(page.locator("#status")).to_have_text("Click an echo to see its waveform.")


def test_map_shows_the_echoes_at_their_places(page: Page) -> None:
    """Shots of classes 1 to 4 are in the corners of a square, south west first."""
    colour_by_class(page)
    west_south, east_south = middle_of(page, _ORANGE), middle_of(page, _SKY)
    west_north, east_north = middle_of(page, _GREEN), middle_of(page, _YELLOW)
    assert west_south["x"] == pytest.approx(west_north["x"], abs=2)
    assert east_south["x"] == pytest.approx(east_north["x"], abs=2)
    assert west_south["y"] == pytest.approx(east_south["y"], abs=2)
    assert west_north["y"] == pytest.approx(east_north["y"], abs=2)
    # x grows to the right and y upwards, by the same number of pixels.
    width, height = east_south["x"] - west_south["x"], west_south["y"] - west_north["y"]
    assert width == pytest.approx(height, abs=2)
    assert width > 300


def test_click_on_an_echo_shows_its_waveform(page: Page) -> None:
    choose_shot_four(page)
    ((position, amplitude, width),) = echoes(page, "three-point")
    assert position == pytest.approx(24.0, abs=0.01)
    assert amplitude == pytest.approx(1000.0, abs=1.0)
    assert width == pytest.approx(2.0, abs=0.01)
    heading = page.locator("#panel h2").first
    expect(heading).to_have_text("Waveform 4, low-power channel, GPS time 104.000000 s")
    table = page.locator('#panel table[data-mode="three-point"] tbody tr')
    assert table.count() == 1
    expect(page.locator("#panel .return")).to_have_count(1)
    expect(page.locator("#panel .threshold")).to_have_count(1)


def test_modes_and_threshold_are_computed_at_once(page: Page) -> None:
    choose_shot_four(page)
    page.locator("#modes input[value=decomposition]").check()
    expect(page.locator('#panel .echo[data-mode="decomposition"]')).to_have_count(1)
    expect(page.locator("#panel .residuals")).to_have_count(1)
    page.locator("#modes input[value=three-point]").uncheck()
    expect(page.locator('#panel .echo[data-mode="three-point"]')).to_have_count(0)
    page.locator("#threshold").fill("1011")
    page.locator("#threshold").press("Enter")
    expect(page.locator("#panel .echo")).to_have_count(0)
    expect(page.locator("#panel .threshold")).to_have_attribute("data-height", "1011")
    page.locator("#modes input[value=deconvolution]").check()
    expect(page.locator("#status")).to_contain_text("needs the scanner's system wave")


def test_keys_move_between_echoes_shots_and_waveforms(page: Page) -> None:
    choose_shot_four(page)
    press(page, "p", 2)
    press(page, "k", 1)
    press(page, "n", 1)
    press(page, "n", 2)
    press(page, "w", 3)
    expect(page.locator("#status")).to_contain_text("no echo on the map")
    press(page, "j", 4)
    press(page, "W", 3)
    press(page, "M", 2)  # more than 2 echoes
    press(page, "x", 4)  # reduced chi square above 2
    page.keyboard.press("x")
    expect(page.locator("#status")).to_have_text("There is none in this direction.")


def test_map_is_used_without_a_mouse(page: Page) -> None:
    page.locator("#map").focus()
    page.keyboard.press("+")
    page.keyboard.press("ArrowRight")
    page.keyboard.press("Enter")
    expect(page.locator("#panel")).to_have_attribute("data-waveform", re.compile(r"\d"))
    page.locator("#side-here").press("Enter")
    expect(page.locator("#overlay .side-line")).to_have_count(1)
    page.locator("#side-off").press("Enter")
    expect(page.locator("#overlay .side-line")).to_have_count(0)
    unnamed = "button:not(:has-text(' ')):not([title]):not([aria-label])"
    assert page.locator(f"#moves {unnamed}").count() == 0


def test_line_on_the_map_shows_the_side(page: Page) -> None:
    """Along the south edge: the echo of shot 0 at 127 m, and those of shot 1 at 127 and 124 m."""
    colour_by_class(page)
    ends = middle_of(page, _ORANGE), middle_of(page, _SKY)
    box = page.locator("#map").bounding_box()
    assert box is not None
    page.select_option("#tool", "line")
    page.mouse.move(box["x"] + ends[0]["x"] - 20, box["y"] + ends[0]["y"])
    page.mouse.down()
    page.mouse.move(box["x"] + ends[1]["x"] + 20, box["y"] + ends[1]["y"], steps=4)
    page.mouse.up()
    page.locator("#side-width").fill("20")
    page.locator("#side-width").press("Enter")
    expect(page.locator("#overlay .side-line")).to_have_count(1)
    box = page.locator("#map").bounding_box()  # above the fields of the side view
    assert box is not None
    below = 0.64 * box["height"]
    orange, blue = (
        found[found[:, 1] > below] for found in (pixels(page, _ORANGE), pixels(page, _SKY))
    )
    assert len(orange) > 0
    assert orange[:, 0].mean() < blue[:, 0].min()
    upper = blue[blue[:, 1] < blue[:, 1].mean()]
    lower = blue[blue[:, 1] > blue[:, 1].mean()]
    assert upper[:, 1].mean() == pytest.approx(orange[:, 1].mean(), abs=2)
    assert lower[:, 1].mean() > upper[:, 1].mean() + 50


def test_picture_is_that_of_the_command(page: Page, viewer: Served) -> None:
    choose_shot_four(page)
    with page.expect_download() as started:
        page.locator('#export a[data-kind="svg"]').click()
    saved = Path(started.value.path())
    command = page.locator("#command").text_content() or ""
    words = command.split()
    output = viewer.scan.parent / "picture.svg"
    call = [*words[1 : words.index("-o")], "-o", output]
    assert run(*call).exit_code == 0
    assert saved.read_bytes() == output.read_bytes()


def test_two_pages_are_independent(viewer: Served, browser: Browser, page: Page) -> None:
    other = opened(viewer, browser)
    choose_shot_four(page)
    choose_shot_four(other)
    press(other, "p", 2)
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "4")
    other.close()


def test_another_file_is_chosen_while_the_first_one_loads(browser: Browser, tmp_path: Path) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las")
    files = [scenes.write_echoes(tmp_path / name) for name in ("a.csv", "b.csv")]
    with served_files(scan, *files) as served:
        page = browser.new_page()
        held: list[Route] = []
        page.route("**/layers/0/points*", lambda route: held.append(route))
        with page.expect_request("**/layers/0/points*"):
            page.goto(served.address)
        page.select_option("#layer", "1")
        expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        assert held
        for route in held:
            route.continue_()
        page.close()


def test_no_request_leaves_the_server(viewer: Served, browser: Browser) -> None:
    page = browser.new_page()
    asked: list[str] = []
    page.on("request", lambda request: asked.append(request.url))
    page.goto(viewer.address)
    expect(page.locator("#map")).to_have_attribute("data-complete", "true")
    assert len(asked) > 8
    assert [url for url in asked if not url.startswith((viewer.address, "data:"))] == []
    page.close()


def test_removed_file_is_reported(browser: Browser, tmp_path: Path) -> None:
    with served_scene(tmp_path) as served:
        page = opened(served, browser)
        choose_shot_four(page)
        served.scan.rename(tmp_path / "elsewhere.las")
        page.keyboard.press("k")
        expect(page.locator("#status")).to_contain_text("was removed or renamed since")
        expect(page.locator("#status")).to_have_class("error")
        page.close()


def test_stopped_viewer_is_reported(browser: Browser, tmp_path: Path) -> None:
    with served_scene(tmp_path) as served:
        page = opened(served, browser)
        choose_shot_four(page)
        served.stop()
        page.keyboard.press("p")
        expect(page.locator("#status")).to_contain_text("The viewer does not answer")
        page.close()


def test_address_of_another_run_is_refused(viewer: Served, browser: Browser) -> None:
    page = browser.new_page()
    answer = page.goto(viewer.address[:-2] + "/")
    assert answer is not None
    assert answer.status == 403
    assert "belongs to a viewer that has ended" in page.locator("body").inner_text()
    page.close()


def test_name_of_a_file_is_text(browser: Browser, tmp_path: Path) -> None:
    name = "<img src=x onerror=alert(1)><script>alert(2)<&.las".replace("/", "")
    with served_scene(tmp_path, name) as served:
        page = opened(served, browser)
        dialogs: list[Any] = []
        page.on("dialog", lambda dialog: dialogs.append(dialog.dismiss()))
        expect(page.locator("#title")).to_have_text(name)
        assert page.title() == f"{name} – fullwaveform view"
        assert page.locator("h1 *").count() == 0
        choose_shot_four(page)
        assert dialogs == []
        page.close()


def test_picture_in_the_documents(
    browser: Browser, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A simulated scan from above and from the side, and a waveform with three or more echoes."""
    monkeypatch.chdir(tmp_path)  # the command in the panel names the file as it was given
    scan, points = Path("scan.las"), Path("echoes.las")
    assert run("simulate", scan, "--shots", "4000").exit_code == 0
    assert run("extract", scan, "-o", points, "--mode", "decomposition").exit_code == 0
    with served_files(scan, points) as served:
        page = opened(served, browser)
        page.locator("#map").press("Enter")
        expect(page.locator("#panel")).to_have_attribute("data-waveform", re.compile("[0-9]+"))
        before = page.locator("#panel").get_attribute("data-waveform") or ""
        page.locator("#many-limit").fill("4")
        page.locator("#moves button[data-kind=many][data-step='1']").click()
        expect(page.locator("#panel")).not_to_have_attribute("data-waveform", before)
        page.locator("#modes input[value=decomposition]").check()
        expect(page.locator("#panel .residuals")).not_to_have_count(0)
        page.select_option("#tool", "line")
        page.locator("#side-width").fill("12")
        area = page.locator("#map").bounding_box()
        assert area is not None
        page.mouse.move(area["x"] + 100, area["y"] + 10)
        page.mouse.down()
        page.mouse.move(area["x"] + 367, area["y"] + 581)
        page.mouse.up()
        expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        expect(page.locator("body")).to_have_attribute("data-busy", "false")
        assert documented(page, "view.png", tmp_path)
        page.close()
