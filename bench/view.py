"""The viewer at 10 million echoes: index, first picture, moving, click to waveform, selecting.

Usage: view.py [--echoes N] [--folder FOLDER] [--pages N]

Makes a scan of half as many waveforms of 32 samples with two echoes each, and its echoes, in FOLDER
(default: a temporary one; an existing scan there is used again), and measures `fullwaveform view`
in headless Chromium with software rendering. Prints a table of medians. The viewer and the browser
run on this machine and share its processors with whatever else runs; so the table has the load of
the machine and, where one side does the work, processor time.
"""

from __future__ import annotations

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from statistics import median
from urllib.request import urlopen

import laspy
import numpy as np
import pyarrow as pa
import pyarrow.parquet as pq
from laspy.vlrs.known import WaveformPacketStruct, WaveformPacketVlr
from playwright.sync_api import Browser, Page, sync_playwright

SAMPLES = 32
AREA = 2000.0  # m, edge of the square that the scan covers
CHUNK = 500_000  # waveforms written at a time
PANS, CLICKS, SELECTIONS = 60, 60, 5
START_TIMEOUT_S, PAGE_TIMEOUT_MS = 1800, 300_000
_FILES = ("scan.las", "--echoes", "echoes.parquet")
_CHROMIUM = (
    "--no-sandbox",
    "--use-gl=angle",
    "--use-angle=swiftshader",
    "--enable-unsafe-swiftshader",
)
_MB = 1e6
_HEADER_BYTES = 60  # before the first packet

Rows = Iterator[tuple[str, float, str]]


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
    unfinished = echoes_path.with_suffix(".unfinished")
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
            writer = writer or pq.ParquetWriter(unfinished, table.schema)
            writer.write_table(table)
    if writer is not None:
        writer.close()
    unfinished.rename(echoes_path)


