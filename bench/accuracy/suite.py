"""All tables of a run."""

from __future__ import annotations

from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

from accuracy.constructed import isolated_tasks, noise_tasks, pair_tasks, saturated_tasks
from accuracy.plan import Plan, Row, Task, gaussian_pulse
from accuracy.real import isolated_echoes, real_tasks
from accuracy.results import Results, rounded
from accuracy.ringing import ringing_tasks
from accuracy.scan import scan_tasks
from accuracy.scenes import SEED


def measured(plan: Plan, threads: int, report: Callable[[str], None]) -> Results:
    """The figures of all tables; equal for any number of threads.

    `report` is called with the name of each table when it is complete.
    """
    pulses = [gaussian_pulse()]
    real_pairs: list[Task] = []
    real_singles: list[Task] = []
    if plan.file is not None:
        singles = isolated_echoes(plan.file)
        pulses.append(singles.pulse)
        real_pairs, real_singles = real_tasks(plan, singles)
    tables: dict[str, list[Task]] = {
        "isolated": isolated_tasks(plan, pulses),
        "pairs": pair_tasks(plan),
        "noise": noise_tasks(plan),
        "saturated": saturated_tasks(plan),
        "scan": scan_tasks(plan),
        "ringing": ringing_tasks(plan),
        "real pairs": real_pairs,
        "real singles": real_singles,
    }
    settings: Row = {
        "seed": SEED,
        "file": plan.file.name if plan.file else "",
        "isolated": plan.isolated,
        "pairs": plan.pairs,
        "saturated": plan.saturated,
        "shots": plan.shots,
        "ringing": plan.ringing,
        "real": plan.real,
    }
    found: dict[str, list[Row]] = {}
    with ThreadPoolExecutor(threads) as pool:
        for name, tasks in tables.items():
            if not tasks:
                continue
            parts = list(pool.map(lambda task: task(), tasks))
            found[name] = rounded(row for part in parts for row in part)
            report(name)
    return Results(settings, found)
