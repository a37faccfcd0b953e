"""The viewer at 10 million echoes: index, first picture, moving the map, click to waveform, memory.

Usage: view.py [--echoes N] [--folder FOLDER]

Makes a scan of half as many waveforms of 32 samples with two echoes each, and its echoes, in FOLDER
(default: a temporary one; an existing scan there is used again), and measures `fullwaveform view`
in headless Chromium with software rendering. Prints medians; the viewer and the browser run on
this machine, so that each takes processor time from the other.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from statistics import median
from typing import Any

import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
from laspy.vlrs.known import WaveformPacketStruct, WaveformPacketVlr
from playwright.sync_api import Page, sync_playwright

SAMPLES = 32
AREA = 2000.0  # m, edge of the square that the scan covers
CHUNK = 500_000  # waveforms written at a time
PANS, CLICKS = 60, 60
_FILES = ("scan.las", "--echoes", "echoes.parquet")
_CHROMIUM = ("--no-sandbox", "--use-gl=angle", "--use-angle=swiftshader")
_HEADER_BYTES = 60  # before the first packet


def waveforms(count: int, random: np.random.Generator) -> np.ndarray:
    """Two echoes in each waveform, 8 bits."""
    at = np.arange(SAMPLES)
    first = random.uniform(6.0, 12.0, (count, 1))
    second = first + random.uniform(8.0, 12.0, (count, 1))
    height = 10.0 + random.normal(0.0, 1.0, (count, SAMPLES))
    for place, amplitude in ((first, 150.0), (second, 80.0)):
        height += amplitude * np.exp(-0.5 * ((at - place) / 1.6) ** 2)
    return np.clip(np.round(height), 0, 255).astype(np.uint8)


def make_scan(path: Path, echoes_path: Path, count: int) -> None:
    """A LAS file of `count` waveforms, and a table of two echoes of each."""
    random = np.random.default_rng(1)
    header = laspy.LasHeader(version="1.3", point_format=4)
    header.scales, header.offsets = np.full(3, 0.001), np.zeros(3)
    header.global_encoding.waveform_data_packets_external = True
    descriptor = WaveformPacketVlr(100)
    descriptor.parsed_record = WaveformPacketStruct(8, 0, SAMPLES, 1000, 0.5, -1.0)
    header.vlrs.append(descriptor)
    writer: pq.ParquetWriter | None = None
    with (
        laspy.open(path, "w", header=header) as las,
        path.with_suffix(".wdp").open("wb") as packets,
    ):
        packets.write(bytes(_HEADER_BYTES))
        for start in range(0, count, CHUNK):
            size = min(CHUNK, count - start)
            number = start + np.arange(size)
            x, y = random.uniform(0.0, AREA, (2, size))
            z = 100.0 + 20.0 * np.sin(x / 150.0)
            points = laspy.ScaleAwarePointRecord.zeros(size, header=header)
            points.x, points.y, points.z = x, y, z
            points.gps_time = number * 1e-5
            points.wavepacket_index = np.ones(size, np.uint8)
            points.wavepacket_offset = _HEADER_BYTES + number.astype(np.uint64) * SAMPLES
            points.wavepacket_size = np.full(size, SAMPLES, np.uint32)
            points["z_t"] = np.full(size, 0.00015, np.float32)
            las.write_points(points)
            packets.write(waveforms(size, random).tobytes())
            twice = np.repeat(np.arange(size), 2)
            second = np.tile([0, 1], size)
            table = pa.table(
                {
                    "x": x[twice],
                    "y": y[twice],
                    "z": z[twice] - 1.3 - 1.5 * second,
                    "gps_time": number[twice] * 1e-5,
                    "echo_number": 1 + second,
                    "amplitude": random.gamma(4.0, 30.0, 2 * size).astype(np.float32),
                    "fwhm_ns": random.normal(3.8, 0.3, 2 * size),
                    "reduced_chi_square": random.gamma(20.0, 0.05, 2 * size).astype(np.float32),
                    "sigma_range": random.uniform(0.0, 0.02, 2 * size).astype(np.float32),
                    "classification": (second * 2).astype(np.uint8),
                    "waveform_number": number[twice],
                }
            )
            writer = writer or pq.ParquetWriter(echoes_path, table.schema)
            writer.write_table(table)
    if writer is not None:
        writer.close()


def resident(process: subprocess.Popen[str], field: str) -> float:
    """Memory of a process in MiB: VmRSS now, VmHWM at most so far."""
    status = Path(f"/proc/{process.pid}/status").read_text(encoding="ascii")
    (line,) = [line for line in status.splitlines() if line.startswith(f"{field}:")]
    return int(line.split()[1]) / 1024


def started(folder: Path) -> tuple[subprocess.Popen[str], str, float]:
    """The running command, its address, and the time until it printed that."""
    start = time.perf_counter()
    process = subprocess.Popen(
        [sys.executable, "-m", "fullwaveform", "view", *_FILES, "--no-browser"],
        cwd=folder,
        env={**os.environ, "XDG_CACHE_HOME": str(folder / "cache")},
        stdout=subprocess.PIPE,
        text=True,
    )
    assert process.stdout is not None
    address = process.stdout.readline().strip()
    return process, address, time.perf_counter() - start


def stop(process: subprocess.Popen[str]) -> None:
    """End the command."""
    process.terminate()
    process.communicate(timeout=60)


PAN = """async (count) => {
  const { map } = window.fullwaveform;
  const gl = map.cloud.gl;
  const times = [];
  for (let i = 0; i < count; i++) {
    const begin = performance.now();
    map.pan(i % 2 ? 37 : -41, i % 3 ? 23 : -29);
    gl.readPixels(0, 0, 1, 1, gl.RGBA, gl.UNSIGNED_BYTE, new Uint8Array(4)); // waits for it
    times.push(performance.now() - begin);
    await new Promise((done) => requestAnimationFrame(done));
  }
  return [times, map.drawn];
}"""

CLICK = """async (count) => {
  const { map } = window.fullwaveform;
  const panel = document.querySelector("#panel");
  const area = map.mapArea();
  const times = [];
  let seed = 1;
  const random = () => (seed = (seed * 16807) % 2147483647) / 2147483647;
  for (let i = 0; i < count; i++) {
    panel.removeAttribute("data-waveform");
    const begin = performance.now();
    map.pick([area.left + random() * area.width, area.top + random() * area.height], 9999);
    while (!panel.dataset.waveform) {
      if (performance.now() - begin > 10000) throw new Error("no waveform");
      await new Promise((done) => setTimeout(done, 0));
    }
    times.push(performance.now() - begin);
  }
  return times;
}"""


def measured(page: Page, address: str) -> dict[str, Any]:
    """What the page takes, in the units of the names."""
    start = time.perf_counter()
    page.goto(address)
    page.wait_for_selector('#map[data-complete="true"]', timeout=120_000)
    found: dict[str, Any] = {"first picture, s": time.perf_counter() - start}
    pans, drawn = page.evaluate(PAN, PANS)
    page.wait_for_selector('#map[data-complete="true"]', timeout=120_000)
    found["echoes drawn"] = drawn
    found["pan step, ms"] = median(pans)
    found["click to waveform, ms"] = median(page.evaluate(CLICK, CLICKS))
    return found


def main() -> None:
    """Make the files, start the viewer twice, and print what was measured."""
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--echoes", type=int, default=10_000_000)
    parser.add_argument("--folder", type=Path)
    options = parser.parse_args()
    temporary = None if options.folder else tempfile.mkdtemp(prefix="fullwaveform-view-")
    folder = options.folder or Path(str(temporary))
    try:
        if not (folder / "echoes.parquet").exists():
            make_scan(folder / "scan.las", folder / "echoes.parquet", options.echoes // 2)
        shutil.rmtree(folder / "cache", ignore_errors=True)
        process, _, seconds = started(folder)
        print(f"start with index, s: {seconds:.1f}")
        print(f"memory at most while the index is made, MiB: {resident(process, 'VmHWM'):.0f}")
        stop(process)
        process, address, seconds = started(folder)
        print(f"start with an existing index, s: {seconds:.1f}")
        with sync_playwright() as playwright:
            browser = playwright.chromium.launch(
                executable_path=shutil.which("chromium"),
                args=[*_CHROMIUM, "--enable-unsafe-swiftshader"],
            )
            page = browser.new_page(viewport={"width": 1400, "height": 900}, bypass_csp=True)
            for name, value in measured(page, address).items():
                print(f"{name}: {value:,.2f}" if isinstance(value, float) else f"{name}: {value:,}")
            browser.close()
        print(f"memory of the server at most, MiB: {resident(process, 'VmHWM'):.0f}")
        stop(process)
    finally:
        if temporary is not None:
            shutil.rmtree(temporary)


if __name__ == "__main__":
    main()
