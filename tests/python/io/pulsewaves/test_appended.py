"""Variable records after the pulses of PulseWaves files."""

from __future__ import annotations

from pathlib import Path

import pytest

from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.pulsewaves.reader import PulseWavesReader

from ...support.las_scenes import patch, rows
from ...support.pulsewaves_scenes import (
    APPENDED,
    Descriptor,
    Sampling,
    Scene,
    end_of_appended,
    three_pulses,
)


def message_of(path: Path) -> str:
    with pytest.raises(WaveformFileError) as caught:
        PulseWavesReader(path)
    assert str(path) in str(caught.value)
    return str(caught.value)


def with_appended_descriptor(*, counted: bool, ended: bool) -> Scene:
    """Pulses whose descriptor is an appended record, after an unused one."""
    descriptor = Descriptor(1, [Sampling()])
    appended = [
        (b"PulseWaves_Spec", 200002, Descriptor(2, [Sampling()]).record()),
        (b"PulseWaves_Spec", 200001, descriptor.record()),
    ]
    scene = three_pulses(appended=[end_of_appended(), *appended] if ended else appended)
    scene.patches[APPENDED] = ("<i", 2 if counted else -1)
    # Without a descriptor before the pulses, the samples are written by `write_with_waves`.
    scene.descriptors = []
    return scene


def write_with_waves(scene: Scene, path: Path) -> Path:
    for number, pulse in enumerate(scene.pulses):
        pulse.offset = 60 + 4 * number
    scene.write(path)
    with path.with_suffix(".wvs").open("ab") as stream:
        stream.write(bytes(range(1, 13)))
    return path


@pytest.mark.parametrize(("counted", "ended"), [(True, True), (True, False), (False, True)])
def test_appended_records_are_read(tmp_path: Path, counted: bool, ended: bool) -> None:
    scene = with_appended_descriptor(counted=counted, ended=ended)
    path = write_with_waves(scene, tmp_path / "a.pls")
    with PulseWavesReader(path) as reader:
        assert sorted(reader.descriptors) == [1, 2]
        assert rows(list(reader.blocks())) == [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12]]


def test_missing_appended_records_are_an_error(tmp_path: Path) -> None:
    scene = with_appended_descriptor(counted=True, ended=True)
    scene.patches[APPENDED] = ("<i", 3)
    path = write_with_waves(scene, tmp_path / "a.pls")
    assert "record 3 from the end ends the list; header declares 3" in message_of(path)
    scene = with_appended_descriptor(counted=False, ended=False)
    path = write_with_waves(scene, tmp_path / "b.pls")
    assert "appended record 3 from the end: truncated: pulses end" in message_of(path)


@pytest.mark.parametrize("length", [-1, 197 + 196 + 96])
def test_appended_record_with_an_invalid_length_is_refused(tmp_path: Path, length: int) -> None:
    scene = with_appended_descriptor(counted=True, ended=False)
    path = write_with_waves(scene, tmp_path / "a.pls")
    patch(path, path.stat().st_size - 96 + 24, "<q", length)
    assert f"invalid length {length} bytes; must start after the pulses" in message_of(path)
