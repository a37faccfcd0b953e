"""Axes of pictures as SVG: lines with ticks and numbers."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

from fullwaveform.data.arrays import FloatArray
from fullwaveform.view.svg_scale import Scale


@dataclass(frozen=True, slots=True)
class TickStyle:
    """Sizes of ticks and numbers, in units of the picture.

    length : of a tick
    below : from a horizontal axis to the line of its numbers
    aside : from an upright axis to its numbers
    drop : from a value of an upright axis to the line of its number
    digits : of places after the decimal point
    """

    length: int = 6
    below: int = 20
    aside: int = 9
    drop: int = 4
    digits: int = 1


_STYLE = TickStyle()


def number(value: float) -> str:
    """A value as coordinates are written: all of its digits, up to ten."""
    return f"{value:.10g}"


def axes_svg(
    x: Scale,
    y: Scale,
    across: FloatArray,
    up: FloatArray,
    *,
    style: TickStyle = _STYLE,
    text: Callable[[float], str] = number,
) -> str:
    """A horizontal axis at the start of `y` and an upright one at the start of `x`.

    across, up : values with a tick
    text : of the number of a value
    """
    lower, numbers = _below(x, y.start, across, style, text)
    marks, aside = upright_ticks(y, x.start, up, -1, style=style, text=text)
    line = f"M{x.start:.0f} {y.stop:.0f}V{y.start:.0f}H{x.stop:.0f}"
    return f'<path class="axes" d="{line}{lower}{marks}"/>{numbers}{aside}'


def upright_ticks(
    y: Scale,
    at: float,
    values: FloatArray,
    side: int,
    *,
    style: TickStyle = _STYLE,
    text: Callable[[float], str] = number,
) -> tuple[str, str]:
    """Path of the ticks left (`side` -1) or right (1) of an upright axis, and their numbers."""
    places = y.of(values)
    marks = "".join(f"M{at:.0f} {place:.{style.digits}f}h{side * style.length}" for place in places)
    aligned = ' class="end"' if side < 0 else ""
    numbers = "".join(
        f'<text x="{at + side * style.aside:.0f}" y="{place + style.drop:.{style.digits}f}"'
        f"{aligned}>{text(value)}</text>"
        for place, value in zip(places, values.tolist(), strict=True)
    )
    return marks, numbers


def _below(
    x: Scale, bottom: float, values: FloatArray, style: TickStyle, text: Callable[[float], str]
) -> tuple[str, str]:
    places = x.of(values)
    marks = "".join(f"M{place:.{style.digits}f} {bottom:.0f}v{style.length}" for place in places)
    numbers = "".join(
        f'<text x="{place:.{style.digits}f}" y="{bottom + style.below:.0f}" class="mid">'
        f"{text(value)}</text>"
        for place, value in zip(places, values.tolist(), strict=True)
    )
    return marks, numbers
