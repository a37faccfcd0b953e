"""Moving and colouring the map in a real browser."""

from __future__ import annotations

import numpy as np
import pytest
from playwright.sync_api import Page, expect

from .pages import middle_of
from .test_selection_page import _ORANGE, _YELLOW, corners, drag

pytestmark = pytest.mark.slow

#: First and last colour of viridis, last one of plasma.
_DARK, _BRIGHT, _BRIGHT_PLASMA = (68, 1, 84), (253, 231, 37), (240, 249, 33)


def place(page: Page, colour: tuple[int, int, int]) -> np.ndarray:
    """Where in the map the echoes of a class are."""
    expect(page.locator("#map")).to_have_attribute("data-complete", "true")
    found = middle_of(page, colour)
    return np.array([found["x"], found["y"]])


def test_mouse_and_keys_move_and_zoom_the_map(page: Page) -> None:
    corners(page)  # coloured by class
    box = page.locator("#map").bounding_box()
    assert box is not None
    page.keyboard.press("Escape")
    south_west, north_east = place(page, _ORANGE), place(page, _YELLOW)
    middle = (box["x"] + box["width"] / 2, box["y"] + box["height"] / 2)
    numbers = page.locator("#overlay").text_content() or ""
    page.mouse.move(*middle)
    page.mouse.wheel(0, 400)  # smaller by 1.0015^400, around the cursor
    expect(page.locator("#overlay")).not_to_have_text(numbers)
    factor = 1.0015**-400
    centre = np.array(middle) - [box["x"], box["y"]]
    np.testing.assert_allclose(
        place(page, _ORANGE), centre + factor * (south_west - centre), atol=1.5
    )
    near = place(page, _YELLOW)
    drag(page, middle, (middle[0] + 50, middle[1] - 30))
    np.testing.assert_allclose(place(page, _YELLOW), near + np.array([50, -30]), atol=1.5)
    page.locator("#map").press("ArrowRight")
    np.testing.assert_allclose(place(page, _YELLOW), near + np.array([-10, -30]), atol=1.5)
    distance = place(page, _YELLOW) - place(page, _ORANGE)
    page.locator("#map").press("-")
    np.testing.assert_allclose(
        place(page, _YELLOW) - place(page, _ORANGE), distance / 1.5, atol=1.5
    )
    page.locator("#whole-map").click()
    np.testing.assert_allclose(place(page, _ORANGE), south_west, atol=1.5)
    np.testing.assert_allclose(place(page, _YELLOW), north_east, atol=1.5)


def test_echoes_are_coloured_by_each_of_their_values(page: Page) -> None:
    """Strongest echo and worst fit are in the north east, the best fit in the south west."""
    corners(page)
    south_west, north_east = place(page, _ORANGE), place(page, _YELLOW)
    legends = {}
    for name in page.locator("#colour option").evaluate_all("all => all.map((one) => one.value)"):
        page.select_option("#colour", name)
        legends[name] = page.locator("#legend").inner_text().split(":")[0]
    assert legends == {
        "z": "height, coordinate units",
        "amplitude": "amplitude, counts",
        "width": "width (full, at half maximum), ns",
        "echo_number": "echo number",
        "shot_echoes": "echoes of the shot",
        "class": "class",
        "chi_square": "reduced chi²",
    }
    page.select_option("#colour", "amplitude")
    np.testing.assert_allclose(place(page, _BRIGHT), north_east, atol=1.5)
    page.select_option("#colour", "chi_square")
    np.testing.assert_allclose(place(page, _DARK), south_west, atol=1.5)
    np.testing.assert_allclose(place(page, _BRIGHT), north_east, atol=1.5)
    page.select_option("#colour-map", "plasma")
    np.testing.assert_allclose(place(page, _BRIGHT_PLASMA), north_east, atol=1.5)
