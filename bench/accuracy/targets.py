"""What the pulse fit is to reach, and whether it does."""

from __future__ import annotations

import math
from dataclasses import dataclass

from accuracy.methods import PULSE_FIT
from accuracy.plan import Row
from accuracy.results import Results

_ENOUGH = 95.0  # % of the pairs
_EVALUATED_SNR = 10.0  # isolated echoes from here on
#: Separations in FWHM from which pairs of equal heights are to be found, by SNR.
SEPARATIONS = {30.0: 0.9, 100.0: 0.55, 500.0: 0.4}
REAL_SEPARATION = 0.75  # FWHM
#: Ratio of the stated to the measured rate of false alarms, either way.
RATE_FACTOR = 1.5


@dataclass(frozen=True)
class Target:
    """A quantity, what it is to be, what it is, and whether that is enough."""

    quantity: str
    target: str
    reached: str
    is_met: bool


def evaluated(results: Results) -> list[Target]:
    """All targets for which the results have figures."""
    targets = [
        *_isolated(results),
        *_pairs(results),
        *_noise(results),
        *_scan(results),
        *_ringing(results),
        *_real(results),
    ]
    return [target for target in targets if target is not None]


def _within(values: list[float], low: float, high: float, digits: int = 3) -> tuple[str, bool]:
    """Range of the values, and whether all are inside; NaN is outside."""
    text = f"{min(values):.{digits}f} to {max(values):.{digits}f}"
    return text, all(low <= round(value, digits) <= high for value in values)


def _isolated(results: Results) -> list[Target]:
    rows = [
        row
        for row in results.rows("isolated", method=PULSE_FIT)
        if float(row["snr"]) >= _EVALUATED_SNR
    ]
    if not rows:
        return []

    def column(name: str) -> list[float]:
        return [float(row[name]) for row in rows]

    detected = min(column("detected"))
    targets = [
        Target(
            "isolated echoes, SNR 10 to 1000: detected",
            "≥ 99.9 %",
            f"{detected:.2f} %",
            detected >= 99.9,
        )
    ]
    for title, name, low, high in (
        ("rms of the position over the bound", "rms", 0.97, 1.03),
        ("rms of the amplitude over the bound", "rms_height", 0.97, 1.03),
        ("pull of the position", "pull", 0.97, 1.03),
        ("pull of the amplitude", "pull_height", 0.97, 1.03),
        ("positions within one stated deviation", "within68", 0.66, 0.70),
        ("positions within 1.96 stated deviations", "within95", 0.94, 0.96),
    ):
        text, is_met = _within(column(name), low, high)
        targets.append(Target(f"isolated echoes: {title}", f"{low} to {high}", text, is_met))
    return targets


def _pairs(results: Results) -> list[Target]:
    rows = results.rows("pairs", method=PULSE_FIT, widening=1.0)
    if not rows:
        return []
    targets = [_pair_separation(results, snr, limit) for snr, limit in SEPARATIONS.items()]
    pulls = [float(row["pull"]) for row in rows if float(row["two"]) >= _ENOUGH]
    text, is_met = _within(pulls, 0.9, 1.1, 2) if pulls else ("–", False)
    outside = sum(not 0.9 <= round(pull, 2) <= 1.1 for pull in pulls)
    text += f" ({outside} of {len(pulls)} outside)" if outside else ""
    title = "pull of the positions of pairs where ≥ 95 % are found as two"
    return [*targets, Target(title, "0.9 to 1.1", text, is_met)]


def _pair_separation(results: Results, snr: float, limit: float) -> Target:
    rows = results.rows("pairs", method=PULSE_FIT, widening=1.0, ratio="1:1", snr=snr)
    reached = smallest_separation(rows)
    text = f"{reached:g} FWHM" if math.isfinite(reached) else "–"
    at_limit = [float(row["two"]) for row in rows if row["separation"] == limit]
    if at_limit:
        text += f" ({at_limit[0]:.1f} % at {limit:g})"
    title = f"pairs 1:1, SNR {snr:g}: ≥ 95 % found as exactly two from"
    return Target(title, f"{limit:g} FWHM", text, reached <= limit)


def smallest_separation(rows: list[Row]) -> float:
    """Separation from which on at least 95 % of the pairs are found as two; NaN without one."""
    reached = math.nan
    for row in sorted(rows, key=lambda row: -float(row["separation"])):
        if not float(row["two"]) >= _ENOUGH:
            break
        reached = float(row["separation"])
    return reached


def _noise(results: Results) -> list[Target]:
    targets = []
    for row in results.rows("noise", method=PULSE_FIT):
        stated, found = float(row["stated"]), float(row["per_1000"])
        if math.isnan(stated):
            continue
        targets.append(
            Target(
                f"false alarms per 1,000 waveforms, {row['noise']} noise, stated {stated:g}",
                f"{stated / RATE_FACTOR:.2g} to {stated * RATE_FACTOR:.2g}",
                f"{found:.3g} ({int(row['alarms'])} alarms)",
                1.0 / RATE_FACTOR <= found / stated <= RATE_FACTOR,
            )
        )
    return targets


def _scan(results: Results) -> list[Target]:
    rows = results.rows("scan", method=PULSE_FIT, channels="both")
    if not rows:
        return []
    (row,) = rows
    return [
        _at_least("simulated scan: overlapping echoes within 0.15 ns", row, "overlapping", 80.0),
        _at_least("simulated scan: clipped echoes within 0.15 ns", row, "saturated", 95.0),
        _at_most("simulated scan: extra echoes", row, "extra", 0.3, " %"),
        _at_most("simulated scan: pull of the positions", row, "pull", 1.1, ""),
    ]


def _ringing(results: Results) -> list[Target]:
    targets = []
    for row in results.rows("ringing", method=PULSE_FIT):
        title = f"ringing pulse, {int(row['echoes'])} echoes per waveform"
        targets += [
            _at_least(f"{title}: within 0.15 ns", row, "near", 97.0),
            _at_most(f"{title}: surplus echoes", row, "surplus", 0.5, " %"),
        ]
    return targets


def _real(results: Results) -> list[Target]:
    pairs = results.rows("real pairs", method=PULSE_FIT, separation=REAL_SEPARATION)
    singles = results.rows("real singles", method=PULSE_FIT)
    title = f"sums of two real echoes at {REAL_SEPARATION:g} FWHM: found as two"
    single = "single real echoes of usual width: reported as two"
    return [
        *[_at_least(title, row, "two", 99.0) for row in pairs],
        *[_at_most(single, row, "split_usual", 0.5, " %") for row in singles],
    ]


def _at_least(title: str, row: Row, column: str, limit: float) -> Target:
    value = float(row[column])
    return Target(title, f"≥ {limit:g} %", f"{value:.2f} %", value >= limit)


def _at_most(title: str, row: Row, column: str, limit: float, unit: str) -> Target:
    value = float(row[column])
    return Target(title, f"≤ {limit:g}{unit}", f"{value:.2f}{unit}", value <= limit)
