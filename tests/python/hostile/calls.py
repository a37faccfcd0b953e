"""Files of other kinds, unusual file names, and invalid calls."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from pathlib import Path

from typer.testing import CliRunner

from fullwaveform.cli.app import app

from ..support.las_scenes import four_shots

Case = Callable[[Path], list[str]]

PULSE = [f"{0.5 * i},{1000.0 * 2.0 ** (-((i - 12) ** 2) / 9):.3f}" for i in range(40)]
#: Two-column texts of time and amplitude with one fault each.
WAVES = {
    "empty file": "",
    "only a header line": "time_ns,amplitude\n",
    "one line": PULSE[0],
    "a line of one column": "\n".join([*PULSE[:20], "10.0", *PULSE[20:]]),
    "a line of three columns": "\n".join([*PULSE[:20], "10.0,1,2", *PULSE[20:]]),
    "a word instead of a number": "\n".join([*PULSE[:20], "10.0,much", *PULSE[21:]]),
    "NaN amplitude": "\n".join([*PULSE[:20], "10.0,nan", *PULSE[21:]]),
    "an infinite amplitude": "\n".join([*PULSE[:20], "10.0,inf", *PULSE[21:]]),
    "an amplitude whose square overflows": "\n".join([*PULSE[:20], "10.0,1e308", *PULSE[21:]]),
    "huge amplitudes": "\n".join(f"{0.5 * i},{i}e300" for i in range(40)),
    "NaN time": "\n".join([*PULSE[:20], "nan,1.0", *PULSE[21:]]),
    "a time twice": "\n".join([*PULSE[:20], PULSE[19], *PULSE[20:]]),
    "times close together": "\n".join(f"{1e-300 * i},{i % 7}" for i in range(40)),
    "decreasing times": "\n".join(reversed(PULSE)),
    "no pulse": "\n".join(f"{0.5 * i},0.0" for i in range(40)),
    "negative amplitudes": "\n".join(f"{0.5 * i},-1.0" for i in range(40)),
}


def call(*words: str) -> Case:
    """A call on a valid scan; {} is replaced by the folder."""

    def case(folder: Path) -> list[str]:
        four_shots().write(folder / "scan.las")
        (folder / "taken").mkdir()
        (folder / "taken" / "file.txt").write_text("old content", encoding="ascii")
        return [word.replace("{}", str(folder)) for word in words]

    return case


def extract(*options: str, source: str = "{}/scan.las", output: str = "{}/out.csv") -> Case:
    return call("extract", source, "-o", output, *options)


def cluster(*options: str) -> Case:
    return call("cluster", "{}/scan.las", "-o", "{}/parts", *options)


def with_manifest(text: str, *words: str) -> Case:
    """A call on the folder of a run with this manifest."""

    def case(folder: Path) -> list[str]:
        (folder / "job").mkdir()
        (folder / "job" / "manifest.json").write_text(text, encoding="ascii")
        return [word.replace("{}", str(folder)) for word in words]

    return case


def planned(*words: str) -> Case:
    """A call on a run of one unit that is not computed."""

    def case(folder: Path) -> list[str]:
        four_shots().write(folder / "scan.las")
        plan = ["plan", str(folder / "scan.las"), "-o", str(folder / "job"), "--threshold", "20"]
        assert CliRunner().invoke(app, plan).exit_code == 0
        return [word.replace("{}", str(folder)) for word in words]

    return case


def content(data: bytes, name: str = "scan.las") -> Case:
    def case(folder: Path) -> list[str]:
        (folder / name).write_bytes(data)
        return ["extract", str(folder / name), "-o", str(folder / "out.csv")]

    return case


def link_to_itself(folder: Path) -> list[str]:
    (folder / "scan.las").symlink_to(folder / "scan.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def broken_link(folder: Path) -> list[str]:
    (folder / "scan.las").symlink_to(folder / "gone.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def pipe(folder: Path) -> list[str]:
    """Opening a pipe without a writer would block."""
    os.mkfifo(folder / "scan.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def wave_of(text: str) -> Case:
    """A system wave from two columns of text."""

    def case(folder: Path) -> list[str]:
        (folder / "pulse.csv").write_text(text, encoding="utf-8")
        output = str(folder / "out.toml")
        return ["system-wave", str(folder / "pulse.csv"), "-o", output, "--interval", "1"]

    return case


def compare_cut(folder: Path) -> list[str]:
    """The file of echoes is truncated."""
    scan = four_shots().write(folder / "scan.las")
    echoes = four_shots().write(folder / "echoes.las")
    os.truncate(echoes, echoes.stat().st_size - 60)
    return ["compare", str(scan), str(echoes)]


def output_links_to_the_input(folder: Path) -> list[str]:
    scan = four_shots().write(folder / "scan.las")
    (folder / "link.las").symlink_to(scan)
    return ["extract", str(scan), "-o", str(folder / "link.las")]


def cases() -> Iterator[tuple[str, Case]]:
    yield "an empty file", content(b"")
    yield "a text", content(b"x,y,z\n1,2,3\n")
    yield "zeros", content(bytes(1000))
    yield "only LASF", content(b"LASF")
    yield "LASF and bytes", content(b"LASF" + bytes(range(256)) * 4)
    yield "only PulseWavesPulse", content(b"PulseWavesPulse\0", "scan.pls")
    yield "only the signature of HDF5", content(b"\x89HDF\r\n\x1a\n", "scan.h5")
    yield "only the signature of an archive", content(b"PK\x03\x04", "scan.npz")
    yield "an empty archive", content(b"PK\x05\x06" + bytes(18), "scan.npz")
    yield "a link to itself", link_to_itself
    yield "a broken link", broken_link
    yield "a pipe", pipe
    yield "missing file", extract(source="{}/gone.las")
    yield "missing file, dots and spaces in its name", extract(source="{}/a. b..c .las")
    yield "missing file, accented letters", extract(source="{}/Größe-é-数.las")
    yield "missing file, a line feed in its name", extract(source="{}/a\nb.las")
    yield "a name of 300 letters", extract(source="{}/" + "a" * 300 + ".las")
    yield "a folder", extract(source="{}/taken")
    yield "a file used as a folder", extract(source="{}/scan.las/scan.las")

    yield "output in a missing folder", extract(output="{}/gone/out.csv")
    yield "summary of output in a folder as JSON", extract("--json", output="{}/taken")
    yield (
        "output in a file used as a folder",
        call("extract", "{}/scan.las", "-o", "{}/taken/../taken/file.txt/out.csv"),
    )
    yield "output is the input", extract(output="{}/scan.las")
    yield "output links to the input", output_links_to_the_input
    yield "output of an unknown kind", extract(output="{}/out.xyz")
    yield "output without a suffix", extract(output="{}/out")
    yield "output of 300 letters", extract(output="{}/" + "a" * 300 + ".csv")
    yield "a folder of 300 letters", extract("--format", "csv", output="{}/" + "a" * 300)
    yield "waveforms without echoes in a LAS file", extract("--keep-empty", output="{}/out.las")

    yield "mode 5", extract("--mode", "5")
    for scheduler in ("here", "tcp://here"):
        yield f"scheduler {scheduler}", cluster("--scheduler", scheduler)
    yield "workers of a remote scheduler", cluster("--scheduler", "a:1", "--workers", "2")
    yield "parts of an unknown format", cluster("--scheduler", "a:1", "--format", "pdf")
    yield (
        "parts in a folder with files",
        call("cluster", "{}/scan.las", "-o", "{}/taken", "--scheduler", "a:1"),
    )
    yield (
        "resume without a run",
        call("cluster", "{}/scan.las", "-o", "{}/parts", "--scheduler", "a:1", "--resume"),
    )
    yield (
        "parts in a folder of 300 letters",
        call("cluster", "{}/scan.las", "-o", "{}/" + "a" * 300, "--scheduler", "local"),
    )
    yield from _job_calls()
    yield "mode of another name", extract("--mode", "gauss")
    yield "pulse fit without enough echoes", extract("--mode", "pulse-fit")
    yield "pulse fit with a threshold", extract("--mode", "pulse-fit", "--threshold", "20")
    yield "false alarms of another mode", extract("--false-alarms", "2")
    yield "no false alarms", extract("--mode", "pulse-fit", "--false-alarms", "0")
    yield "false alarms, a word", extract("--mode", "pulse-fit", "--false-alarms", "few")
    yield "largest width 0", extract("--mode", "pulse-fit", "--max-width", "0")
    yield "pulse of another kind", extract("--mode", "pulse-fit", "--pulse", "mean")
    yield "report of the pulse fit", call("report", "scan.las", "--waveform", "0", "--mode", "4")
    for threshold in ("-1", "65536", "12.5", "nan", "loud"):
        yield f"threshold {threshold}", extract("--threshold", threshold)
    for channel in ("256", "-1", "left", "300=low", "=low", "1=", "1=2=3"):
        yield f"channel {channel}", extract("--channel", channel)
    for window in ("1", "1,2,3", "-1,2", "1.5,2", "on", "1,99999999999"):
        yield f"after-pulse {window}", extract("--after-pulse", window)
    for option in ("--workers", "--block"):
        for value in ("0", "-1", "1.5", "many"):
            yield f"{option} {value}", extract(option, value)
    yield "quiet and verbose", extract("--quiet", "--verbose")
    yield (
        "extract with two files",
        call("extract", "{}/scan.las", "{}/scan.las", "-o", "{}/out.csv"),
    )
    yield "extract with an option of cluster", extract("--resume")
    yield "an unknown option", extract("--colour", "red")
    yield "an unknown command", call("extrakt", "{}/scan.las")
    yield "no output", call("extract", "{}/scan.las")

    yield "convert into another kind", call("convert", "{}/scan.las", "{}/out.las")
    yield "convert a missing file", call("convert", "{}/gone.las", "{}/out.h5")
    yield (
        "convert with an interval of 0",
        call("convert", "{}/scan.las", "{}/out.h5", "--interval", "0"),
    )
    yield (
        "convert with an interval, although the file has one",
        call("convert", "{}/scan.las", "{}/out.h5", "--interval", "1"),
    )
    yield "compare with a text", call("compare", "{}/scan.las", "{}/taken/file.txt")
    yield (
        "compare with tolerance 0",
        call("compare", "{}/scan.las", "{}/scan.las", "--tolerance", "0"),
    )
    yield (
        "compare with a plot of an unknown kind",
        call("compare", "{}/scan.las", "{}/scan.las", "--plot", "{}/out.gif"),
    )
    yield "simulate no shots", call("simulate", "{}/out.las", "--shots", "0")
    yield "simulate into a missing folder", call("simulate", "{}/gone/out.las")
    yield "simulate another kind", call("simulate", "{}/out.csv")
    yield (
        "system wave of text without columns",
        call("system-wave", "{}/taken/file.txt", "-o", "{}/out.toml"),
    )
    for what, content_of in WAVES.items():
        yield f"system wave, {what}", wave_of(content_of)
    yield "compare with a truncated file", compare_cut
    yield (
        "system wave of order 99",
        call("system-wave", "{}/scan.las", "-o", "{}/out.toml", "--order", "99"),
    )
    yield "system wave into another kind", call("system-wave", "{}/scan.las", "-o", "{}/out.txt")
    yield (
        "system wave of four short waveforms",
        call("system-wave", "{}/scan.las", "-o", "{}/out.toml", "--source", "echoes"),
    )


def _job_calls() -> Iterator[tuple[str, Case]]:
    """Calls of plan, run and join."""
    yield "plan in a folder with files", call("plan", "{}/scan.las", "-o", "{}/taken")
    yield "plan in a missing folder", call("plan", "{}/scan.las", "-o", "{}/gone/job")
    yield "plan of a missing file", call("plan", "{}/gone.las", "-o", "{}/job")
    yield (
        "plan of a good and a missing file",
        call("plan", "{}/scan.las", "{}/gone.las", "-o", "{}/job"),
    )
    yield "plan of an unknown format", call("plan", "{}/scan.las", "-o", "{}/job", "--format", "a")
    for command in (["run", "--unit", "0"], ["join"]):
        name = command[0]
        for what, folder in (
            ("a missing folder", "{}/gone"),
            ("a file", "{}/scan.las"),
            ("a folder without a plan", "{}/taken"),
        ):
            yield f"{name} of {what}", call(*command, folder)
        for what, text in (
            ("an empty manifest", ""),
            ("half a manifest", '{"manifest_version": 3, "inp'),
            ("a manifest of another version", '{"manifest_version": 2}'),
            ("a manifest without settings", '{"manifest_version": 3, "package_version": "0.1.0"}'),
        ):
            yield f"{name} with {what}", with_manifest(text, *command, "{}/job")
    for units in (["--unit", "1"], ["--unit", "-1"], ["--units", "0-"], ["--units", "2-4"], []):
        yield f"run {' '.join(units) or 'without a unit'}", planned("run", "{}/job", *units)
    yield "join of a run that is not computed", planned("join", "{}/job")
