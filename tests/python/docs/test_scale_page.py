"""The arithmetic of docs/scale.md follows from its measured times and sizes."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

PAGE = (Path(__file__).resolve().parents[3] / "docs" / "scale.md").read_text(encoding="utf-8")
WEEK_S = 7 * 24 * 3600


def rows_of(heading: str) -> dict[str, list[str]]:
    """First cell -> the others, of the first table below a heading."""
    table = re.search(rf"^## {heading}\n.*?\n((?:\|[^\n]*\n)+)", PAGE, re.MULTILINE | re.DOTALL)
    assert table is not None
    rows = [line.strip("|").split("|") for line in table[1].splitlines()[2:]]
    return {name.strip(): [cell.strip() for cell in cells] for name, *cells in rows}


def number(cell: str) -> float:
    return float(cell.replace(",", ""))


GROWTH = rows_of("Growth")
BILLION = rows_of("A billion waveforms")
SURVEY = rows_of("A national survey in a week")
(WAVEFORMS,) = (
    float(mantissa) * 10 ** int(power)
    for mantissa, power in re.findall(r"= ([\d.]+) × 10\^(\d+) waveforms", PAGE)
)


def test_every_method_is_in_every_table() -> None:
    methods = ["three-point", "decomposition", "pulse fit", "deconvolution", "hybrid"]
    assert [list(GROWTH), list(BILLION), list(SURVEY)] == [methods] * 3


@pytest.mark.parametrize("method", GROWTH)
def test_core_hours_are_those_of_the_time_per_waveform(method: str) -> None:
    microseconds = number([cell for cell in GROWTH[method] if cell][-1])
    assert number(BILLION[method][0]) == pytest.approx(microseconds * 1e3 / 3600, rel=0.02)


def test_waveforms_of_the_survey_are_area_times_density() -> None:
    ((area, density),) = re.findall(r"([\d,]+) km² × 10\^6 m²/km² × (\d+) pulses/m²", PAGE)
    assert number(area) * 1e6 * number(density) == WAVEFORMS


@pytest.mark.parametrize("method", SURVEY)
def test_survey_is_that_many_billions_of_waveforms(method: str) -> None:
    hours, read, written = map(number, BILLION[method])
    core_hours, cores, machines, read_rate, write_rate = map(number, SURVEY[method])
    billions = WAVEFORMS / 1e9
    assert core_hours == pytest.approx(billions * hours, rel=0.02)
    assert cores == pytest.approx(core_hours * 3600 / WEEK_S, rel=0.03)
    assert machines == -(-cores // 32)
    assert read_rate == pytest.approx(billions * read * 1e9 / WEEK_S / 1e6, rel=0.02)
    assert write_rate == pytest.approx(billions * written * 1e9 / WEEK_S / 1e6, rel=0.02)
