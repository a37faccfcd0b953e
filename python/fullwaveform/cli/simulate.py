"""``fullwaveform simulate``: a scan with known echoes."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from fullwaveform.cli.errors import report_errors
from fullwaveform.cli.option_values import local_path
from fullwaveform.cli.options import require_suffix
from fullwaveform.cli.outputs import Output, OverwriteOption, checked_outputs
from fullwaveform.data.counting import counted
from fullwaveform.simulation import ScanSettings, simulate_scan, write_recording, write_scan
from fullwaveform.simulation.files import FILE_KINDS, scan_files
from fullwaveform.simulation.recorded_files import RECORDED_ENDINGS, recorded_files

_DEFAULTS = ScanSettings()
_POINT_FORMATS = (4, 9)


def simulate(
    output: Annotated[
        Path,
        typer.Argument(
            metavar="OUT.las",
            parser=local_path,
            help="Scan: .las, or with outgoing pulses .h5 or .pls; truth (and .wdp, .wvs) go next "
            "to it",
        ),
    ],
    shots: Annotated[int, typer.Option(metavar="N", help="Number of shots")] = _DEFAULTS.shots,
    samples: Annotated[
        int, typer.Option(metavar="N", help="Samples per waveform")
    ] = _DEFAULTS.samples,
    noise_rms: Annotated[
        float, typer.Option(metavar="RMS", help="Noise rms in counts")
    ] = _DEFAULTS.noise_rms,
    seed: Annotated[
        int, typer.Option(metavar="N", help="Random seed; equal seeds give equal scans")
    ] = _DEFAULTS.seed,
    point_format: Annotated[
        int, typer.Option(metavar="9|4", help="LAS point format: 9 (LAS 1.4) or 4 (LAS 1.3)")
    ] = 9,
    overwrite: OverwriteOption = False,
) -> None:
    """Simulate a scan with known echoes.

    It has two channels, overlapping and saturated echoes, shots without echoes, and a CSV file with
    the true echoes. Containers and PulseWaves files record ranges in whole
    samples, and the outgoing pulses.

    Examples:

        fullwaveform simulate simulated.las --shots 5000

        fullwaveform simulate noisy.las --shots 500 --samples 160 --noise-rms 4 --seed 7

        fullwaveform simulate outgoing.pls --shots 5000
    """
    require_suffix(output, (".las", *RECORDED_ENDINGS), "OUT.las")
    if point_format not in _POINT_FORMATS:
        raise typer.BadParameter(f"{point_format} must be 4 or 9", param_hint="--point-format")
    try:
        settings = ScanSettings(shots=shots, samples=samples, noise_rms=noise_rms, seed=seed)
    except ValueError as error:
        raise typer.BadParameter(str(error)) from error
    is_las = output.suffix.lower() == ".las"
    if is_las:
        kinds = dict(zip(scan_files(output), FILE_KINDS, strict=True))
    else:
        kinds = recorded_files(output)
    outputs = [Output(path, kind, "OUT.las") for path, kind in kinds.items()]
    with checked_outputs(*outputs, overwrite=overwrite, inputs=()), report_errors():
        scan = simulate_scan(settings)
        if is_las:
            write_scan(scan, output, point_format=point_format, overwrite=overwrite)
        else:
            write_recording(scan, output, overwrite=overwrite)
    echoes = counted(len(scan.truth), "echo", "echoes")
    names = ", ".join(str(file) for file in kinds)
    typer.echo(f"{counted(shots, 'shot')}, {echoes}: {names}")
