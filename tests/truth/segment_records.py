"""Segments above the noise of every record of up to five samples, worked out without the library.

Each sample is below (b, 5 counts), equal to (e, 10) or above (a, 50) a noise of 10 counts. Writes
`SegmentRecords.h` with one word per record: its samples, its segments start>end, and the index of
the first of its strongest inner samples (the value follows from the sample).

Run: python3 segment_records.py
"""

from itertools import product
from pathlib import Path
from textwrap import wrap

COUNTS = {"b": 5, "e": 10, "a": 50}


def segments(record: str) -> dict[int, int]:
    """Start to end, found by cutting the inner samples into runs."""
    if not record:
        return {}
    beginning = 1 if record[0] == "a" else None
    found: dict[int, int] = {}
    for i in range(1, len(record) - 1):
        if record[i] == "a" and beginning is None:
            beginning = i - 1
        elif record[i] == "b" and beginning is not None:
            found[beginning] = i
            beginning = None
    if beginning is not None:
        found[beginning] = (len(record) - 2) % 2**32
    return dict(sorted(found.items()))


def strongest(record: str) -> int:
    inner = [COUNTS[letter] for letter in record[1:-1]]
    return 1 + inner.index(max(inner)) if inner else 0


def main() -> None:
    words = []
    for length in range(6):
        for letters in product("bea", repeat=length):
            record = "".join(letters)
            pairs = ",".join(f"{start}>{end}" for start, end in segments(record).items())
            words.append(f"{record}|{pairs}|{strongest(record)}")
    lines = [
        "#pragma once",
        "",
        "// Made by segment_records.py; not edited by hand.",
        "",
        "namespace FullWaveform::Testing {",
        "",
        "/// A word per record: samples below (b), at (e), above (a) the noise | segments |",
        "/// index of the strongest inner sample.",
        'inline constexpr auto segmentRecords = R"(',
        *wrap(" ".join(words), 100, break_on_hyphens=False),
        ')";',
        "",
        "}  // namespace FullWaveform::Testing",
        "",
    ]
    Path(__file__).with_name("SegmentRecords.h").write_text("\n".join(lines))


if __name__ == "__main__":
    main()
