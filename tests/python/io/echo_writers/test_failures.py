"""Outputs that cannot be written: one message with their name, and no file left."""

from __future__ import annotations

import errno
import os
import resource
import subprocess
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import numpy as np
import pyarrow as pa
import pyarrow.csv
import pytest

from fullwaveform.io.atomic import OutputError, atomic_open, atomic_path
from fullwaveform.io.echo_writers.opening import ECHO_ENDINGS, open_echo_file
from fullwaveform.plotting.histogram import draw_histogram
from fullwaveform.simulation import ScanSettings, simulate_scan, write_scan

from ...support.echo_tables import echo_table


@contextmanager
def files_end_at(size: int) -> Iterator[None]:
    """The system rejects writes beyond this file size, as on a full disk."""
    before = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, before)


def older_result(path: Path) -> bytes:
    """Content of a file of two echoes that is written to the path."""
    with open_echo_file(path, None) as writer:
        writer.write(echo_table([2]))
    return path.read_bytes()


def write_many(path: Path, tables: int = 1) -> None:
    random = np.random.default_rng(1)
    with open_echo_file(path, None, overwrite=True) as writer:
        for _ in range(tables):
            writer.write(echo_table([1] * 70_000, xyz=random.normal(size=(70_000, 3)) * 1e5))


@pytest.mark.parametrize("tables", [1, 3])
@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_no_space_left_names_the_output(tmp_path: Path, ending: str, tables: int) -> None:
    path = tmp_path / f"e{ending}"
    older = older_result(path)
    with files_end_at(100_000), pytest.raises(OSError, match="File too large") as caught:
        write_many(path, tables)
    assert str(caught.value.strerror) == f"cannot write {path}: File too large"
    assert caught.value.errno == errno.EFBIG
    assert list(tmp_path.iterdir()) == [path]
    assert path.read_bytes() == older


