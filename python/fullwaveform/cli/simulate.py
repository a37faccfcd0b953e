"""``fullwaveform simulate``: a sample scan with known echoes."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import told_in_a_sentence
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

_DEFAULTS = ScanSettings()


def simulate(
    output: Annotated[
        Path, typer.Argument(metavar="OUT.las", help="The scan; its packets go beside it.")
    ],
    shots: Annotated[int, typer.Option(help="Number of shots.")] = _DEFAULTS.shots,
    samples: Annotated[int, typer.Option(help="Samples per waveform.")] = _DEFAULTS.samples,
    noise: Annotated[
        float, typer.Option(help="Noise of the receiver, counts rms.")
    ] = _DEFAULTS.noise_rms,
    seed: Annotated[int, typer.Option(help="Equal seeds give equal scans.")] = _DEFAULTS.seed,
    point_format: Annotated[
        int, typer.Option(help="LAS point format, 9 (LAS 1.4) or 4 (LAS 1.3).")
    ] = 9,
) -> None:
    """Write a scan of two channels with overlapping, saturated and missing echoes, and its truth.

    Worked examples:

        fullwaveform simulate simulated.las --shots 5000

        fullwaveform simulate noisy.las --shots 500 --samples 160 --noise 4 --seed 7
    """
    if output.suffix.lower() != ".las":
        raise typer.BadParameter(f"{output} must end in .las", param_hint="OUT.las")
    if point_format not in (4, 9):
        raise typer.BadParameter(f"{point_format} is neither 4 nor 9", param_hint="--point-format")
    try:
        settings = ScanSettings(shots=shots, samples=samples, noise_rms=noise, seed=seed)
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error
    with told_in_a_sentence():
        scan = simulate_scan(settings)
        files = write_scan(scan, output, point_format=point_format)
    typer.echo(
        f"{shots:,} shots, {len(scan.truth):,} echoes: {', '.join(str(file) for file in files)}"
    )
