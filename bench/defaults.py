"""What an extraction finds on real files with older settings and with the defaults.

    python bench/defaults.py FOLDER

FOLDER holds the files named below. Prints the tables of docs/defaults.md: the levels of each file,
echoes before (library's threshold, baseline kept, samples not scaled) and after (no options), and
echoes of the forest by threshold.
Modes 2 and 3 use the system wave that `fullwaveform system-wave` estimates from the file.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
import numpy.typing as npt

import fullwaveform as fw
from fullwaveform.analysis.matching import match_echoes
from fullwaveform.calibration.calibration import measure
from fullwaveform.data.arrays import FloatArray
from fullwaveform.io.opening import open_waveforms

FILES = (
    "arrays/topo_2ns.npz",
    "pulsewaves/topo_1ns.pls",
    "pulsewaves/saturated_1ns.pls",
    "arrays/forest_12bit.npz",
)
WITH_RETURNS = "topo_2ns.npz"  # discrete returns of the scanner's own electronics
TOLERANCE = 2.5  # samples
COMPONENT_TOLERANCE = 4.0  # samples; pulses of this archive are 15 samples wide
LEAD = 0.54  # samples from the leading edge, at which the electronics take the time, to the maximum


def levels(path: Path) -> str:
    """Row of the table of levels."""
    with open_waveforms(path) as reader:
        (level,) = measure(reader).levels
    removed = fw.extract(path).tally.baseline_removed > 0
    threshold = level.threshold_above(level.baseline) if removed else level.threshold
    return (
        f"| `{path.stem}` | {level.baseline:.2f} | {level.baseline_spread:.2f} | "
        f"{level.noise_rms:.2f} | {threshold} | {'yes' if removed else 'no'} |"
    )


def echoes(path: Path, mode: int, scanner: Path | None, *, with_defaults: bool) -> str:
    """Cells of the table of echoes."""
    if with_defaults:
        found = fw.extract(path, mode=mode, scanner=scanner)
    else:
        found = fw.extract(
            path, mode=mode, scanner=scanner, threshold="estimate", baseline="keep", sample_scale=1
        )
    number = found.tally.echoes
    empty = np.count_nonzero(found.waveforms["echo_count"] == 0)
    return f"{number:,} | {empty:,} | {matched(path, found)}"


def matched(path: Path, found: fw.Extraction) -> str:
    """Discrete returns of the archive with an echo of their pulse, and the other echoes."""
    if path.name != WITH_RETURNS:
        return "|"
    with np.load(path) as arrays:
        position = arrays["ref_time_s"] / arrays["sampling_interval_s"] + LEAD
        return match(found, arrays["ref_shot"], position, TOLERANCE)


def match(found: fw.Extraction, rows: npt.ArrayLike, position: FloatArray, tolerance: float) -> str:
    """Positions in samples, of rows of the archive, with an echo; echoes without one."""
    pairs = match_echoes(
        found.peaks["waveform_number"].astype(np.int64),
        found.peaks["position"],
        np.asarray(rows, dtype=np.int64),
        position,
        tolerance,
    )
    return f"{len(pairs):,} | {len(pairs.unmatched_found):,}"


def thresholds(path: Path) -> None:
    """Print echoes of mode 1 at lower thresholds, and Gaussian components that they match."""
    measured = fw.extract(path).waveforms["threshold"].astype(np.int64)
    with np.load(path) as arrays:
        position = arrays["ref2_time_s"] / arrays["sampling_interval_s"]
        rows = arrays["ref2_shot"]
    for less in (0, 1, 2, 3, 4):
        found = fw.extract(path, mode=1, threshold=measured - less, baseline="remove")
        empty = np.count_nonzero(found.waveforms["echo_count"] == 0)
        cells = match(found, rows, position, COMPONENT_TOLERANCE)
        print(f"| {less} | {found.tally.echoes:,} | {empty:,} | {cells} |", flush=True)


def described_scanner(path: Path, folder: Path) -> Path:
    """Scanner description with the system wave of the file."""
    output = folder / f"{path.stem}.toml"
    command = [sys.executable, "-m", "fullwaveform", "system-wave"]
    subprocess.run([*command, path, "-o", output, "--quiet"], check=True)
    return output


def main() -> None:
    """Print the tables."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=Path)
    files = [parser.parse_args().folder / name for name in FILES]
    for path in files:
        print(levels(path), flush=True)
    print()
    with tempfile.TemporaryDirectory() as folder:
        for path in files:
            scanner = described_scanner(path, Path(folder))
            for mode in range(4):
                described = scanner if mode > 1 else None
                cells = (echoes(path, mode, described, with_defaults=new) for new in (False, True))
                print(f"| `{path.stem}` | {mode} | {' | '.join(cells)} |", flush=True)
    print()
    thresholds(files[-1])


if __name__ == "__main__":
    main()
