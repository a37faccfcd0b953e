"""The library is no x86-64 program only: its sources compile for a processor without those vectors.

A check of grammar and types for all sources, of machine code for the kernels, whose forms depend on
the processor. The compiler for it is the one of the fuzz targets, with this machine's own headers.
"""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.slow

ROOT = Path(__file__).resolve().parents[2]
COMPILER = shutil.which("clang++-14") or shutil.which("clang++")
TARGET = "aarch64-linux-gnu"
KERNELS = ("fitting/leastsquares/GaussianKernels.cpp", "deconvolution/IterationKernels.cpp")
# This machine's C library asks how wide a word is and finds no answer for another processor.
WORD_SIZE = "#define __WORDSIZE 64\n#define __WORDSIZE_TIME64_COMPAT32 0\n"


def include_folders() -> list[str]:
    """Where this machine's compiler looks for headers, without its own ones."""
    if COMPILER is None:
        return []
    call = [COMPILER, "-x", "c++", "-E", "-v", "/dev/null"]
    output = subprocess.run(call, check=True, capture_output=True, text=True).stderr
    searched = output.split("search starts here:\n")[-1].split("End of search list")[0]
    return [line.strip() for line in searched.splitlines() if "/lib/clang/" not in line]


def flags_of_packages() -> list[str]:
    call = ["pkg-config", "--cflags", "cairo-pdf", "fftw3"]
    output = subprocess.run(call, check=True, capture_output=True, text=True).stdout
    return output.replace("-I", "-isystem").split()


@pytest.fixture(scope="module")
def compile_call(tmp_path_factory: pytest.TempPathFactory) -> list[str]:
    if COMPILER is None or not Path("/usr/include/fftw3.h").exists():
        pytest.skip("no clang, or no headers of the library's dependencies")
    stand_ins = tmp_path_factory.mktemp("headers")
    for name, text in {"bits/wordsize.h": WORD_SIZE, "gnu/stubs-32.h": ""}.items():
        (stand_ins / name).parent.mkdir(exist_ok=True)
        (stand_ins / name).write_text(text, encoding="ascii")
    folders = [f"-isystem{folder}" for folder in (str(stand_ins), *include_folders())]
    options = ["-std=c++20", "-O2", "-ffp-contract=off", "-fno-trapping-math", "-Werror", "-Wall"]
    quiet = ["-Wno-unknown-pragmas"]  # without OpenMP
    call = [COMPILER, f"--target={TARGET}", *options, *quiet, *folders, *flags_of_packages()]
    return [*call, f"-I{ROOT}"]


def compiler_errors(call: list[str]) -> str:
    done = subprocess.run(call, check=False, capture_output=True, text=True, timeout=1800)
    return "" if done.returncode == 0 else done.stderr[:4000]


def test_every_source_compiles_for_the_other_processor(compile_call: list[str]) -> None:
    sources = sorted(map(str, ROOT.glob("fullwaveform/**/*.cpp")))
    assert len(sources) > 40
    assert compiler_errors([*compile_call, "-fsyntax-only", *sources]) == ""


@pytest.mark.parametrize("kernel", KERNELS)
def test_kernels_become_machine_code(compile_call: list[str], kernel: str, tmp_path: Path) -> None:
    made = tmp_path / "kernel.o"
    source = str(ROOT / "fullwaveform" / kernel)
    assert compiler_errors([*compile_call, "-c", source, "-o", str(made)]) == ""
    machine = made.read_bytes()[18:20]  # of the ELF header
    assert machine == bytes([183, 0])  # AArch64


def test_processor_specific_source_is_detected(compile_call: list[str], tmp_path: Path) -> None:
    source = tmp_path / "vectors.cpp"
    source.write_text('int wide() { return __builtin_cpu_supports("avx2"); }\n')
    assert "cpu_supports" in compiler_errors([*compile_call, "-fsyntax-only", str(source)])
