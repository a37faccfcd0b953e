"""Contrast by the published formula, at published values."""

from __future__ import annotations

import pytest

from fullwaveform.plotting.colours import METHOD_COLOURS
from fullwaveform.view.legible import contrast, legible


def test_contrast_of_known_pairs() -> None:
    assert contrast("#000000", "#ffffff") == 21.0
    assert contrast("#ffffff", "#ffffff") == 1.0
    assert contrast("#222222", "#ffffff") == pytest.approx(15.91, abs=0.005)
    # The grey that just reaches 4.5 on white, and the next lighter one.
    assert contrast("#767676", "#ffffff") == pytest.approx(4.54, abs=0.005)
    assert contrast("#777777", "#ffffff") == pytest.approx(4.48, abs=0.005)


@pytest.mark.parametrize("colour", METHOD_COLOURS)
@pytest.mark.parametrize("background", ["#ffffff", "#eef1f4", "#232a32", "#000000"])
def test_colours_are_made_legible(colour: str, background: str) -> None:
    assert contrast(legible(colour, background), background) >= 4.5


def test_legible_colours_are_kept() -> None:
    assert legible("#0072b2", "#ffffff") == "#0072b2"
    assert legible("#56b4e9", "#000000") == "#56b4e9"
