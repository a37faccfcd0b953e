"""Compressed files of the format's own library give what the uncompressed ones give."""

from __future__ import annotations

from pathlib import Path

import pytest

from fullwaveform.data.blocks import ReadTally, WaveformBlock
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...support.las_scenes import data_folder
from ...support.row_scenes import same

PLAIN, COMPRESSED = data_folder() / "pulsewaves", data_folder() / "pulsewaves_compressed"
PAIRS = {
    "topo_1ns": (PLAIN / "topo_1ns.pls", COMPRESSED / "topo_1ns.plz"),
    "saturated_1ns": (PLAIN / "saturated_1ns.pls", COMPRESSED / "saturated_1ns.plz"),
    "eight descriptors": (COMPRESSED / "test.pls", COMPRESSED / "tezt.plz"),
}

needs_files = pytest.mark.skipif(
    not COMPRESSED.is_dir(), reason=f"no compressed files in {COMPRESSED}"
)


def with_outgoing(path: Path, per_block: int) -> tuple[list[WaveformBlock], ReadTally]:
    with PulseWavesReader(path, waveforms_per_block=per_block) as reader:
        reader.with_outgoing = True
        return list(reader.blocks()), reader.tally


@needs_files
@pytest.mark.parametrize("per_block", [20_000, 300])
@pytest.mark.parametrize("name", PAIRS)
def test_compressed_file_gives_the_same_blocks(name: str, per_block: int) -> None:
    (plain, expected), (compressed, found) = (
        with_outgoing(path, per_block) for path in PAIRS[name]
    )
    assert len(plain) == len(compressed) > 0
    assert expected == found
    assert all(same(one, other) for one, other in zip(plain, compressed, strict=True))
