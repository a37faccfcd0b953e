"""Colours that can be read on a background (Web Content Accessibility Guidelines 2.1)."""

from __future__ import annotations

_MIN_CONTRAST = 4.5  # of small text, level AA
_STEPS = 100


def contrast(colour: str, background: str) -> float:
    """Contrast ratio of two colours "#rrggbb", from 1 to 21."""
    light, dark = sorted((_luminance(colour), _luminance(background)), reverse=True)
    return (light + 0.05) / (dark + 0.05)


def legible(colour: str, background: str) -> str:
    """The colour, mixed with as much black or white as it needs to be read on the background."""
    goal = 0 if _luminance(background) > 0.18 else 255  # of equal contrast to black and white
    mixed = colour
    for step in range(_STEPS + 1):
        share = step / _STEPS
        parts = (round(part + (goal - part) * share) for part in _parts(colour))
        mixed = "#" + "".join(f"{part:02x}" for part in parts)
        if contrast(mixed, background) >= _MIN_CONTRAST:
            break
    return mixed


def _parts(colour: str) -> list[int]:
    return [int(colour[at : at + 2], 16) for at in (1, 3, 5)]


def _luminance(colour: str) -> float:
    linear = [
        part / 255 / 12.92 if part / 255 <= 0.04045 else ((part / 255 + 0.055) / 1.055) ** 2.4
        for part in _parts(colour)
    ]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]
