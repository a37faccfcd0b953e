"""The figures as tables of a document."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable

from accuracy.methods import METHODS, PULSE_FIT
from accuracy.plan import Row
from accuracy.results import Results
from accuracy.targets import evaluated, smallest_separation

UNKNOWN = "–"


def targets(results: Results) -> str:
    """What the pulse fit is to reach and reaches."""
    return _table(
        ["pulse fit", "target", "measured", ""],
        [
            [target.quantity, target.target, target.reached, "" if target.is_met else "**missed**"]
            for target in evaluated(results)
        ],
        left=1,
    )


def isolated_positions(results: Results) -> str:
    """Detected echoes and rms of their positions, a method per column."""
    return _isolated(results, lambda row: _detected(row, f"{float(row['rms']):.2f}"))


def isolated_uncertainties(results: Results) -> str:
    """Pull and coverage of the stated deviations of positions, a method per column."""
    return _isolated(results, _coverage)


def _coverage(row: Row) -> str:
    if math.isnan(float(row["pull"])):
        return UNKNOWN
    return " / ".join(_number(row[name], 2) for name in ("pull", "within68", "within95"))


def _isolated(results: Results, cell: Callable[[Row], str]) -> str:
    methods = _methods(results, "isolated")
    keys = _distinct(results.tables["isolated"], "pulse", "bits", "snr")
    lines = []
    for pulse, bits, snr in keys:
        rows = (
            results.rows("isolated", pulse=pulse, bits=bits, snr=snr, method=method)[0]
            for method in methods
        )
        lines.append([str(pulse), str(bits), f"{snr:g}", *map(cell, rows)])
    return _table(["pulse", "digitiser", "SNR", *methods], lines, left=2)


def pulse_fit_details(results: Results) -> str:
    """Bias, amplitude and width of the pulse fit."""
    columns = (
        ("detected, %", "detected", 2),
        ("extra per 100", "extra", 2),
        ("bias, 0.001 samples", "bias", 2),
        ("bias of the amplitude, %", "bias_height", 3),
        ("amplitude: rms / bound", "rms_height", 3),
        ("pull", "pull_height", 3),
        ("width: rms / bound", "rms_fwhm", 3),
        ("pull", "pull_fwhm", 3),
    )
    lines = [
        [
            str(row["pulse"]),
            str(row["bits"]),
            f"{row['snr']:g}",
            *(_number(row[name], digits) for _, name, digits in columns),
        ]
        for row in results.rows("isolated", method=PULSE_FIT)
    ]
    titles = [title for title, _, _ in columns]
    return _table(["pulse", "digitiser", "SNR", *titles], lines, left=2)


def pair_separations(results: Results) -> str:
    """Smallest separation of pairs that are found, a method per column."""
    methods = _methods(results, "pairs")
    lines = []
    for widening, ratio, snr in _distinct(results.tables["pairs"], "widening", "ratio", "snr"):
        key = {"widening": widening, "ratio": ratio, "snr": snr}
        reached = (
            smallest_separation(results.rows("pairs", method=method, **key)) for method in methods
        )
        keys = [f"{widening:g}", str(ratio), f"{snr:g}"]
        lines.append([*keys, *(_number(value, 2) for value in reached)])
    return _table(["widening", "heights", "SNR", *methods], lines, left=2)


def pairs_of_pulse_fit(results: Results) -> str:
    """Everything about the pairs of the pulse fit."""
    lines = [
        [
            f"{row['widening']:g}",
            str(row["ratio"]),
            f"{row['snr']:g}",
            f"{row['separation']:g}",
            _number(row["two"], 1),
            *(
                _number(row[f"{echo}_{name}"], 2)
                for echo in ("first", "second")
                for name in ("rms", "rms_height", "pull")
            ),
        ]
        for row in results.rows("pairs", method=PULSE_FIT)
    ]
    per_echo = ["position: rms / bound", "amplitude: rms / bound", "pull"]
    titles = ["widening", "heights", "SNR", "separation, FWHM", "found as two, %"]
    titles += [f"first, {title}" for title in per_echo]
    return _table([*titles, *(f"second, {title}" for title in per_echo)], lines, left=2)


def noise(results: Results) -> str:
    """False alarms."""
    lines = [
        [
            str(row["method"]),
            str(row["noise"]),
            _number(row["correlation"], 2),
            _number(row["stated"], 1),
            f"{row['waveforms']:,}",
            f"{row['alarms']:,}",
            f"{row['per_1000']:.3g}",
        ]
        for row in results.tables["noise"]
    ]
    titles = ["correlation", "stated per 1,000", "waveforms", "alarms", "per 1,000"]
    return _table(["method", "noise", *titles], lines, left=2)


def saturated(results: Results) -> str:
    """Clipped echoes."""
    lines = [
        [
            f"{row['height']:g}",
            _number(row["clipped_samples"], 1),
            str(row["method"]),
            _number(row["detected"], 1),
            _number(row["extra"], 1),
            _number(row["bias"], 1),
            _number(float(row["rms"]) * float(row["bound"]), 4),
            _number(row["rms"], 2),
            _number(row["bias_height"], 2),
            _number(row["pull"], 2),
        ]
        for row in results.tables["saturated"]
    ]
    titles = [
        *("height / limit", "clipped samples", "method", "detected, %", "extra per 100"),
        *("bias, 0.001 samples", "rms, samples", "rms / bound", "bias of the amplitude, %", "pull"),
    ]
    return _table(titles, lines, left=0)


def scan(results: Results) -> str:
    """The simulated scan."""
    names = ("detected", "near", "overlapping", "saturated", "extra", "right")
    pulls = ("pull", "pull_overlapping", "within68", "within95")
    lines = [
        [
            str(row["channels"]),
            str(row["method"]),
            *(_number(row.get(name, math.nan), 2 if name == "extra" else 1) for name in names),
            *(_number(row.get(name, math.nan), 2) for name in pulls),
        ]
        for row in results.tables["scan"]
    ]
    titles = ["detected, %", "within 0.15 ns, %", "overlapping, %", "clipped, %", "extra, %"]
    titles.append("shots with the right number, %")
    titles += ["pull", "pull, overlapping", "within 1 σ", "within 1.96 σ"]
    return _table(["channels", "method", *titles], lines, left=2)


def ringing(results: Results) -> str:
    """The skewed pulse."""
    lines = [
        [
            str(row["echoes"]),
            str(row["method"]),
            *(_number(row[name], 1) for name in ("detected", "near", "surplus")),
            _number(row["offset"], 2),
        ]
        for row in results.tables["ringing"]
    ]
    titles = ["detected, %", "within 0.15 ns, %", "surplus, %", "offset, samples"]
    return _table(["echoes per waveform", "method", *titles], lines, left=0)


def real(results: Results) -> str:
    """Sums of two real echoes, and the echoes by themselves."""
    if not results.tables.get("real pairs"):
        return "No file was given."
    methods = _methods(results, "real pairs")
    lines = [
        [
            f"{separation:g}",
            *(
                _two_with_rms(results.rows("real pairs", separation=separation, method=method)[0])
                for method in methods
            ),
        ]
        for (separation,) in _distinct(results.tables["real pairs"], "separation")
    ]
    for title, column in (
        ("one echo, reported as several", "split"),
        ("one echo of usual width, reported as several", "split_usual"),
    ):
        split = (results.value("real singles", column, method=method) for method in methods)
        lines.append([title, *(f"{value:.2f} %" for value in split)])
    return _table(["separation, FWHM", *methods], lines, left=0)


def _two_with_rms(row: Row) -> str:
    return f"{row['two']:.1f} % ({_number(row['rms'], 3)})"


def _detected(row: Row, text: str) -> str:
    detected = float(row["detected"])
    if detected < 1.0:
        return UNKNOWN
    return text if detected >= 99.9 else f"{text} ({detected:.1f} %)"


def _methods(results: Results, table: str) -> list[str]:
    present = {row["method"] for row in results.tables[table]}
    return [method for method in METHODS if method in present]


def _distinct(rows: Iterable[Row], *names: str) -> list[tuple[str | float, ...]]:
    """Combinations of values in the order of their first rows."""
    return list(dict.fromkeys(tuple(row[name] for name in names) for row in rows))


def _number(value: str | float, digits: int) -> str:
    number = float(value)
    if math.isnan(number):
        return UNKNOWN
    return f"{number if round(number, digits) else 0.0:.{digits}f}"


def _table(titles: list[str], lines: list[list[str]], *, left: int) -> str:
    """A table whose columns after the first `left` are aligned to the right."""
    rule = "|" + "|".join("---" if k < left else "---:" for k in range(len(titles))) + "|"
    rows = ["| " + " | ".join(cells) + " |" for cells in [titles, *lines]]
    return "\n".join([rows[0], rule, *rows[1:]])
