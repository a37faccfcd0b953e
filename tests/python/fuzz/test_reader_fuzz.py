"""Every reader on files with changed bytes gives a result or an error message.

FULLWAVEFORM_FUZZ_SECONDS runs each reader for that long, FULLWAVEFORM_FUZZ_SEED with other chance.
"""

from __future__ import annotations

import importlib.util
import os
import re
import subprocess
import sys
from pathlib import Path
from types import ModuleType

import laspy
import numpy as np
import pytest

from fullwaveform.cluster.folder import JobFolder
from fullwaveform.cluster.inputs import FileState, InputFile
from fullwaveform.cluster.manifest import MANIFEST_VERSION, Manifest
from fullwaveform.cluster.settings import JobSettings
from fullwaveform.cluster.units import planned_parts
from fullwaveform.core.scanner import Scanner
from fullwaveform.extraction.extractor import ExtractionSettings
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.opening import open_waveforms
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ..support.compressed_scenes import Compression, write_compressed
from ..support.flight_lines import flight_line
from ..support.pulsewaves_scenes import two_channels
from .readers import READERS

SECONDS = float(os.environ.get("FULLWAVEFORM_FUZZ_SECONDS", "0"))
SEED = os.environ.get("FULLWAVEFORM_FUZZ_SEED", "1")
LEAST_INPUTS = 60

DESCRIPTION = """\
"Scanner Group Velocity" = 299708256.0
"Scanner Serial Number" = "S2227823"
"Scanner Build Number" = "B17"
"Scanner Type" = "VQ-840-GL"
"Wavelength[nm]" = 532.0
UnambiguousRange = 1000.0
reflectance_calculation_delta = 0.25
reflectance_calculation_table = [0.1, 0.2]
ampl_unit = 0.01
WaveformSampleInterval = 1e-9
t_ref = 0.0
a_real = [1.0, -0.5, -0.5]
a_imag = [0.0, 0.0, 0.0]
b_real = [-2.5e8, -2.5e8, -2.5e8]
b_imag = [0.0, 5e8, -5e8]
[after_pulse]
offset = 60
width = 40
[deconvolution]
position_offset = 1.5
"""


def scenes_module(name: str) -> ModuleType:
    """Scenes of the tests of formats, which are a package of their own."""
    scenes = Path(__file__).parents[1] / "support" / f"{name}.py"
    spec = importlib.util.spec_from_file_location(f"{name}_for_fuzz", scenes)
    assert spec is not None
    assert spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module  # where dataclasses look for their annotations
    spec.loader.exec_module(module)
    return module


def write_rows(las: Path, container: Path, archive: Path) -> None:
    """The waveforms of a LAS file as a scan container and as a NumPy archive."""
    scanner = Scanner.default(sampling_interval=1e-9)
    with (
        open_waveforms(las, channel_flags={1: 1, 2: 0}) as reader,
        ScanContainerWriter(container, reader.header, scanner) as writer,
    ):
        (block,) = reader.blocks()
        writer.write(block)
    plain = ("samples", "counts", "shot_times", "sbl_times", "channel_flags")
    arrays = {name: getattr(block, name) for name in plain}
    np.savez_compressed(archive, sampling_interval=block.sampling_intervals, **arrays)


def write_manifest(folder: Path) -> None:
    """A job of two files before its first unit."""
    settings = JobSettings.of(
        ExtractionSettings(Scanner.default(), threshold=20),
        {2: 0, 7: 3},
        block=50,
        blocks_per_part=2,
        part_format="parquet",
    )
    inputs = [
        InputFile(name, [FileState(name, 1000, 5)], blocks)
        for name, blocks in (("a.las", 3), ("b.las", 1))
    ]
    parts = planned_parts(inputs, 2, ".parquet")
    manifest = Manifest(MANIFEST_VERSION, "0.1.0", settings, inputs, parts)
    JobFolder(folder).write_manifest(manifest)


@pytest.fixture(scope="module")
def seeds(tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """A small file for each reader, in a folder of its name."""
    folder = tmp_path_factory.mktemp("seeds")
    places = {
        name: folder / name / f"seed.{'csv' if name == 'truth' else name}" for name in READERS
    }
    places["manifest"] = folder / "manifest" / "manifest.json"
    for place in places.values():
        place.parent.mkdir()
    scan = simulate_scan(ScanSettings(shots=12, samples=60, seed=3, lead_in=8))
    files = write_scan(scan, places["las"], point_format=4)
    laspy.read(files.las).write(places["laz"], do_compress=True)
    places["laz"].with_suffix(".wdp").write_bytes(files.las.with_suffix(".wdp").read_bytes())
    scenes_module("pulsewaves_scenes").three_pulses().write(places["pls"])
    flight_line(6).write(places["metrics"])
    for suffix in (".las", ".wdp"):
        target = places["voxels"].with_suffix(".voxels" if suffix == ".las" else suffix)
        target.write_bytes(files.las.with_suffix(suffix).read_bytes())
    write_compressed(two_channels(), places["plz"], Compression(sizes=2))
    scenes_module("hdf5_scenes").two_beams().write(places["gedi"])
    scenes_module("hdf5_scenes").five_shots().write(places["lvis"])
    write_rows(files.las, places["h5"], places["npz"])
    places["toml"].write_text(DESCRIPTION)
    pulse = "".join(f"{i * 0.5},{1000.0 * 2.0 ** (-((i - 12) ** 2) / 9):.3f}\n" for i in range(40))
    places["csv"].write_text("time_ns,amplitude\n" + pulse)
    places["truth"].write_bytes(files.truth.read_bytes())
    write_manifest(places["manifest"].parent)
    return places


@pytest.mark.parametrize("name", READERS)
def test_changed_bytes_give_an_error_or_a_result(name: str, seeds: dict[str, Path]) -> None:
    script = Path(__file__).with_name("fuzz_reader.py")
    call = [sys.executable, script, name, seeds[name], str(SECONDS), str(LEAST_INPUTS), SEED]
    ended = subprocess.run(call, capture_output=True, text=True, timeout=SECONDS + 300)
    assert ended.returncode == 0, ended.stderr[-3000:]
    print(ended.stdout)
    inputs, refused = map(int, re.findall(r"\d+(?= inputs| refused)", ended.stdout))
    assert inputs >= LEAST_INPUTS
    assert 0 < refused < inputs
