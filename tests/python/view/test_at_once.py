"""Several viewers, several files of echoes, and clients that do not wait for their answer."""

from __future__ import annotations

import json
import socket
import struct
from pathlib import Path
from urllib.parse import urlsplit
from urllib.request import urlopen

import pytest
from playwright.sync_api import Browser, Page, expect

from ..support.child_processes import TIMEOUT_S
from . import scenes
from .pages import middle_of, opened
from .serving import served_files, served_scene
from .test_page import choose_shot_four, colour_by_class, press

#: Colours of the classes 1 and 4, as the page promises them (Okabe and Ito).
ORANGE, YELLOW = (230, 159, 0), (240, 228, 66)
HEADER = "x,y,z,gps_time,echo_number,amplitude,classification,waveform_number"


def reset_while_asking(address: str, path: str) -> None:
    """Ask for something, and reset the connection without reading it."""
    parts = urlsplit(address)
    with socket.create_connection((parts.hostname or "", parts.port or 0), TIMEOUT_S) as client:
        host = f"{parts.hostname}:{parts.port}"
        client.sendall(f"GET {parts.path}{path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode())
        client.recv(1)  # the answer has begun
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def test_lost_clients_do_not_disturb_others(
    tmp_path: Path, capfd: pytest.CaptureFixture[str]
) -> None:
    with served_scene(tmp_path) as served:
        many = ",".join(["0"] * 4096)  # 1 MB
        for path in (f"layers/0/points?nodes={many}", "waveforms/1", "waveforms/1/picture.png"):
            for _ in range(3):
                reset_while_asking(served.address, path)
        with urlopen(f"{served.address}session", timeout=TIMEOUT_S) as answer:
            assert json.load(answer)["title"] == "scan.las"
    assert capfd.readouterr().err == ""


@pytest.mark.slow
def test_files_of_echoes_are_chosen_by_name(browser: Browser, tmp_path: Path) -> None:
    scan = scenes.write_scan(tmp_path / "scan.las")
    all_echoes = scenes.write_echoes(tmp_path / "all.csv")
    few = tmp_path / "<b>few.csv"
    few.write_text(f"{HEADER}\n90,90,126.4,104,1,1000,1,4\n", encoding="ascii")
    with served_files(scan, all_echoes, few) as served:
        page = opened(served, browser)
        texts = page.locator("#layer option").all_text_contents()
        assert texts == ["all.csv (7)", "<b>few.csv (1)"]
        expect(page.locator("#map")).to_have_attribute("data-points", "7")
        colour_by_class(page)
        assert middle_of(page, YELLOW)
        page.select_option("#layer", label="<b>few.csv (1)")
        expect(page.locator("#map")).to_have_attribute("data-points", "1")
        expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        # The same place has class 1 in this file; the chosen colour stays.
        assert page.locator("#colour").input_value() == "class"
        page.locator("#map").click(position=middle_of(page, ORANGE))  # type: ignore[arg-type]
        expect(page.locator("#panel")).to_have_attribute("data-waveform", "4")
        values = page.locator("#colour option").all_text_contents()
        assert {"height", "amplitude", "echo number", "class"} <= set(values)
        assert not {"width", "reduced chi²"} & set(values)
        assert page.problems == []  # type: ignore[attr-defined]
        page.close()


@pytest.mark.slow
def test_two_viewers_are_independent(browser: Browser, tmp_path: Path) -> None:
    """Also in one window, whose cookies all ports of a machine share."""
    folders = [tmp_path / "one", tmp_path / "two"]
    for folder in folders:
        folder.mkdir()
    with (
        served_scene(folders[0], "one.las") as one,
        served_scene(folders[1], "two.las") as two,
        browser.new_context(viewport={"width": 1400, "height": 900}) as context,
    ):
        pages = [context.new_page(), context.new_page()]
        for page, served in zip(pages, (one, two), strict=True):
            page.goto(served.address)
            expect(page.locator("#map")).to_have_attribute("data-complete", "true")
        titles = [page.title().partition(" ")[0] for page in pages]
        assert titles == ["one.las", "two.las"]
        for page in pages:
            page.bring_to_front()
            choose_shot_four(page)
        press(pages[1], "p", 2)
        expect(pages[0].locator("#panel")).to_have_attribute("data-waveform", "4")
        one.stop()
        press(pages[1], "k", 1)
        # The token of one does not open the other.
        token = urlsplit(one.address).path
        refused = context.request.get(f"{two.address.rpartition('/')[0].rpartition('/')[0]}{token}")
        assert refused.status == 403


@pytest.mark.slow
def test_samples_without_coordinates_are_shown(browser: Browser, tmp_path: Path) -> None:
    """There is nothing to click: the first waveform is shown, and keys move on."""
    scan = scenes.write_scan(tmp_path / "scan.las")
    echoes = tmp_path / "echoes.csv"
    lines = ["nan,nan,nan,100,1,100,1,0", "nan,nan,nan,102,1,300,1,2"]
    echoes.write_text("\n".join([HEADER, *lines]) + "\n", encoding="ascii")
    with served_files(scan, echoes) as served:
        page = opened(served, browser)
        expect(page.locator("#map")).to_have_attribute("data-points", "0")
        expect(page.locator("#panel")).to_have_attribute("data-waveform", "0")
        expect(page.locator("#panel .echo")).to_have_count(1)
        expect(page.locator("#status")).to_have_text("Waveform 0, shot 0, no echo on the map")
        press(page, "w", 1)
        press(page, "j", 2)
        press(page, "w", 3)
        page.locator("#many-limit").fill("0")
        page.locator("#panel h2").first.click()  # the keys are letters while a field has the focus
        press(page, "M", 2)
        press(page, "M", 0)
        page.locator("#map").click()
        assert page.problems == []  # type: ignore[attr-defined]
        page.close()


def requests_of(page: Page) -> list[str]:
    """The addresses that the page asks for from now on."""
    asked: list[str] = []
    page.on("request", lambda request: asked.append(request.url))
    return asked


@pytest.mark.slow
def test_click_is_one_request(page: Page) -> None:
    asked = requests_of(page)
    choose_shot_four(page)
    expect(page.locator("body")).to_have_attribute("data-busy", "false")
    assert [url.rpartition("/")[2].partition("?")[0] for url in asked] == ["4"]
