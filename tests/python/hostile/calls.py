"""Files that are something else, names that are unusual, and calls that contradict themselves."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from pathlib import Path

from ..formats.las_scenes import four_shots

Case = Callable[[Path], list[str]]


def call(*words: str) -> Case:
    """A call on a good scan; {} stands for the folder."""

    def case(folder: Path) -> list[str]:
        four_shots().write(folder / "scan.las")
        (folder / "taken").mkdir()
        (folder / "taken" / "file.txt").write_text("here before", encoding="ascii")
        return [word.replace("{}", str(folder)) for word in words]

    return case


def extract(*options: str, source: str = "{}/scan.las", output: str = "{}/out.csv") -> Case:
    return call("extract", source, "-o", output, *options)


def content(data: bytes, name: str = "scan.las") -> Case:
    def case(folder: Path) -> list[str]:
        (folder / name).write_bytes(data)
        return ["extract", str(folder / name), "-o", str(folder / "out.csv")]

    return case


def link_to_itself(folder: Path) -> list[str]:
    (folder / "scan.las").symlink_to(folder / "scan.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def link_to_nothing(folder: Path) -> list[str]:
    (folder / "scan.las").symlink_to(folder / "gone.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def pipe(folder: Path) -> list[str]:
    """A pipe that nobody writes to would be waited for without end."""
    os.mkfifo(folder / "scan.las")
    return ["extract", str(folder / "scan.las"), "-o", str(folder / "out.csv")]


def output_links_to_the_input(folder: Path) -> list[str]:
    scan = four_shots().write(folder / "scan.las")
    (folder / "link.las").symlink_to(scan)
    return ["extract", str(scan), "-o", str(folder / "link.las")]


def cases() -> Iterator[tuple[str, Case]]:
    yield "an empty file", content(b"")
    yield "a text", content(b"x,y,z\n1,2,3\n")
    yield "zeros", content(bytes(1000))
    yield "LASF and nothing else", content(b"LASF")
    yield "LASF and bytes", content(b"LASF" + bytes(range(256)) * 4)
    yield "PulseWavesPulse and nothing else", content(b"PulseWavesPulse\0", "scan.pls")
    yield "HDF5's signature and nothing else", content(b"\x89HDF\r\n\x1a\n", "scan.h5")
    yield "an archive's signature and nothing else", content(b"PK\x03\x04", "scan.npz")
    yield "an empty archive", content(b"PK\x05\x06" + bytes(18), "scan.npz")
    yield "a link to itself", link_to_itself
    yield "a link to nothing", link_to_nothing
    yield "a pipe", pipe
    yield "no file", extract(source="{}/gone.las")
    yield "no file, dots and blanks in its name", extract(source="{}/a. b..c .las")
    yield "no file, letters with accents", extract(source="{}/Größe-é-数.las")
    yield "no file, a line feed in its name", extract(source="{}/a\nb.las")
    yield "a name of 300 letters", extract(source="{}/" + "a" * 300 + ".las")
    yield "a folder", extract(source="{}/taken")
    yield "a file taken for a folder", extract(source="{}/scan.las/scan.las")

    yield "output in a folder that is not there", extract(output="{}/gone/out.csv")
    yield "output is a folder", extract(output="{}/taken")
    yield (
        "output is a folder with an ending",
        call("extract", "{}/scan.las", "-o", "{}/taken/../taken/file.txt/out.csv"),
    )
    yield "output is the input", extract(output="{}/scan.las")
    yield "output links to the input", output_links_to_the_input
    yield "output of an unknown kind", extract(output="{}/out.xyz")
    yield "output without an ending", extract(output="{}/out")
    yield "output of 300 letters", extract(output="{}/" + "a" * 300 + ".csv")
    yield "waveforms without echoes in a LAS file", extract("--keep-empty", output="{}/out.las")

    yield "mode 4", extract("--mode", "4")
    yield "mode of another name", extract("--mode", "gauss")
    for noise in ("-1", "65536", "12.5", "nan", "loud"):
        yield f"noise of {noise}", extract("--noise", noise)
    for channel in ("256", "-1", "left", "300=low", "=low", "1=", "1=2=3"):
        yield f"channel {channel}", extract("--channel", channel)
    for window in ("1", "1,2,3", "-1,2", "1.5,2", "on", "1,99999999999"):
        yield f"after-pulse {window}", extract("--after-pulse", window)
    for option in ("--workers", "--block"):
        for value in ("0", "-1", "1.5", "many"):
            yield f"{option} {value}", extract(option, value)
    yield "quiet and verbose", extract("--quiet", "--verbose")
    yield "two files for one run", call("extract", "{}/scan.las", "{}/scan.las", "-o", "{}/out.csv")
    yield "resume without a cluster", extract("--resume")
    yield "an unknown option", extract("--colour", "red")
    yield "an unknown verb", call("extrakt", "{}/scan.las")
    yield "no output", call("extract", "{}/scan.las")

    yield "convert into another kind", call("convert", "{}/scan.las", "{}/out.las")
    yield "convert without a file", call("convert", "{}/gone.las", "{}/out.h5")
    yield (
        "convert with an interval of 0",
        call("convert", "{}/scan.las", "{}/out.h5", "--interval", "0"),
    )
    yield (
        "convert with an interval beside the file's own",
        call("convert", "{}/scan.las", "{}/out.h5", "--interval", "1"),
    )
    yield "compare with a text", call("compare", "{}/scan.las", "{}/taken/file.txt")
    yield (
        "compare within nothing",
        call("compare", "{}/scan.las", "{}/scan.las", "--tolerance", "0"),
    )
    yield (
        "compare into a picture of another kind",
        call("compare", "{}/scan.las", "{}/scan.las", "--plot", "{}/out.gif"),
    )
    yield "simulate no shots", call("simulate", "{}/out.las", "--shots", "0")
    yield "simulate into a folder that is not there", call("simulate", "{}/gone/out.las")
    yield "simulate another kind", call("simulate", "{}/out.csv")
    yield (
        "system wave of a text that is none",
        call("system-wave", "{}/taken/file.txt", "-o", "{}/out.toml"),
    )
    yield (
        "system wave of order 99",
        call("system-wave", "{}/scan.las", "-o", "{}/out.toml", "--order", "99"),
    )
    yield "system wave into another kind", call("system-wave", "{}/scan.las", "-o", "{}/out.txt")
    yield (
        "system wave of four short waveforms",
        call("system-wave", "{}/scan.las", "-o", "{}/out.toml", "--source", "echoes"),
    )