@dataclass(frozen=True)
class Process:
    """What the system knows of a running process."""

    pid: int

    def peak_memory(self) -> float:
        """Resident memory at most so far, MB."""
        status = Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        (line,) = [line for line in status.splitlines() if line.startswith("VmHWM:")]
        return int(line.split()[1]) * 1024 / _MB

    def processor_time(self) -> float:
        """Seconds of all threads so far."""
        fields = (
            Path(f"/proc/{self.pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
        )
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@contextmanager
def viewer(folder: Path) -> Iterator[tuple[Process, str, float]]:
    """The running command, its address, and the seconds until it printed that."""
    start = time.perf_counter()
    process = subprocess.Popen(
        [sys.executable, "-m", "fullwaveform", "view", *_FILES, "--no-browser"],
        cwd=folder,
        env={**os.environ, "XDG_CACHE_HOME": str(folder / "cache")},
        stdout=subprocess.PIPE,
        text=True,
    )
    late = threading.Timer(START_TIMEOUT_S, process.kill)
    late.start()
    try:
        assert process.stdout is not None
        address = process.stdout.readline().strip()
        if not address:
            raise SystemExit(f"fullwaveform view ended with exit code {process.wait()}")
        yield Process(process.pid), address, time.perf_counter() - start
    finally:
        late.cancel()
        process.send_signal(signal.SIGINT)
        try:
            process.communicate(timeout=30)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()


# Reading a pixel waits until all is drawn; `finish` would not, browsers only flush then.
PAN = """async ([count, whole]) => {
  const { map } = window.fullwaveform;
  const gl = map.cloud.gl;
  const drawn = () => gl.readPixels(0, 0, 1, 1, gl.RGBA, gl.UNSIGNED_BYTE, new Uint8Array(4));
  const frame = () => new Promise((done) => requestAnimationFrame(done));
  const [steps, frames] = [[], []];
  await frame();
  for (let i = 0; i < count; i++) {
    const begin = performance.now();
    if (whole) map.draw();
    else map.pan(i % 2 ? 37 : -41, i % 3 ? 23 : -29);
    drawn();
    steps.push(performance.now() - begin);
    await frame();
    frames.push(performance.now() - begin);
  }
  return [steps, frames, map.drawn];
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
    const shown = new Promise((done, failed) => {
      new MutationObserver((_, observer) => {
        if (!panel.dataset.waveform) return;
        observer.disconnect();
        done();
      }).observe(panel, { attributeFilter: ["data-waveform"] });
      setTimeout(() => failed(new Error("no waveform")), 60000);
    });
    const begin = performance.now();
    map.pick([area.left + random() * area.width, area.top + random() * area.height], 9999);
    await shown;
    times.push(performance.now() - begin);
  }
  return times;
}"""


class Chromium:
    """The browser, and the processes that work for its page."""

    def __init__(self, browser: Browser) -> None:
        self._browser = browser
        self._session = browser.new_browser_cdp_session()

    def new_page(self) -> Page:
        """An empty page."""
        page = self._browser.new_page(viewport={"width": 1400, "height": 900}, bypass_csp=True)
        page.set_default_timeout(PAGE_TIMEOUT_MS)
        return page

    def process(self, kind: str) -> Process:
        """The process of this kind that has worked most: "renderer" of the page, or "GPU"."""
        found = self._session.send("SystemInfo.getProcessInfo")["processInfo"]
        of_kind = [one for one in found if one["type"] == kind]
        return Process(max(of_kind, key=lambda one: one["cpuTime"])["id"])


def pictures(chromium: Chromium, address: str, count: int) -> tuple[list[float], list[float]]:
    """Seconds until a new page has drawn something, and until its map is complete."""
    first, complete = [], []
    for _ in range(count):
        page = chromium.new_page()
        start = time.perf_counter()
        page.goto(address, wait_until="commit")
        page.wait_for_selector('#map[data-points]:not([data-points="0"])')
        first.append(time.perf_counter() - start)
        page.wait_for_selector('#map[data-complete="true"]')
        complete.append(time.perf_counter() - start)
        page.close()
    return first, complete


def measured_page(chromium: Chromium, server: Process, address: str, pages: int) -> Rows:
    """Rows of the table: what the page takes."""
    first, complete = pictures(chromium, address, pages)
    yield "first picture after opening the page, s", median(first), "3"
    yield "complete picture after opening the page, s", median(complete), ""
    page = chromium.new_page()
    page.goto(address)
    page.wait_for_selector('#map[data-complete="true"]')
    workers = chromium.process("renderer"), chromium.process("GPU")
    for whole, name in ((False, "pan step"), (True, "drawing all when the map rests")):
        before = sum(worker.processor_time() for worker in workers)
        steps, frames, drawn = page.evaluate(PAN, [PANS, whole])
        used = sum(worker.processor_time() for worker in workers) - before
        yield f"{name}: echoes drawn", drawn, "500,000"
        yield f"{name}, until drawn, ms", median(steps), "" if whole else "200"
        yield f"{name}, until the next frame, ms", median(frames), "" if whole else "200"
        yield f"{name}, processor time of the browser, ms", used / PANS * 1e3, ""
    page.wait_for_selector('#map[data-complete="true"]')
    before = server.processor_time()
    yield "click to waveform, ms", median(page.evaluate(CLICK, CLICKS)), "100"
    used = (server.processor_time() - before) / CLICKS
    yield "click to waveform, processor time of the server, ms", used * 1e3, ""
    yield "memory of the server at most, MB", server.peak_memory(), "500"
    yield "memory of the page (renderer process) at most, MB", workers[0].peak_memory(), "500"
    yield "memory of the drawing process of the browser at most, MB", workers[1].peak_memory(), ""


def measured_selections(server: Process, address: str) -> Rows:
    """Rows of the table: what counting selections and saving one takes."""
    before, start = server.processor_time(), time.perf_counter()
    with urlopen(f"{address}noise"):
        yield "noise of all waveforms, until measured, s", time.perf_counter() - start, ""
    used = server.processor_time() - before
    yield "noise of all waveforms, processor time of the server, s", used, ""
    quarter = f"box={-AREA / 4},{-AREA / 4},{AREA / 4},{AREA / 4}"
    slab = f"slab={-AREA / 4},{-AREA / 4},{AREA / 4},{AREA / 4},{AREA / 20},-1000,1000"
    bars = "bars=amplitude:" + ",".join(str(bar) for bar in range(20))
    noise = "bars=noise:" + ",".join(str(bar) for bar in range(24, 48))
    queries = {"all": "", "a box": quarter, "a box of a side view": slab, "bars": bars}
    for name, query in {**queries, "bars of the noise": noise}.items():
        before, times = server.processor_time(), []
        for _ in range(SELECTIONS):
            start = time.perf_counter()
            with urlopen(f"{address}layers/0/selection?{query}") as answer:
                echoes = json.load(answer)["echoes"]
            times.append(time.perf_counter() - start)
        used = (server.processor_time() - before) / SELECTIONS
        yield f"selection of {name}: echoes", echoes, ""
        yield f"selection of {name} until counted, s", median(times), "1"
        yield f"selection of {name}, processor time of the server, s", used, ""
    before, start = server.processor_time(), time.perf_counter()
    with urlopen(f"{address}layers/0/selection.parquet") as answer:
        while answer.read(1 << 20):
            pass
    yield "all echoes saved as Parquet, s", time.perf_counter() - start, ""
    used = server.processor_time() - before
    yield "all echoes saved as Parquet, processor time of the server, s", used, ""
    yield "memory of the server with selections at most, MB", server.peak_memory(), "500"


def measured(folder: Path, pages: int) -> Rows:
    """Rows of the table: name with unit, value, and the limit that it should keep."""
    yield "load of the machine at the beginning", os.getloadavg()[0], ""
    shutil.rmtree(folder / "cache", ignore_errors=True)
    with viewer(folder) as (server, _, seconds):
        yield "start without an index, s", seconds, ""
        yield "start without an index, processor time, s", server.processor_time(), ""
        yield "memory while the index is made at most, MB", server.peak_memory(), "500"
    index = sum(file.stat().st_size for file in (folder / "cache").rglob("*") if file.is_file())
    yield "index in the cache folder, MB", index / _MB, ""
    with viewer(folder) as (server, address, seconds), sync_playwright() as playwright:
        yield "start with an index, s", seconds, "3"
        yield "start with an index, processor time, s", server.processor_time(), ""
        with playwright.chromium.launch(
            executable_path=shutil.which("chromium"), args=[*_CHROMIUM]
        ) as browser:
            yield from measured_page(Chromium(browser), server, address, pages)
        yield from measured_selections(server, address)
    yield "load of the machine at the end", os.getloadavg()[0], ""


def main() -> None:
    """Make the files, start the viewer twice, and print what was measured."""
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--echoes", type=int, default=10_000_000)
    parser.add_argument("--folder", type=Path)
    parser.add_argument("--pages", type=int, default=5, help="pages opened for the first picture")
    options = parser.parse_args()
    if shutil.which("chromium") is None:
        raise SystemExit("chromium is missing; install the Debian package chromium")
    with tempfile.TemporaryDirectory(prefix="fullwaveform-view-") as temporary:
        folder = options.folder or Path(temporary)
        folder.mkdir(exist_ok=True)
        if not (folder / "echoes.parquet").exists():
            make_scan(folder / "scan.las", folder / "echoes.parquet", options.echoes // 2)
        print("| | median | limit |\n|---|---:|---:|", flush=True)
        for name, value, limit in measured(folder, options.pages):
            text = f"{value:,}" if isinstance(value, int) else f"{value:,.2f}"
            print(f"| {name} | {text} | {limit} |", flush=True)


if __name__ == "__main__":
    main()
