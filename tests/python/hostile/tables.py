"""The commands metrics and voxels: inputs that extract refuses, and options of their own."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path
from types import ModuleType

from ..support.flight_lines import compressed, flight_line, in_parts, plain
from ..support.las_scenes import four_shots
from . import arrays, calls, compressed_pulsewaves, las, pulsewaves, shot_tables

Case = Callable[[Path], list[str]]

#: Every how many of the cases of a format are also given to each of the commands.
FORMATS: dict[ModuleType, int] = {
    las: 13,
    pulsewaves: 15,
    compressed_pulsewaves: 9,
    arrays: 11,
    shot_tables: 9,
}
COMMANDS = {
    "metrics": ("out.csv", []),
    "voxels": ("out.zarr", ["--size", "1"]),
}


def given_to(command: str, case: Case) -> Case:
    """A case of extract for another command, in degrees made metres where the command needs it."""
    name, own = COMMANDS[command]

    def made(folder: Path) -> list[str]:
        called, source, _, _, *options = case(folder)
        assert called == "extract"
        is_hdf5 = Path(source).name in ("gedi.h5", "lvis.h5")
        if is_hdf5 and command == "voxels" and "--crs" not in options:
            options += ["--crs", "EPSG:32723"]
        return [command, source, "-o", str(folder / name), *own, *options]

    return made


def metrics(*options: str, output: str = "{}/out.csv") -> Case:
    return calls.call("metrics", "{}/scan.las", "-o", output, *options)


def voxels(*options: str, output: str = "{}/out.zarr", size: str = "1") -> Case:
    return calls.call("voxels", "{}/scan.las", "-o", output, f"--size={size}", *options)


def existing(case: Case, name: str, content: bytes = b"mine") -> Case:
    """The output exists: a file, or a folder with a file."""

    def made(folder: Path) -> list[str]:
        words = case(folder)
        path = folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(content)
        return words

    return made


def linked(case: Case, name: str) -> Case:
    """The output is a link to the input."""

    def made(folder: Path) -> list[str]:
        words = case(folder)
        (folder / name).symlink_to(words[1])
        return words

    return made


def volume_holds_the_input(folder: Path) -> list[str]:
    (folder / "out.zarr").mkdir()
    scan = four_shots().write(folder / "out.zarr" / "scan.las")
    return ["voxels", str(scan), "-o", str(folder / "out.zarr"), "--size", "1", "--overwrite"]


def parts(*options: str, command: str = "metrics", output: str = "out.csv") -> Case:
    """A flight line in two parts."""

    def made(folder: Path) -> list[str]:
        paths = in_parts(flight_line(), [4, 7], folder, plain, compressed)
        return [command, *map(str, paths), "-o", str(folder / output), *options]

    return made


def second_part(change: Callable[[Path], object]) -> Case:
    """Something is wrong with the second of two parts."""

    def made(folder: Path) -> list[str]:
        words = parts("--as-one")(folder)
        change(Path(words[2]))
        return words

    return made


def cases() -> Iterator[tuple[str, Case]]:
    for module, step in FORMATS.items():
        for name, case in list(module.cases())[::step]:
            for command in COMMANDS:
                kind = module.__name__.rpartition(".")[2]
                yield f"{command}, {kind}: {name}", given_to(command, case)

    for option in ("--smoothing", "--front-threshold", "--back-threshold", "--profile-top"):
        for value in ("-1", "nan", "inf", "much"):
            yield f"metrics, {option} {value}", metrics(f"{option}={value}")
    for option in ("--reflectance-ratio", "--projection", "--clumping", "--profile-step"):
        for value in ("0", "nan", "inf"):
            yield f"metrics, {option} {value}", metrics(f"{option}={value}")
    yield "metrics, --diversity-step 0", metrics("--diversity-step=0")
    yield "metrics, a profile of many steps", metrics("--profile-step=1e-9")
    yield "metrics, --workers 0", metrics("--workers", "0")
    yield "metrics, --channel 2=left", metrics("--channel", "2=left")
    yield "metrics, --channel of no waveform", metrics("--channel", "77=high")
    yield "metrics, a system for a file with coordinates", metrics("--crs", "EPSG:32723")
    yield "metrics, an interval for a file that has one", metrics("--interval", "1")
    yield "metrics, quiet and verbose", metrics("-q", "-v")
    yield "metrics, output of an unknown kind", metrics(output="{}/out.las")
    yield "metrics, output in a missing folder", metrics(output="{}/gone/out.csv")
    yield "metrics, output is a folder", existing(metrics(), "out.csv/file.txt")
    yield "metrics, output links to the input", linked(metrics("--overwrite"), "out.csv")
    yield "metrics, output exists", existing(metrics(), "out.csv")
    yield (
        "metrics, output exists and is another table",
        existing(metrics("--overwrite"), "out.csv", b"a,b\n1,2\n"),
    )
    yield "metrics, missing file", calls.call("metrics", "{}/gone.las", "-o", "{}/out.csv")

    for size in ("0", "-1", "nan", "inf", "1e-300", "wide"):
        yield f"voxels, --size {size}", voxels(size=size)
    yield "voxels, no size", calls.call("voxels", "{}/scan.las", "-o", "{}/out.zarr")
    yield "voxels, more voxels than can be numbered", voxels(size="1e-7")
    yield "voxels, a quantity of a Zarr volume", voxels("--quantity", "sum")
    yield "voxels, an unknown quantity", voxels("--quantity", "all", output="{}/out.tif")
    yield "voxels, an unknown channel", voxels("--only", "middle")
    yield "voxels, no waveform of the channel", voxels("--only", "high")
    yield "voxels, a system for a file with coordinates", voxels("--crs", "EPSG:32723")
    yield "voxels, --block 0", voxels("--block", "0")
    yield "voxels, output of an unknown kind", voxels(output="{}/out.las")
    yield "voxels, output in a missing folder", voxels(output="{}/gone/out.zarr")
    yield (
        "voxels, output links to the input",
        linked(voxels("--overwrite", output="{}/out.tif"), "out.tif"),
    )
    yield "voxels, folder exists", existing(voxels(), "out.zarr/file.txt")
    yield (
        "voxels, folder exists and is no volume",
        existing(voxels("--overwrite"), "out.zarr/file.txt"),
    )
    yield "voxels, a file has the name of the folder", existing(voxels("--overwrite"), "out.zarr")
    yield "voxels, file exists", existing(voxels(output="{}/out.tif"), "out.tif")
    yield (
        "voxels, file exists and is no volume",
        existing(voxels("--overwrite", output="{}/out.tif"), "out.tif"),
    )
    yield "voxels, the volume holds the input", volume_holds_the_input
    yield (
        "voxels, missing file",
        calls.call("voxels", "{}/gone.las", "-o", "{}/out.zarr", "--size", "1"),
    )

    yield "parts without --as-one", parts()
    yield "parts as one in a folder", parts("--as-one", command="extract", output=".")
    yield (
        "parts as one on a cluster",
        parts("--as-one", "--scheduler", "local", command="cluster", output="parts"),
    )
    yield "second part of another format", second_part(four_shots().write)
    yield "second part is a text", second_part(lambda path: path.write_text("1", encoding="ascii"))
    yield "second part is missing", second_part(Path.unlink)
    yield (
        "samples of the second part are missing",
        second_part(lambda path: path.with_suffix(".wvs").unlink()),
    )
    yield (
        "second part is truncated",
        second_part(lambda path: path.write_bytes(path.read_bytes()[:-60])),
    )
    yield "second part is the first one", second_part(_link_to_the_first)


def _link_to_the_first(path: Path) -> None:
    path.unlink()
    path.symlink_to(path.with_name("line_1.plz"))
