"""The document of the accuracy is in step with its figures, and judges them as it should."""

from __future__ import annotations

import math
from pathlib import Path

import pytest
from accuracy.document import document
from accuracy.methods import METHODS, PULSE_FIT
from accuracy.plan import Row
from accuracy.results import Results
from accuracy.targets import evaluated, smallest_separation

from accuracy import pictures, tables
from fullwaveform.plotting.style import save_figure

from ..support.pictures import assert_same_picture
from .conftest import BENCH

DOCS = BENCH.parent / "docs"


@pytest.fixture(scope="module")
def results() -> Results:
    return Results.read(DOCS / "accuracy.json")


def test_document_is_made_of_its_figures(results: Results) -> None:
    assert document(results) == (DOCS / "accuracy.md").read_text(encoding="utf-8")


def test_figures_are_those_of_a_full_run_of_all_methods(results: Results) -> None:
    assert float(results.settings["isolated"]) >= 20_000
    for name, rows in results.tables.items():
        assert {row["method"] for row in rows} >= set(METHODS), name
    for row in results.rows("noise", method=PULSE_FIT):
        if not math.isnan(float(row["stated"])):
            assert float(row["stated"]) * float(row["waveforms"]) / 1000.0 >= 50.0


def test_pictures_show_the_figures(results: Results, tmp_path: Path) -> None:
    for name, draw in pictures.PICTURES.items():
        save_figure(draw(results), tmp_path / f"{name}.png")
        assert_same_picture(tmp_path / f"{name}.png", f"{name}.png")


def isolated(**changed: float) -> Row:
    good: Row = {"pulse": "Gaussian", "bits": "12 bit", "snr": 10.0, "method": PULSE_FIT}
    good |= dict.fromkeys(("rms", "rms_height", "rms_fwhm", "pull", "pull_height"), 1.0)
    return good | {"detected": 100.0, "within68": 0.68, "within95": 0.95} | changed


def missed(table: str, *rows: Row) -> list[str]:
    return [t.quantity for t in evaluated(Results({}, {table: list(rows)})) if not t.is_met]


def test_targets_of_isolated_echoes() -> None:
    assert missed("isolated", isolated(), isolated(snr=5.0, rms=2.0)) == []  # from SNR 10 on
    assert missed("isolated", isolated(), isolated(rms=1.031)) == [
        "isolated echoes: rms of the position over the bound"
    ]
    assert len(missed("isolated", isolated(detected=99.8, within95=0.93, pull=0.96))) == 3


def pair(snr: float, separation: float, two: float, pull: float = 1.0) -> Row:
    return {
        "widening": 1.0,
        "ratio": "1:1",
        "snr": snr,
        "separation": separation,
        "method": PULSE_FIT,
        "two": two,
        "pull": pull,
    }


def test_smallest_separation_ends_at_the_first_gap() -> None:
    shares = {0.5: 96.0, 0.6: 94.9, 0.8: 95.0, 1.0: 100.0}
    rows = [pair(30.0, separation, two) for separation, two in shares.items()]
    assert smallest_separation(rows) == 0.8
    assert math.isnan(smallest_separation(rows[1:2]))


def test_targets_of_pairs() -> None:
    good = [
        *(pair(30.0, 0.9, 95.0), pair(100.0, 0.55, 95.0), pair(500.0, 0.4, 95.0)),
        pair(30.0, 0.3, 10.0, pull=3.0),  # few are found: its pull is only reported
    ]
    assert missed("pairs", *good) == []
    assert missed("pairs", *good, pair(30.0, 1.0, 94.0)) == [
        "pairs 1:1, SNR 30: ≥ 95 % found as exactly two from"
    ]
    late = [pair(30.0, 0.9, 90.0), pair(30.0, 1.0, 99.0), *good[1:]]
    assert missed("pairs", *late) == ["pairs 1:1, SNR 30: ≥ 95 % found as exactly two from"]
    assert missed("pairs", *good, pair(30.0, 2.0, 100.0, pull=1.2)) == [
        "pull of the positions of pairs where ≥ 95 % are found as two"
    ]


@pytest.mark.parametrize(("found", "is_met"), [(1.5, True), (1.51, False), (0.66, False)])
def test_target_of_false_alarms_is_a_factor_either_way(found: float, is_met: bool) -> None:
    row: Row = {"noise": "white", "method": PULSE_FIT, "stated": 1.0, "alarms": 60}
    assert (missed("noise", row | {"per_1000": found}) == []) == is_met


def test_tables_mark_what_is_missed_and_what_is_unknown() -> None:
    results = Results({}, {"isolated": [isolated(rms=1.2), isolated(snr=5.0, detected=80.0)]})
    assert tables.targets(results).count("**missed**") == 1
    assert tables.isolated_positions(results).splitlines() == [
        "| pulse | digitiser | SNR | pulse fit |",
        "|---|---|---:|---:|",
        "| Gaussian | 12 bit | 10 | 1.20 |",
        "| Gaussian | 12 bit | 5 | 1.00 (80.0 %) |",
    ]
    unknown = Results({}, {"isolated": [isolated(pull=math.nan)]})
    assert tables.isolated_uncertainties(unknown).endswith("| Gaussian | 12 bit | 10 | – |")
