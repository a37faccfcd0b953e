"""The page can be read and used: colours, labels, and keys instead of a mouse."""

from __future__ import annotations

import numpy as np
import pytest
from playwright.sync_api import Page, expect

from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.view.session import CATEGORIES

from .test_page import choose_shot_four

pytestmark = pytest.mark.slow

#: Linear red, green and blue as seen with a complete colour vision deficiency; Machado, Oliveira
#: and Fernandes (2009), table 1, severity 1.
VISION = {
    "normal": np.eye(3),
    "protanopia": np.array(
        [
            [0.152286, 1.052583, -0.204868],
            [0.114503, 0.786281, 0.099216],
            [-0.003882, -0.048116, 1.051998],
        ]
    ),
    "deuteranopia": np.array(
        [
            [0.367322, 0.860646, -0.227968],
            [0.280085, 0.672501, 0.047413],
            [-0.011820, 0.042940, 0.968881],
        ]
    ),
    "tritanopia": np.array(
        [
            [1.255528, -0.076749, -0.178779],
            [-0.078411, 0.930809, 0.147602],
            [0.004733, 0.691367, 0.303900],
        ]
    ),
}
#: CIE 1931 coordinates of linear sRGB, with its white.
TO_XYZ = np.array([[0.4124, 0.3576, 0.1805], [0.2126, 0.7152, 0.0722], [0.0193, 0.1192, 0.9505]])
WHITE = np.array([0.9505, 1.0, 1.0890])
BACKGROUND = "#14181d"
#: Differences of CIELAB: 2.3 is just noticeable.
THREE_NOTICEABLE_STEPS = 7.0


def linear(colour: str) -> np.ndarray:
    """Red, green and blue of sRGB without its gamma."""
    values = np.array([int(colour[at : at + 2], 16) for at in (1, 3, 5)]) / 255
    return np.where(values <= 0.04045, values / 12.92, ((values + 0.055) / 1.055) ** 2.4)


def lab(light: np.ndarray) -> np.ndarray:
    """CIELAB of linear red, green and blue."""
    ratios = TO_XYZ @ np.clip(light, 0.0, 1.0) / WHITE
    f = np.where(ratios > 216 / 24389, np.cbrt(ratios), (24389 / 27 * ratios + 16) / 116)
    return np.array([116 * f[1] - 16, 500 * (f[0] - f[1]), 200 * (f[1] - f[2])])


def contrast(one: str, other: str) -> float:
    """Contrast ratio of the Web Content Accessibility Guidelines."""
    high, low = sorted((float(TO_XYZ[1] @ linear(colour)) for colour in (one, other)), reverse=True)
    return (high + 0.05) / (low + 0.05)


@pytest.mark.parametrize("vision", VISION)
@pytest.mark.parametrize("colours", [METHOD_COLOURS, CATEGORIES], ids=["modes", "categories"])
def test_colours_are_distinguished(colours: tuple[str, ...], vision: str) -> None:
    seen = [lab(VISION[vision] @ linear(colour)) for colour in colours]
    for i, one in enumerate(seen):
        for j, other in enumerate(seen[:i]):
            difference = float(np.linalg.norm(one - other))
            assert difference > THREE_NOTICEABLE_STEPS, (colours[i], colours[j])


@pytest.mark.parametrize("colour", sorted({*METHOD_COLOURS, *CATEGORIES}))
def test_colours_stand_out_from_the_page(colour: str) -> None:
    """3 is the limit of the guidelines for graphical objects."""
    assert contrast(colour, BACKGROUND) >= 3.0


#: Text, colour, and background of each visible element with text of its own; the background is
#: that of the nearest element that has one.
TEXTS = """() => {
  const found = [];
  const numbers = (text) => text.match(/[\\d.]+/g).map(Number);
  for (const element of document.querySelectorAll("body *")) {
    const text = [...element.childNodes].filter((node) => node.nodeType === 3)
      .map((node) => node.data.trim()).join("");
    if (!text || !element.getClientRects().length || element.closest("title, noscript")) continue;
    const style = getComputedStyle(element);
    const colour = element instanceof SVGElement ? style.fill : style.color;
    let behind = element;
    const background = () => numbers(getComputedStyle(behind).backgroundColor);
    while (background()[3] === 0) behind = behind.parentElement;
    found.push([text, numbers(colour), background()]);
  }
  return found;
}"""


def as_hex(colour: list[float]) -> str:
    return "#" + "".join(f"{round(value):02x}" for value in colour[:3])


def test_texts_are_readable(page: Page) -> None:
    """4.5 is the limit of the guidelines for text; captions in colours of modes are large marks."""
    choose_shot_four(page)
    texts = page.evaluate(TEXTS)
    assert len(texts) > 60
    assert {as_hex(behind) for _, _, behind in texts} >= {BACKGROUND}
    for text, colour, behind in texts:
        limit = 3.0 if as_hex(colour) in METHOD_COLOURS else 4.5
        assert contrast(as_hex(colour), as_hex(behind)) >= limit, text


def test_axes_have_labels_with_units(page: Page) -> None:
    choose_shot_four(page)
    labels = page.locator("#overlay > text").all_text_contents()
    assert labels == ["x, coordinate units", "y, coordinate units"]
    page.locator("#side-here").press("Enter")
    expect(page.locator("#overlay .side-line")).to_have_count(1)
    labels = page.locator("#overlay > text").all_text_contents()
    assert labels[2:] == ["distance along the line, coordinate units", "z, coordinate units"]
    panel = page.locator("#panel svg").first.locator("xpath=./*[name()='text']")
    assert panel.all_text_contents() == ["sample", "counts", "1 sample = 1 ns"]
    ticks = page.locator("#overlay .tick text").all_text_contents()
    assert "60" in ticks  # x and y are from 10 to 90


#: A name of a control that stays when it is drawn anew.
NAME = """(one) => [one.tagName, one.id, one.title, one.dataset.kind, one.value ?? one.textContent,
  (one.getAttribute("aria-label") ?? "").slice(0, 24)].join(" ")"""


def test_tab_reaches_every_control(page: Page) -> None:
    choose_shot_four(page)
    controls = "a[href], button, input, select, summary, [tabindex='0']"
    visible = "one.checkVisibility() && !one.disabled"  # not what is folded
    names = page.evaluate(
        f"""(controls) => [...document.querySelectorAll(controls)]
          .filter((one) => {visible}).map({NAME})""",
        controls,
    )
    assert len(names) > 25
    reached = []
    for _ in range(len(names) + 20):  # past the ends of the page and areas that scroll
        page.keyboard.press("Tab")
        reached.append(page.evaluate(f"({NAME})(document.activeElement)"))
    assert sorted(set(names) - set(reached)) == []


def test_controls_have_names(page: Page) -> None:
    """As a screen reader reads them."""
    choose_shot_four(page)
    page.locator("#statistics summary").click()
    for role in ("button", "combobox", "checkbox", "spinbutton", "textbox", "link"):
        controls = page.get_by_role(role).all()  # type: ignore[arg-type]
        assert controls, role
        for control in controls:
            snapshot = control.aria_snapshot()
            assert f"- {role} " in snapshot, control.evaluate("one => one.outerHTML")
            assert snapshot.split('"')[1].strip() if '"' in snapshot else False, snapshot