@pytest.mark.parametrize("size", [0, 1_000, 100_000])
def test_program_exits_normally_after_hdf5_without_space(tmp_path: Path, size: int) -> None:
    # HDF5 closes open files when the program ends and must not fail again.
    code = (
        "import resource\n"
        "from tests_in_trouble import write_many\n"
        f"resource.setrlimit(resource.RLIMIT_FSIZE, ({size}, resource.RLIM_INFINITY))\n"
        "try:\n"
        "    write_many('e.h5')\n"
        "except OSError as error:\n"
        "    print(error.strerror)\n"
    )
    script = code.replace("from tests_in_trouble import write_many\n", HDF5_OF_MANY)
    done = subprocess.run(
        [sys.executable, "-B", "-c", script],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        check=False,
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "cannot write e.h5: File too large\n"
    assert list(tmp_path.iterdir()) == []


HDF5_OF_MANY = """
import numpy as np
from fullwaveform.data.echo_columns import ECHO_COLUMNS, EchoTable
from fullwaveform.io.echo_writers.hdf5 import Hdf5EchoWriter

def write_many(path):
    n = 70_000
    real = np.random.default_rng(1).random(n)
    columns = {column.name: (1000 * real).astype(column.dtype) for column in ECHO_COLUMNS}
    with Hdf5EchoWriter(path) as writer:
        writer.write(EchoTable(columns))
"""


@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_missing_folder_and_folder_of_the_same_name(tmp_path: Path, ending: str) -> None:
    path = tmp_path / "nowhere" / f"e{ending}"
    with pytest.raises(FileNotFoundError) as caught:
        write_many(path)
    assert caught.value.strerror == f"cannot write {path}: the folder {path.parent} does not exist"
    (folder := tmp_path / f"f{ending}").mkdir()
    with pytest.raises(IsADirectoryError, match="it is a folder"):
        write_many(folder)
    assert list(tmp_path.iterdir()) == [folder]
    assert list(folder.iterdir()) == []


@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_folder_without_write_permission(
    tmp_path: Path, ending: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    # Permissions do not restrict root, so the system call is replaced by one that fails.
    def refuse(*_: object) -> int:
        raise PermissionError(errno.EACCES, os.strerror(errno.EACCES))

    path = tmp_path / f"e{ending}"
    with monkeypatch.context() as patch:
        patch.setattr(os, "open", refuse)
        with pytest.raises(PermissionError) as caught:
            write_many(path)
    assert caught.value.strerror == f"cannot write {path}: Permission denied"
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("ending", ECHO_ENDINGS)
def test_error_keeps_the_existing_file(tmp_path: Path, ending: str) -> None:
    path = tmp_path / f"e{ending}"
    older = older_result(path)
    writer = open_echo_file(path, None, overwrite=True)
    with pytest.raises(KeyboardInterrupt), writer:
        writer.write(echo_table([3]))
        raise KeyboardInterrupt
    assert path.read_bytes() == older
    assert list(tmp_path.iterdir()) == [path]


def test_errors_of_other_files_are_unchanged(tmp_path: Path) -> None:
    path = tmp_path / "result"
    for error in (FileNotFoundError(errno.ENOENT, "gone", "input"), OSError(errno.EIO, "bad disk")):
        with pytest.raises(OSError, match=error.strerror) as caught, atomic_path(path):
            raise error
        assert caught.value is error


def test_error_for_a_deleted_folder_names_the_output(tmp_path: Path) -> None:
    (folder := tmp_path / "folder").mkdir()
    with (
        pytest.raises(FileNotFoundError) as caught,
        atomic_path(folder / "result") as temporary,
    ):
        temporary.unlink()
        folder.rmdir()
        temporary.write_bytes(b"whole")
    assert caught.value.strerror == f"cannot write {folder / 'result'}: No such file or directory"
    assert caught.value.filename is None


def test_nested_outputs_name_the_one_without_space(tmp_path: Path) -> None:
    inner, outer = tmp_path / "inner", tmp_path / "outer"
    with (
        pytest.raises(OutputError) as caught,
        atomic_path(outer),
        atomic_path(inner),
    ):
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
    assert caught.value.strerror == f"cannot write {inner}: No space left on device"
    assert list(tmp_path.iterdir()) == []


def test_write_error_hidden_by_a_library_is_raised(tmp_path: Path) -> None:
    path = tmp_path / "result"
    with (
        files_end_at(10),
        pytest.raises(OutputError, match="result: File too large"),
        atomic_open(path) as stream,
    ):
        assert stream.write(b"x" * 25) == 25  # truncated to 10 bytes without an error
        assert stream.truncate(50) == 50
        with pytest.raises(OutputError, match="result: File too large"):
            stream.check()
        raise RuntimeError("something went wrong")
    assert list(tmp_path.iterdir()) == []


def test_errors_of_pictures_name_the_output(tmp_path: Path) -> None:
    for ending in (".png", ".pdf", ".svg"):
        path = tmp_path / "nowhere" / f"p{ending}"
        with pytest.raises(FileNotFoundError) as caught:
            draw_histogram(path, [1.0, 2.0], title="t", label="l")
        assert caught.value.strerror == (
            f"cannot write {path}: the folder {path.parent} does not exist"
        )
        path = tmp_path / f"p{ending}"
        with files_end_at(500), pytest.raises(OSError, match="File too large") as full:
            draw_histogram(path, [1.0, 2.0], title="t", label="l")
        assert full.value.strerror == f"cannot write {path}: File too large"
    assert list(tmp_path.iterdir()) == []


def test_errors_of_simulated_scans_name_the_output(tmp_path: Path) -> None:
    scan = simulate_scan(ScanSettings(shots=200))
    path = tmp_path / "nowhere" / "scan.las"
    with pytest.raises(FileNotFoundError) as caught:
        write_scan(scan, path)
    assert caught.value.strerror is not None
    assert caught.value.strerror.endswith(f"the folder {path.parent} does not exist")
    assert ".part" not in caught.value.strerror
    with files_end_at(50_000), pytest.raises(OSError, match="cannot write") as full:
        write_scan(scan, tmp_path / "scan.las")
    assert full.value.strerror == f"cannot write {tmp_path / 'scan.wdp'}: File too large"
    assert list(tmp_path.iterdir()) == []


def test_errors_of_libraries_that_open_the_file_name_the_output(tmp_path: Path) -> None:
    path = tmp_path / "truth.csv"
    with (
        files_end_at(10),
        pytest.raises(OutputError) as caught,
        atomic_path(path) as temporary,
    ):
        pa.csv.write_csv(pa.table({"a": range(1000)}), temporary)
    assert caught.value.strerror == f"cannot write {path}: File too large"
    assert list(tmp_path.iterdir()) == []
