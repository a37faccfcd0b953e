"""A PulseWaves flight line, undivided and in parts."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import replace
from pathlib import Path

from .compressed_scenes import Compression, write_compressed
from .pulsewaves_scenes import Descriptor, Pulse, Sampling, Scene

Writer = Callable[[Scene, Path], Path]

_LAYOUT = Descriptor(
    1,
    [
        Sampling(kind=1, channel=3, count_bits=8),
        Sampling(duration_bits=16, segment_bits=8, count_bits=8),
    ],
)


def flight_line(count: int = 11) -> Scene:
    """Pulses of one to three segments with an outgoing pulse, all different."""
    pulses = []
    for number in range(count):
        segments = [
            (50 * part + number, [10, 10, 20 + number, 90 + part, 40, 10, 10])
            for part in range(1 + number % 3)
        ]
        pulses.append(
            Pulse(
                [[(0, [3, 9 + number, 4])], segments],
                time=1_000_000 + 70 * number,
                anchor=(100 * number, 7, 90_000),
                target=(100 * number + 5, 9, 75_000),
            )
        )
    return Scene([_LAYOUT], pulses)


def plain(scene: Scene, path: Path) -> Path:
    return scene.write(path.with_suffix(".pls"))


def compressed(scene: Scene, path: Path) -> Path:
    return write_compressed(scene, path.with_suffix(".plz"), Compression(sizes=2))


def in_parts(scene: Scene, sizes: Sequence[int], folder: Path, *writers: Writer) -> list[Path]:
    """The scene in parts of so many pulses, written by the writers in turn."""
    folder.mkdir(exist_ok=True)
    paths, first = [], 0
    for number, size in enumerate(sizes, start=1):
        part = replace(scene, pulses=scene.pulses[first : first + size])
        paths.append(writers[number % len(writers)](part, folder / f"line_{number}"))
        first += size
    assert first == len(scene.pulses)
    return paths
