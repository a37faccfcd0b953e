"""Pages of the viewer in a real browser."""

from __future__ import annotations

import io
import os
from pathlib import Path

import numpy as np
from matplotlib import image
from playwright.sync_api import Browser, Page, expect

from ..support.child_processes import TIMEOUT_S
from .serving import Served

DOCUMENTS = Path(__file__).parents[3] / "docs"
_TIMEOUT_MS = TIMEOUT_S * 1000
expect.set_options(timeout=_TIMEOUT_MS)


def opened(served: Served, browser: Browser) -> Page:
    """A new page, with its map complete; it collects the errors of its scripts."""
    page = browser.new_page(viewport={"width": 1400, "height": 900})
    page.set_default_timeout(_TIMEOUT_MS)
    page.problems = []  # type: ignore[attr-defined]
    page.on("pageerror", lambda error: page.problems.append(str(error)))  # type: ignore[attr-defined]
    page.goto(served.address)
    expect(page.locator("#map")).to_have_attribute("data-complete", "true")
    expect(page.locator("body")).to_have_attribute("data-busy", "false")
    return page


def pixels(page: Page, colour: tuple[int, int, int]) -> np.ndarray:
    """Column and row (n, 2) of the pixels of the map that have about this colour."""
    picture = page.locator("#map").screenshot()
    values = np.round(image.imread(io.BytesIO(picture))[:, :, :3] * 255).astype(int)
    rows, columns = np.nonzero((abs(values - np.array(colour)) <= 2).all(axis=2))
    return np.column_stack([columns, rows])


def middle_of(page: Page, colour: tuple[int, int, int]) -> dict[str, float]:
    """Where in the map the pixels of this colour are, all at one place."""
    found = pixels(page, colour)
    assert len(found) > 0
    assert np.ptp(found, axis=0).max() <= 6
    x, y = found.mean(axis=0)
    return {"x": float(x), "y": float(y)}


def documented(page: Page, name: str, folder: Path) -> bool:
    """Whether a picture in the documents shows the page.

    The page is drawn into the folder, or into that of FULLWAVEFORM_PICTURES if this is set, to
    replace the picture.
    """
    target = Path(os.environ.get("FULLWAVEFORM_PICTURES", folder)) / name
    page.screenshot(path=target)
    shown, made = (image.imread(path) for path in (DOCUMENTS / name, target))
    if shown.shape != made.shape:
        return False
    # Fonts differ between machines; the areas of the page do not.
    blocks = [
        picture[:900, :1400, :3].reshape(18, 50, 28, 50, 3).mean(axis=(1, 3))
        for picture in (shown, made)
    ]
    difference = abs(blocks[0] - blocks[1])
    return bool(difference.mean() < 0.01 and difference.max() < 0.2)
