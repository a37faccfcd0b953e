"""Existing files: which an output may replace, and which never."""

from __future__ import annotations

import errno
import os
from collections.abc import Callable
from pathlib import Path

import h5py
import laspy
import numpy as np
import pytest

import fullwaveform as fw
from fullwaveform.io.atomic import (
    FileKind,
    atomic_open,
    atomic_path,
    check_output,
    protected_inputs,
)
from fullwaveform.io.container.writer import ScanContainerWriter
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, echo_outputs, open_echo_file
from fullwaveform.plotting.style import PLOT_ENDINGS, new_figure, plot_kind, save_figure
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan
from fullwaveform.simulation.files import FILE_KINDS
from fullwaveform.system_wave.description import DESCRIPTION_KIND

from ..support.echo_tables import echo_table

NOTE = FileKind("a note", lambda path: path.read_text().startswith("note"))


def write(path: Path, text: str, *, overwrite: bool) -> None:
    with atomic_path(path, NOTE, overwrite=overwrite) as temporary:
        temporary.write_text(text)


def test_new_file_is_written_without_request(tmp_path: Path) -> None:
    write(tmp_path / "a", "note 1", overwrite=False)
    assert (tmp_path / "a").read_text() == "note 1"
    assert [path.name for path in tmp_path.iterdir()] == ["a"]


def test_file_that_another_process_removes_is_no_other_kind(tmp_path: Path) -> None:
    path = tmp_path / "a"
    path.write_text("note 1")

    def vanishing(found: Path) -> bool:
        found.unlink()
        return NOTE.matches(found)

    with atomic_path(path, FileKind("a note", vanishing), overwrite=True) as temporary:
        temporary.write_text("note 2")
    assert path.read_text() == "note 2"


def test_link_to_nothing_is_kept(tmp_path: Path) -> None:
    (tmp_path / "a").symlink_to("nothing")
    with pytest.raises(FileExistsError, match="exists and is not a note"):
        write(tmp_path / "a", "note 1", overwrite=True)


def test_existing_file_is_kept_without_request(tmp_path: Path) -> None:
    path = tmp_path / "a"
    path.write_text("note 1")
    with pytest.raises(FileExistsError, match="a already exists; use --overwrite"):
        write(path, "note 2", overwrite=False)
    assert path.read_text() == "note 1"
    write(path, "note 2", overwrite=True)
    assert path.read_text() == "note 2"


def test_file_of_another_kind_is_kept(tmp_path: Path) -> None:
    path = tmp_path / "a"
    path.write_text("a scan of three weeks")
    for overwrite in (False, True):
        with pytest.raises(FileExistsError, match="a exists and is not a note; choose another"):
            write(path, "note 2", overwrite=overwrite)
    assert path.read_text() == "a scan of three weeks"
    path.write_bytes(b"\xff\xfe")  # not text: the check of the kind fails
    with pytest.raises(FileExistsError, match="is not a note"):
        write(path, "note 2", overwrite=True)


def test_empty_file_is_of_every_kind(tmp_path: Path) -> None:
    path = tmp_path / "a"
    path.touch()
    with pytest.raises(FileExistsError, match="already exists"):
        write(path, "note 2", overwrite=False)
    write(path, "note 2", overwrite=True)
    assert path.read_text() == "note 2"


def test_output_without_a_kind_replaces_nothing(tmp_path: Path) -> None:
    path = tmp_path / "a"
    path.touch()
    with pytest.raises(FileExistsError), atomic_open(path, overwrite=True):
        pass


def test_devices_and_pipes_are_kept(tmp_path: Path) -> None:
    os.mkfifo(tmp_path / "pipe")
    for path in (tmp_path / "pipe", Path(os.devnull)):
        with pytest.raises(FileExistsError, match="is not a note"):
            write(path, "note", overwrite=True)
    assert not Path(os.devnull).is_file()


