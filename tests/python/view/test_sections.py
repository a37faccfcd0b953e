"""Files of named arrays."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.view.sections import SectionFile, new_section_file


@pytest.fixture
def path(tmp_path: Path) -> Path:
    path = tmp_path / "index"
    with new_section_file(path) as writer:
        writer.add("small", np.array([1, 2, 3], np.uint8))
        writer.add("places", np.array([0.5, -1.5, 2.5, 3.5]))
        writer.add("none", np.empty(0, np.uint32))
        writer.finish({"origin": [1.0, 2.0]})
    return path


def test_parts_are_read_with_their_types(path: Path) -> None:
    with SectionFile(path) as sections:
        assert sections.read("small").tolist() == [1, 2, 3]
        assert sections.read("places", 1, 3).tolist() == [-1.5, 2.5]
        assert sections.read("places", 3, 9).tolist() == [3.5]
        assert len(sections.read("none")) == len(sections.read("places", 4, 6)) == 0
        assert (sections.count("places"), sections.count("none")) == (4, 0)
        assert sections.described == {"origin": [1.0, 2.0]}
        assert sections.read("small").dtype == np.uint8


def test_unfinished_file_does_not_appear(tmp_path: Path) -> None:
    with pytest.raises(KeyError), new_section_file(tmp_path / "index") as writer:
        writer.add("small", np.zeros(3))
        raise KeyError
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize(
    "content", [b"", b"LASF", b"FWSECT1\n" + bytes(8), b"FWSECT1\n" + b"\x10" * 8]
)
def test_other_content_is_refused(tmp_path: Path, content: bytes) -> None:
    path = tmp_path / "index"
    path.write_bytes(content)
    with pytest.raises(WaveformFileError, match="is not an index of the viewer"):
        SectionFile(path)


def test_truncated_file_is_refused(path: Path) -> None:
    path.write_bytes(path.read_bytes()[:-5])
    with pytest.raises(WaveformFileError, match="is not an index of the viewer"):
        SectionFile(path)
