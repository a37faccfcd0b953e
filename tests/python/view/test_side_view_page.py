"""Selecting in the side view, in a real browser."""

from __future__ import annotations

import numpy as np
import pytest
from playwright.sync_api import Page, expect

from fullwaveform.view.selection import Slab

from .pages import pixels
from .test_selection_page import (
    _ORANGE,
    _SELECTED,
    _SKY,
    corners,
    drag,
    wait_for,
)

pytestmark = pytest.mark.slow


def show_south(page: Page, width: str = "20") -> None:
    """The side view along the south edge: shot 0 at 127 m, shot 1 at 127 and 124 m."""
    at = corners(page)
    page.select_option("#tool", "line")
    drag(page, (at["SW"][0] - 20, at["SW"][1]), (at["SE"][0] + 20, at["SE"][1]))
    set_width(page, width)


def set_width(page: Page, width: str) -> None:
    page.locator("#side-width").fill(width)
    page.locator("#side-width").press("Enter")


def in_side_view(page: Page, colour: tuple[int, int, int]) -> np.ndarray:
    """Places on the page (n, 2) of this colour in the side view."""
    box = page.locator("#map").bounding_box()
    assert box is not None
    found = pixels(page, colour)
    return found[found[:, 1] > 0.64 * box["height"]] + np.array([box["x"], box["y"]])


def test_drag_selects_a_box_of_the_side_view(page: Page) -> None:
    show_south(page)
    places = np.concatenate([in_side_view(page, colour) for colour in (_ORANGE, _SKY)])
    top, lowest = places[:, 1].min(), places[:, 1].max()
    upper = places[places[:, 1] < (top + lowest) / 2]
    assert len(upper) < len(places)
    (left, high), (right, low) = upper.min(axis=0), upper.max(axis=0)
    drag(page, (left - 12, high - 6), (right + 12, low + 12))
    wait_for(page, 2)
    expect(page.locator("#selection-status")).to_have_text("2 of 7 echoes selected, of 2 shots.")
    expect(page.locator("#overlay .selection-box")).to_have_count(2)  # on the map, too
    found = in_side_view(page, _SELECTED)
    line = found[:, 1] < high - 8  # of the map, in the same colour
    np.testing.assert_array_equal(
        np.unique(found[~line], axis=0),
        np.unique(upper, axis=0),
    )
    # A click chooses the echo; the selection stays.
    x, y = upper[upper[:, 0] > upper[:, 0].mean()].mean(axis=0)
    page.mouse.click(x, y)
    expect(page.locator("#panel")).to_have_attribute("data-waveform", "1")
    wait_for(page, 2)
    # Without the side view its box is still on the map; a box of the map replaces it.
    page.locator("#side-off").click()
    expect(page.locator("#overlay .selection-box")).to_have_count(1)
    wait_for(page, 2)
    page.locator("#whole-map").click()
    page.locator("#map").press("b")
    wait_for(page, 7)
    expect(page.locator("#overlay .selection-box")).to_have_count(1)


def test_side_view_is_selected_without_a_mouse(page: Page) -> None:
    show_south(page)
    page.locator("#map").press("B")
    wait_for(page, 3)
    for name, value in (("from", "60"), ("to", "500"), ("lowest", "121"), ("highest", "126")):
        page.locator(f"#{name}").fill(value)
    page.locator("#highest").press("Enter")
    wait_for(page, 1)  # the echo at 124 m
    page.locator("#highest").fill("126.5")
    page.locator("#highest").press("Enter")
    # All of the map is near the line now, and with it the echo of shot 4 at 126.4 m.
    set_width(page, "400")
    wait_for(page, 2)
    page.locator("#map").press("Escape")
    wait_for(page, "")
    assert page.locator("#from").input_value() == ""
    page.locator("#side-off").click()
    expect(page.locator("#slab-form")).to_be_hidden()


def test_wheel_and_drag_in_the_side_view_do_not_move_the_map(page: Page) -> None:
    show_south(page)
    page.select_option("#tool", "pan")
    line = page.locator("#overlay .side-line")
    before = line.evaluate("one => one.outerHTML")
    box = page.locator("#map").bounding_box()
    assert box is not None
    x, y = box["x"] + 0.5 * box["width"], box["y"] + 0.8 * box["height"]
    page.mouse.move(x, y)
    page.mouse.wheel(0, 300)
    drag(page, (x, y), (x + 40, y + 30))
    wait_for(page, 0)
    page.keyboard.press("Escape")
    wait_for(page, "")
    assert line.evaluate("one => one.outerHTML") == before


#: Which of some places the page highlights for a box of a side view.
CHOSEN = """async ([slab, columns]) => {
  const load = (name) => import(new URL(name, document.baseURI).href);
  const [{ Selection }, { SideView }] = [await load("selection.js"), await load("side.js")];
  const side = new SideView(slab.start, slab.end, slab.halfWidth);
  const selection = new Selection(() => {});
  selection.setSlab(side, [slab.from, slab.low], [slab.to, slab.high]);
  const places = {};
  for (const name of Object.keys(columns)) places[name] = Float32Array.from(columns[name]);
  return [selection.query().get("slab"), [...selection.chosen(places)]];
}"""


def test_page_highlights_the_echoes_that_are_counted(page: Page) -> None:
    """Bit by bit, also of places on the edges: a grid, and lines through its places."""
    x, y, z = (axis.ravel() for axis in np.meshgrid(*[np.arange(0.0, 8.0, 0.5)] * 3))
    columns = {"x": x.tolist(), "y": y.tolist(), "z": z.tolist()}
    for end in ([7.0, 0.5], [7.0, 0.0], [6.0, 4.5], [3.5, 7.0], [-2.0, 7.5]):
        slab = {"start": [1.0, 0.5], "end": end, "halfWidth": 1.0}
        slab |= {"from": 0.5, "to": 5.0, "low": 1.0, "high": 2.5}
        text, chosen = page.evaluate(CHOSEN, [slab, columns])
        places = [np.array(one, np.float32) for one in (x, y, z)]
        counted = Slab.of_text(text).contains(*places)
        assert 20 < np.count_nonzero(counted) < len(x) / 2
        assert (np.array(chosen) == 255).tolist() == counted.tolist()
