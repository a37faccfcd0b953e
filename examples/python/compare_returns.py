"""How extracted echoes compare with the discrete returns of the file they come from.

    python examples/python/compare_returns.py SCAN.las ECHOES.las

The discrete returns were made by other electronics of the scanner, which trigger on the leading
edge: they lie earlier than the maximum by about half a pulse width.
"""

from __future__ import annotations

import sys
from pathlib import Path

import laspy
import numpy as np

from fullwaveform.analysis.matching import match_echoes, summarise
from fullwaveform.io.las.reader import LasWaveformReader

TOLERANCE = 3.0  # samples


def main(scan: Path, echoes_path: Path) -> None:
    """Print matched, missed and extra echoes, and their distances in samples and metres."""
    with LasWaveformReader(scan) as reader:
        spacing = {index: descriptor.spacing_ps for index, descriptor in reader.descriptors.items()}
    points, echoes = laspy.read(scan), laspy.read(echoes_path)
    with_packet = np.asarray(points.wavepacket_index) != 0
    index = np.asarray(points.wavepacket_index)[with_packet]
    interval = np.array([spacing.get(int(i), 0) for i in range(256)], dtype=np.float64)[index]
    location = np.asarray(points.return_point_wave_location, dtype=np.float64)[with_packet]
    metres_per_ps = np.linalg.norm(
        np.stack([np.asarray(points[name])[with_packet] for name in ("x_t", "y_t", "z_t")]), axis=0
    )
    matching = match_echoes(
        np.asarray(echoes.gps_time),
        np.asarray(echoes["position"]),
        np.asarray(points.gps_time)[with_packet],
        location / interval,
        TOLERANCE,
    )
    metres = matching.difference * (interval * metres_per_ps)[matching.ref_index]
    statistics = summarise(matching)
    print(f"discrete returns {len(location):,}, extracted echoes {len(echoes.points):,}")
    print(f"matched within {TOLERANCE:g} samples {statistics.matched:,}")
    print(f"returns without an echo {statistics.unmatched_ref:,}")
    print(f"echoes without a return {statistics.unmatched_found:,}")
    print(
        f"echo minus return: median {statistics.median:+.3f} samples ({np.median(metres):+.3f} m)"
    )
    spread = np.percentile(np.abs(matching.difference - statistics.median), (50, 90, 95))
    print(
        "distance from that median: "
        + ", ".join(
            f"{share} % within {value:.3f} samples"
            for share, value in zip((50, 90, 95), spread, strict=True)
        )
    )


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*map(Path, sys.argv[1:]))