def test_file_that_appears_during_the_work_is_kept(tmp_path: Path) -> None:
    path = tmp_path / "a"
    output = atomic_path(path, NOTE)
    with pytest.raises(FileExistsError, match="already exists"), output as temporary:
        temporary.write_text("note 2")
        path.write_text("note of another program")
    assert path.read_text() == "note of another program"
    path.unlink()
    output = atomic_path(path, NOTE, overwrite=True)
    with pytest.raises(FileExistsError, match="is not a note"), output as temporary:
        temporary.write_text("note 2")
        path.write_text("of another program")
    assert path.read_text() == "of another program"
    assert [file.name for file in tmp_path.iterdir()] == ["a"]


def test_file_system_without_links(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    def refuse(*_: object) -> None:
        raise OSError(errno.EPERM, os.strerror(errno.EPERM))

    monkeypatch.setattr(os, "link", refuse)
    path = tmp_path / "a"
    write(path, "note 1", overwrite=False)
    write(path, "note 2", overwrite=True)
    assert path.read_text() == "note 2"
    path.unlink()
    output = atomic_path(path, NOTE)
    with pytest.raises(FileExistsError, match="already exists"), output as temporary:
        temporary.write_text("note 3")
        path.write_text("note of another program")
    assert path.read_text() == "note of another program"
    assert [file.name for file in tmp_path.iterdir()] == ["a"]


def test_name_is_free_if_the_renaming_fails(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """On a file system without links, where an empty file has the name until then."""

    def fail(*_: object) -> None:
        raise OSError(errno.EIO, os.strerror(errno.EIO))

    monkeypatch.setattr(os, "link", fail)
    monkeypatch.setattr(Path, "replace", fail)
    with pytest.raises(OSError, match=os.strerror(errno.EIO)):
        write(tmp_path / "a", "note", overwrite=False)
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("suffix", [".las", ".wdp", ".WDP", ".wvs", ".wvz"])
@pytest.mark.parametrize("link", ["none", "symbolic", "hard"])
def test_inputs_and_companions_are_kept_through_links(
    tmp_path: Path, suffix: str, link: str
) -> None:
    file = (tmp_path / "scan").with_suffix(suffix)
    file.write_text("note: these are the samples")
    (tmp_path / "scan.las").touch()
    output = tmp_path / "out" if link != "none" else file
    if link == "symbolic":
        output.symlink_to(file)
    elif link == "hard":
        os.link(file, output)
    with protected_inputs(tmp_path / "scan.las"):
        for overwrite in (False, True):
            with pytest.raises(FileExistsError, match="the input file"):
                write(output, "note 2", overwrite=overwrite)
    assert file.read_text() == "note: these are the samples"
    write(output, "note 2", overwrite=True)  # no longer an input


def test_companion_next_to_the_file_behind_a_link_is_kept(tmp_path: Path) -> None:
    (tmp_path / "there").mkdir()
    (tmp_path / "there" / "real.las").touch()
    (tmp_path / "there" / "real.wdp").write_text("note: samples")
    (tmp_path / "scan.las").symlink_to(tmp_path / "there" / "real.las")
    with (
        protected_inputs(tmp_path / "scan.las"),
        pytest.raises(FileExistsError, match="belongs to the input file"),
    ):
        check_output(tmp_path / "there" / "real.wdp", NOTE, overwrite=True)


def echoes(path: Path) -> FileKind:
    with open_echo_file(path, None, {"version": "1"}) as writer:
        writer.write(echo_table([2]))
    return echo_outputs(path)[path]


def plot(path: Path) -> FileKind:
    save_figure(new_figure(2.0, 2.0), path)
    return plot_kind(path)


def container(path: Path) -> FileKind:
    with ScanContainerWriter(path, None):
        pass
    return ScanContainerWriter.kind or NOTE


def scan_file(number: int) -> Callable[[Path], FileKind]:
    def make(path: Path) -> FileKind:
        (folder := path.with_name(f"of {path.name}")).mkdir()
        files = write_scan(simulate_scan(ScanSettings(shots=20)), folder / "s.las")
        files[number].rename(path)
        return FILE_KINDS[number]

    return make


def description(path: Path) -> FileKind:
    path.write_text("a_real = [1.0]\n")
    return DESCRIPTION_KIND


OUTPUTS: dict[str, Callable[[Path], FileKind]] = {
    **{f"echoes{suffix}": echoes for suffix in ECHO_ENDINGS},
    **{f"plot{suffix}": plot for suffix in PLOT_ENDINGS},
    "container.h5": container,
    "points.las": scan_file(0),
    "packets.wdp": scan_file(1),
    "truth.csv": scan_file(2),
    "scanner.toml": description,
}
# Outputs in the same format, differing in the suffix only.
SAME = ({"echoes.las", "echoes.laz"}, {"echoes.h5", "echoes.hdf5"})


@pytest.mark.parametrize("name", OUTPUTS)
def test_outputs_replace_their_own_kind_only(tmp_path: Path, name: str) -> None:
    kinds = {}
    for other, make in OUTPUTS.items():
        kinds[other] = make(tmp_path / other)
    same = next((names for names in SAME if name in names), {name})
    for other in OUTPUTS:
        if other in same:
            check_output(tmp_path / other, kinds[name], overwrite=True)
        else:
            with pytest.raises(FileExistsError, match="exists and is not"):
                check_output(tmp_path / other, kinds[name], overwrite=True)


def test_files_of_others_are_of_no_kind(tmp_path: Path) -> None:
    header = laspy.LasHeader(version="1.4", point_format=6)
    laspy.LasData(header).write(tmp_path / "a.las")
    with h5py.File(tmp_path / "a.h5", "w") as file:
        file["x"] = np.zeros(3)
    for name, content in {
        "a.csv": "x,y,z,intensity\n1,2,3,4\n",
        "a.txt": "1.5 2.5 3.5 4.5 5.5\n",
        "a.png": "\x89PNG of a camera",
        "a.pdf": "%PDF-1.7 a thesis",
        "a.svg": "<?xml version='1.0'?><svg/>",
        "a.toml": "type_id = 'VQ-840-GL'\n",
        "a.wdp": "samples",
        "a.json": '{"notes": [{"author": "a person"}]}',
    }.items():
        (tmp_path / name).write_text(content, encoding="latin-1")
    kinds = [kind for e in ECHO_ENDINGS for kind in echo_outputs(Path(f"a{e}")).values()]
    kinds += [plot_kind(f"a{suffix}") for suffix in PLOT_ENDINGS]
    kinds += [*FILE_KINDS, DESCRIPTION_KIND, container(tmp_path / "own")]
    (tmp_path / "own").unlink()
    for path in tmp_path.iterdir():
        for kind in kinds:
            with pytest.raises(FileExistsError, match="exists and is not"):
                check_output(path, kind, overwrite=True)


def test_extraction_replaces_its_own_result_but_not_its_source(tmp_path: Path) -> None:
    scan = write_scan(simulate_scan(ScanSettings(shots=20)), tmp_path / "scan.las")
    before = [path.read_bytes() for path in scan]
    result = fw.extract(scan.las, threshold=20)
    for path in (scan.las, scan.wdp):
        with pytest.raises((FileExistsError, ValueError)):
            result.write(path, overwrite=True)
    with pytest.raises(FileExistsError, match="is the input file"):
        result.to_las(scan.las, overwrite=True)
    assert [path.read_bytes() for path in scan] == before
    echoes = tmp_path / "echoes.las"
    count = result.to_las(echoes)
    with pytest.raises(FileExistsError, match="overwrite=True"):
        result.to_las(echoes)
    assert result.to_las(echoes, overwrite=True) == count == len(laspy.read(echoes))
