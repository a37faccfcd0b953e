"""Segments of all waveforms of up to five samples, calculated without the library.

Each sample is below (b, 5 counts), equal to (e, 10) or above (a, 50) a noise of 10 counts. Writes
`SegmentWaveforms.h` with one word per waveform: its samples, its segments start>end, and the index
of the first maximum of its inner samples (the value follows from the sample).

Run: python3 segment_waveforms.py
"""

from itertools import product
from pathlib import Path
from textwrap import wrap

COUNTS = {"b": 5, "e": 10, "a": 50}


def segments(waveform: str) -> dict[int, int]:
    """Start to end, found by splitting the inner samples into runs."""
    if not waveform:
        return {}
    start = 1 if waveform[0] == "a" else None
    found: dict[int, int] = {}
    for i in range(1, len(waveform) - 1):
        if waveform[i] == "a" and start is None:
            start = i - 1
        elif waveform[i] == "b" and start is not None:
            found[start] = i
            start = None
    if start is not None:
        found[start] = (len(waveform) - 2) % 2**32
    return dict(sorted(found.items()))


def index_of_maximum(waveform: str) -> int:
    inner = [COUNTS[letter] for letter in waveform[1:-1]]
    return 1 + inner.index(max(inner)) if inner else 0


def main() -> None:
    words = []
    for length in range(6):
        for letters in product("bea", repeat=length):
            waveform = "".join(letters)
            pairs = ",".join(f"{start}>{end}" for start, end in segments(waveform).items())
            words.append(f"{waveform}|{pairs}|{index_of_maximum(waveform)}")
    lines = [
        "#pragma once",
        "",
        "// Made by segment_waveforms.py; not edited by hand.",
        "",
        "namespace FullWaveform::Testing {",
        "",
        "/// One word per waveform: samples below (b), equal to (e), above (a) the noise |",
        "/// segments | index of the maximum of the inner samples.",
        'inline constexpr auto segmentWaveforms = R"(',
        *wrap(" ".join(words), 100, break_on_hyphens=False),
        ')";',
        "",
        "}  // namespace FullWaveform::Testing",
        "",
    ]
    Path(__file__).with_name("SegmentWaveforms.h").write_text("\n".join(lines))


if __name__ == "__main__":
    main()
