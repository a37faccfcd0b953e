"""Millions of simulated waveforms through the command line in every mode: is anything lost or kept?

A scan is simulated and repeated until it has the wanted number of waveforms; `fullwaveform extract`
takes its echoes in each mode with several workers. Printed are memory, open files and threads over
time and the counts of the echoes, compared with the truth and between the repetitions. The exit
code is 1 when memory or descriptors grow, when a count is not what it must be, or when drivers that
are built and go leave memory behind.

    python tests/soak/soak.py --waveforms 5000000

The installed package `fullwaveform` is what runs.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import tempfile
from pathlib import Path

from bookkeeping import balance
from driver_lifetimes import DRIVERS_OF_A_ROUND
from scans import CHANNELS, RepeatedScan, repeat
from watching import Watched, watch

COMMAND = [sys.executable, "-m", "fullwaveform"]
NOISE = "20"  # counts; 8 above the baseline, five times the noise
COLUMNS = 8  # moments of a run that are shown
# Bytes of the heap that a driver may leave on average: a plan of the transforms takes thousands.
LARGEST_REMAINDER = 64


def main() -> int:
    """Run everything; 1 when there is a fault."""
    options = parsed()
    if options.folder is not None:
        faults = soaked(options, options.folder)
    else:
        with tempfile.TemporaryDirectory(prefix="soak-") as folder:
            faults = soaked(options, Path(folder))
    faults += driver_faults(options.driver_rounds)
    for fault in faults:
        print(f"FAULT: {fault}")
    print(f"{len(faults)} faults" if faults else "nothing lost, nothing kept")
    return 1 if faults else 0


def parsed() -> argparse.Namespace:
    """The options of the call."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0] if __doc__ else None)
    parser.add_argument("--waveforms", type=int, default=5_000_000, help="of each mode, at least")
    parser.add_argument("--modes", type=int, nargs="+", default=[0, 1, 2, 3], choices=range(4))
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--shots", type=int, default=5000, help="of one repetition")
    parser.add_argument("--block", type=int, default=5000, help="waveforms of a block")
    parser.add_argument("--largest-growth", type=float, default=1.05, help="of the memory")
    parser.add_argument("--ending", choices=[".csv", ".parquet"], default=".csv")
    parser.add_argument("--driver-rounds", type=int, default=50, help="at least 3")
    parser.add_argument("--interval", type=float, default=0.1, help="s between two readings")
    parser.add_argument("--folder", type=Path, help="where the files go; a temporary one if none")
    options = parser.parse_args()
    if options.block > CHANNELS * options.shots:
        parser.error("a block is longer than a repetition")
    if options.driver_rounds < 3:
        parser.error("--driver-rounds must be at least 3")
    return options


def soaked(options: argparse.Namespace, folder: Path) -> list[str]:
    """Faults of the extraction in every mode."""
    scan = scan_of(options, folder)
    print(
        f"{scan.waveforms:,} waveforms: {scan.repetitions:,} times a scan of {scan.shots:,} shots "
        f"with {len(scan.truth):,} true echoes; {options.workers} workers, blocks of "
        f"{options.block:,}"
    )
    faults = []
    for mode in options.modes:
        faults += [f"mode {mode}: {fault}" for fault in run(mode, scan, options, folder)]
    return faults


def scan_of(options: argparse.Namespace, folder: Path) -> RepeatedScan:
    """The simulated scan, repeated, and the description of its scanner."""
    once = folder / "once.las"
    call(["simulate", once, "--shots", options.shots])
    call(["system-wave", once, "-o", folder / "scanner.toml", "--noise", NOISE, "--quiet"])
    repetitions = -(-options.waveforms // (CHANNELS * options.shots))
    return repeat(once, options.shots, repetitions, folder / "scan.las")


def call(words: list[object]) -> None:
    """Run the command line; CalledProcessError if it fails."""
    subprocess.run([*COMMAND, *map(str, words)], check=True, stdout=subprocess.DEVNULL)


def run(mode: int, scan: RepeatedScan, options: argparse.Namespace, folder: Path) -> list[str]:
    """Faults of the extraction in one mode; its echoes are removed afterwards."""
    working = folder / f"mode-{mode}"
    working.mkdir()
    output = working / f"echoes{options.ending}"
    words: list[object] = ["extract", scan.path, "-o", output, "--mode", mode, "--noise", NOISE]
    words += ["--scanner", folder / "scanner.toml", "--channel", "2=high", "--keep-empty"]
    words += ["--workers", options.workers, "--block", options.block, "--quiet"]
    watched = watch([*COMMAND, *map(str, words)], working, options.interval)
    faults = watched.faults(options.largest_growth)
    show(mode, scan, watched)
    if watched.exit_code == 0:
        counts = balance(output, scan)
        print(
            f"  {counts.waveforms:,} waveforms, {counts.echoes:,} echoes, {counts.rows:,} rows; "
            f"{counts.certain_found} of {counts.certain} certain echoes of a repetition, "
            f"{counts.empty:,} waveforms without a true echo, {counts.empty_with_echoes} of them "
            f"with one"
        )
        faults += counts.faults
        output.unlink()
    if left := sorted(path.name for path in working.iterdir()):
        faults.append(f"left behind: {', '.join(left)}")
    return faults


def show(mode: int, scan: RepeatedScan, watched: Watched) -> None:
    """Print the readings at some moments of the run."""
    rate = scan.waveforms / watched.seconds
    print(f"\nmode {mode}: {watched.seconds:.1f} s, {rate:,.0f} waveforms per second")
    if len(watched.readings) < COLUMNS:
        return
    last = len(watched.readings) - 1
    moments = [watched.readings[k * last // (COLUMNS - 1)] for k in range(COLUMNS)]
    for label, values in (
        ("time, s", [f"{one.seconds:.1f}" for one in moments]),
        ("memory, MB", [f"{one.memory:.1f}" for one in moments]),
        ("open files", [str(one.descriptors) for one in moments]),
        ("threads", [str(one.threads) for one in moments]),
    ):
        print(f"  {label:<12}" + "".join(f"{value:>9}" for value in values))
    print(f"  memory of the last quarter over the second: {watched.memory_growth:.3f}", flush=True)


def driver_faults(rounds: int) -> list[str]:
    """What drivers leave on the heap after the rounds in which everything was met once."""
    script = Path(__file__).with_name("driver_lifetimes.py")
    done = subprocess.run(
        [sys.executable, script, str(rounds)], check=True, stdout=subprocess.PIPE, text=True
    )
    heap = [int(line) for line in done.stdout.split()]
    begin = rounds // 3
    drivers = (rounds - 1 - begin) * DRIVERS_OF_A_ROUND
    remainder = (heap[-1] - heap[begin]) / drivers
    print(
        f"\n{drivers:,} drivers built, used and gone: heap {heap[begin]:,} bytes before, "
        f"{heap[-1]:,} after, {remainder:.1f} bytes per driver"
    )
    if remainder > LARGEST_REMAINDER:
        return [f"a driver leaves {remainder:.0f} bytes behind"]
    return []


if __name__ == "__main__":
    sys.exit(main())
