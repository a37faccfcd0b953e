"""The lint for includes between the modules of the C++ library."""

from __future__ import annotations

from pathlib import Path

import pytest

from .checkout import faults, write

ALLOWED = {
    "text": [],
    "host": ["text"],
    "scanner": ["host", "text"],
    "model": ["scanner", "host", "text"],
    "fitting": ["model"],
    "deconvolution": ["fitting", "model", "scanner", "host"],
    "online": ["model", "scanner", "host"],
    "driver": ["text", "host", "scanner", "model", "fitting", "deconvolution", "online"],
}
PAIRS = [(module, other, other in ALLOWED[module]) for module in ALLOWED for other in ALLOWED]


def library(root: Path, files: dict[str, str], public: str = "") -> Path:
    """A library whose module model/ installs the headers named by `public`."""
    return write(root, {"fullwaveform/model/CMakeLists.txt": f"HEADERS {public})\n", **files})


def of_header(root: Path, name: str, body: str, public: str = "") -> list[str]:
    header = {f"fullwaveform/{name}": f"#pragma once\n{body}\n"}
    return faults("include_direction.py", library(root, header, public))


@pytest.mark.parametrize(("module", "other", "allowed"), PAIRS)
def test_direction(tmp_path: Path, module: str, other: str, allowed: bool) -> None:
    found = of_header(tmp_path, f"{module}/A.h", f"#include <fullwaveform/{other}/B.h>")
    assert (found == []) == (allowed or module == other)
    assert all(f"fullwaveform/{module}/A.h:2:" in fault for fault in found)


def test_sources_are_read_too(tmp_path: Path) -> None:
    files = {"fullwaveform/host/A.cpp": "int a;\n  #  include <fullwaveform/model/Peak.h>\n"}
    (fault,) = faults("include_direction.py", library(tmp_path, files))
    assert fault == (
        "fullwaveform/host/A.cpp:2: fullwaveform/model/Peak.h:"
        " host/ must not include model/ (allowed: text)"
    )


def test_umbrella_includes_every_module(tmp_path: Path) -> None:
    lines = "\n".join(f"#include <fullwaveform/{module}/A.h>" for module in ALLOWED)
    assert of_header(tmp_path, "FullWaveform.h", lines) == []


def test_no_module_includes_the_umbrella(tmp_path: Path) -> None:
    assert len(of_header(tmp_path, "driver/A.h", "#include <fullwaveform/FullWaveform.h>")) == 1


def test_every_module_includes_the_export_macro(tmp_path: Path) -> None:
    assert of_header(tmp_path, "text/A.h", "#include <fullwaveform/Export.h>") == []


def test_unknown_module(tmp_path: Path) -> None:
    assert len(of_header(tmp_path, "utils/A.h", "")) == 1


def test_include_of_an_unknown_module(tmp_path: Path) -> None:
    assert len(of_header(tmp_path, "driver/A.h", "#include <fullwaveform/utils/A.h>")) == 1


def test_folder_inside_a_module_is_private(tmp_path: Path) -> None:
    include = "#include <fullwaveform/fitting/leastsquares/A.h>"
    assert of_header(tmp_path, "fitting/B.h", include) == []
    assert of_header(tmp_path, "fitting/leastsquares/B.h", include) == []
    for other in ("driver/B.h", "FullWaveform.h"):
        assert any(
            "is private to fitting/" in fault for fault in of_header(tmp_path, other, include)
        )


def test_folder_inside_a_module_follows_its_directions(tmp_path: Path) -> None:
    include = "#include <fullwaveform/driver/A.h>"
    assert len(of_header(tmp_path, "fitting/leastsquares/B.h", include)) == 1


def test_quotes_could_hide_a_direction(tmp_path: Path) -> None:
    assert len(of_header(tmp_path, "host/A.h", '#include "../model/Peak.h"')) == 1


@pytest.mark.parametrize("name", ["Python.h", "nanobind/nanobind.h", "python/bindings/Bindings.h"])
def test_library_does_not_depend_on_python(tmp_path: Path, name: str) -> None:
    assert len(of_header(tmp_path, "driver/A.h", f"#include <{name}>")) == 1


@pytest.mark.parametrize("name", ["fftw3.h", "cairo/cairo.h", "cairo.h", "unsupported/Eigen/FFT"])
def test_public_header_includes_no_other_library(tmp_path: Path, name: str) -> None:
    include = f"#include <{name}>"
    assert len(of_header(tmp_path, "model/A.h", include, public="A.h")) == 1
    assert of_header(tmp_path, "model/A.h", include) == []


def test_public_header_includes_no_private_one(tmp_path: Path) -> None:
    files = {
        "fullwaveform/model/A.h": "#pragma once\n#include <fullwaveform/model/B.h>\n",
        "fullwaveform/model/B.h": "#pragma once\n",
    }
    root = library(tmp_path, files, public="A.h")
    assert len(faults("include_direction.py", root)) == 1
    assert faults("include_direction.py", library(tmp_path, {}, public="A.h B.h")) == []


@pytest.mark.parametrize("text", ["", "int a;\n#pragma once\n", "// #pragma once\n"])
def test_header_without_pragma_once_at_its_top(tmp_path: Path, text: str) -> None:
    root = library(tmp_path, {"fullwaveform/model/A.h": text})
    (fault,) = faults("include_direction.py", root)
    assert "#pragma once" in fault


def test_bindings_include_public_headers_only(tmp_path: Path) -> None:
    files = {
        "python/bindings/a.cpp": "#include <fullwaveform/model/A.h>\n"
        '#include "Bindings.h"\n#include <nanobind/nanobind.h>\n'
    }
    assert len(faults("include_direction.py", library(tmp_path, files))) == 1
    assert faults("include_direction.py", library(tmp_path, {}, public="A.h")) == []
