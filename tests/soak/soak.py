"""Extract millions of simulated waveforms in every mode; check results, memory and descriptors.

A scan is simulated and repeated up to the given number of waveforms; `fullwaveform extract` runs in
each mode with several workers. Prints memory, open files and threads over time, and the counts of
echoes, compared with the truth and between the repetitions. The exit code is 1 when memory or
descriptors grow, when a count is wrong, or when drivers leak memory.

    python tests/soak/soak.py --waveforms 5000000

Uses the installed package `fullwaveform`.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import tempfile
from pathlib import Path

from bookkeeping import balance
from driver_lifetimes import DRIVERS_PER_ROUND
from scans import CHANNELS, RepeatedScan, repeat
from watching import WatchedProcess, watch

from fullwaveform.io.echo_writers.opening import echo_outputs

COMMAND = [sys.executable, "-m", "fullwaveform"]
THRESHOLD = "20"  # counts; 8 above the baseline, five times the noise rms
PULSE_FIT = 4  # the mode that has no threshold
COLUMNS = 8  # readings of a run that are printed
# Bytes of heap that a driver may leave on average; one transform plan takes thousands.
MAX_LEAK = 64


def main() -> int:
    """Run all checks; return 1 if any failed."""
    options = parse_options()
    if options.folder is not None:
        failures = soak(options, options.folder)
    else:
        with tempfile.TemporaryDirectory(prefix="soak-") as folder:
            failures = soak(options, Path(folder))
    failures += driver_failures(options.driver_rounds)
    for failure in failures:
        print(f"FAILED: {failure}")
    print(f"{len(failures)} checks failed" if failures else "all checks passed")
    return 1 if failures else 0


def parse_options() -> argparse.Namespace:
    """Options of the command line."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0] if __doc__ else None)
    parser.add_argument("--waveforms", type=int, default=5_000_000, help="per mode, at least")
    parser.add_argument("--modes", type=int, nargs="+", default=[*range(5)], choices=range(5))
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--shots", type=int, default=5000, help="per repetition")
    parser.add_argument("--block", type=int, default=5000, help="waveforms per block")
    parser.add_argument("--max-growth", type=float, default=1.05, help="of the memory, as a ratio")
    parser.add_argument("--ending", choices=[".csv", ".parquet"], default=".csv")
    parser.add_argument("--driver-rounds", type=int, default=50, help="at least 3")
    parser.add_argument("--interval", type=float, default=0.1, help="between two readings, s")
    parser.add_argument("--folder", type=Path, help="for the files; default: temporary")
    options = parser.parse_args()
    if options.block > CHANNELS * options.shots:
        parser.error("--block must not exceed the waveforms of a repetition")
    if options.driver_rounds < 3:
        parser.error("--driver-rounds must be at least 3")
    return options


def soak(options: argparse.Namespace, folder: Path) -> list[str]:
    """Failures of the extraction in every mode."""
    scan = scan_of(options, folder)
    print(
        f"{scan.waveforms:,} waveforms: {scan.repetitions:,} times a scan of {scan.shots:,} shots "
        f"with {len(scan.truth):,} true echoes; {options.workers} workers, blocks of "
        f"{options.block:,}"
    )
    failures = []
    for mode in options.modes:
        failures += [f"mode {mode}: {failure}" for failure in run(mode, scan, options, folder)]
    return failures


def scan_of(options: argparse.Namespace, folder: Path) -> RepeatedScan:
    """The simulated scan, repeated, and the description of its scanner."""
    once = folder / "once.las"
    call(["simulate", once, "--shots", options.shots])
    call(["system-wave", once, "-o", folder / "scanner.toml", "--threshold", THRESHOLD, "--quiet"])
    repetitions = -(-options.waveforms // (CHANNELS * options.shots))
    return repeat(once, options.shots, repetitions, folder / "scan.las")


def call(words: list[object]) -> None:
    """Run the command line; CalledProcessError if it fails."""
    subprocess.run([*COMMAND, *map(str, words)], check=True, stdout=subprocess.DEVNULL)


def run(mode: int, scan: RepeatedScan, options: argparse.Namespace, folder: Path) -> list[str]:
    """Failures of the extraction in one mode; removes its echoes."""
    working = folder / f"mode-{mode}"
    working.mkdir()
    output = working / f"echoes{options.ending}"
    words: list[object] = [
        "extract",
        scan.path,
        "-o",
        output,
        "--mode",
        mode,
    ]
    words += ["--threshold", THRESHOLD] if mode < PULSE_FIT else []
    words += ["--scanner", folder / "scanner.toml", "--channel", "2=high", "--keep-empty"]
    words += ["--workers", options.workers, "--block", options.block, "--quiet"]
    process = watch([*COMMAND, *map(str, words)], working, options.interval)
    failures = process.failures(options.max_growth)
    show(mode, scan, process)
    if process.exit_code == 0:
        counts = balance(output, scan)
        print(
            f"  {counts.waveforms:,} waveforms, {counts.echoes:,} echoes, {counts.rows:,} rows; "
            f"{counts.certain_found} of {counts.certain} certain echoes of a repetition, "
            f"{counts.empty:,} waveforms without a true echo, {counts.empty_with_echoes} of them "
            f"with one"
        )
        failures += counts.failures
        for path in echo_outputs(output):
            path.unlink()
    if left := sorted(path.name for path in working.iterdir()):
        failures.append(f"unexpected files remain: {', '.join(left)}")
    return failures


def show(mode: int, scan: RepeatedScan, process: WatchedProcess) -> None:
    """Print some readings of the run."""
    rate = scan.waveforms / process.seconds
    print(f"\nmode {mode}: {process.seconds:.1f} s, {rate:,.0f} waveforms per second")
    if len(process.readings) < COLUMNS:
        return
    last = len(process.readings) - 1
    selected = [process.readings[k * last // (COLUMNS - 1)] for k in range(COLUMNS)]
    for label, values in (
        ("time, s", [f"{reading.seconds:.1f}" for reading in selected]),
        ("memory, MB", [f"{reading.memory:.1f}" for reading in selected]),
        ("open files", [str(reading.descriptors) for reading in selected]),
        ("threads", [str(reading.threads) for reading in selected]),
    ):
        print(f"  {label:<12}" + "".join(f"{value:>9}" for value in values))
    print(f"  memory, last quarter / second: {process.memory_growth:.3f}", flush=True)


def driver_failures(rounds: int) -> list[str]:
    """Heap left by drivers, not counting the first third of the rounds, which fills caches."""
    script = Path(__file__).with_name("driver_lifetimes.py")
    done = subprocess.run(
        [sys.executable, script, str(rounds)], check=True, stdout=subprocess.PIPE, text=True
    )
    heap = [int(line) for line in done.stdout.split()]
    begin = rounds // 3
    drivers = (rounds - 1 - begin) * DRIVERS_PER_ROUND
    leak = (heap[-1] - heap[begin]) / drivers
    print(
        f"\n{drivers:,} drivers created, used and destroyed: heap {heap[begin]:,} bytes before, "
        f"{heap[-1]:,} after, {leak:.1f} bytes per driver"
    )
    if leak > MAX_LEAK:
        return [f"a driver leaves {leak:.0f} bytes of heap"]
    return []


if __name__ == "__main__":
    sys.exit(main())
