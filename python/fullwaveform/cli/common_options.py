"""Arguments and options that several verbs have, with the same names and the same help."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

SourceFile = Annotated[
    Path, typer.Argument(metavar="IN", help="File of waveforms, as for extract.")
]
ModeName = Annotated[
    str, typer.Option(help="three-point, decomposition, deconvolution, hybrid, or 0 to 3.")
]
NoiseLevel = Annotated[
    str, typer.Option(help="Noise level in counts; auto estimates it for every waveform.")
]
ScannerFile = Annotated[
    Path | None, typer.Option(help="Scanner description (TOML); else that of IN, if any.")
]
ChannelTexts = Annotated[
    list[str] | None,
    typer.Option(help="Channel of all packets (low, high) or of a descriptor (2=high); else low."),
]
AfterPulseWindow = Annotated[
    str | None,
    typer.Option(metavar="OFFSET,WIDTH", help="After-pulse window in samples, or off."),
]
IntervalNs = Annotated[
    float | None, typer.Option(metavar="NS", help="Sampling interval in ns, for an .npz.")
]
BlockSize = Annotated[
    int, typer.Option(min=1, help="Waveforms per block: what is in memory at a time.")
]
Quiet = Annotated[bool, typer.Option("-q", "--quiet", help="No progress, no summary.")]
LeftOutTold = Annotated[
    bool, typer.Option("-v", "--verbose", help="A line for each waveform left out.")
]
