"""Ticks and numbers of axes, at places worked out by hand."""

from __future__ import annotations

import numpy as np

from fullwaveform.view.svg_axes import axes_svg, upright_ticks
from fullwaveform.view.svg_scale import Scale


def test_ticks_are_at_their_values() -> None:
    """x from 0 to 10 is drawn from 100 to 200, y from 0 to 4000 from 90 up to 10."""
    x, y = Scale(0.0, 10.0, 100.0, 200.0), Scale(0.0, 4000.0, 90.0, 10.0)
    found = axes_svg(
        x, y, np.array([5.0]), np.array([1000.0]), text=lambda value: f"<{value:,.10g}>"
    )
    assert found == (
        '<path class="axes" d="M100 10V90H200M150.0 90v6M100 70.0h-6"/>'
        '<text x="150.0" y="110" class="mid"><5></text>'
        '<text x="91" y="74.0" class="end"><1,000></text>'
    )


def test_ticks_at_the_right_have_their_numbers_there() -> None:
    marks, numbers = upright_ticks(
        Scale(400.0, 440.0, 90.0, 10.0), 300.0, np.array([410.0, 440.0]), 1
    )
    assert marks == "M300 70.0h6M300 10.0h6"
    assert numbers == '<text x="309" y="74.0">410</text><text x="309" y="14.0">440</text>'
