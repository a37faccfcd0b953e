"""Changes of a file's bytes as damage, other programs and ill will make them."""

from __future__ import annotations

import random
import re
import struct
from collections.abc import Callable

_NUMBERS = (0, 1, 2, 3, 7, 8, 16, 127, 128, 255, 256, 32767, 32768, 65535, 65536)
_LARGE = (2**31 - 1, 2**31, 2**32 - 1, 2**32, 2**40, 2**63 - 1, 2**63, 2**64 - 1)
_DOUBLES = (float("nan"), float("inf"), float("-inf"), 1e308, -1e308, 5e-324, -1.0, 0.0)
_WORDS = (
    b"nan",
    b"-inf",
    b"1e400",
    b"-1",
    b"0",
    b",",
    b";",
    b"\t",
    b"\n",
    b"=",
    b'"',
    b"[",
    b"\xff",
)
_WRITTEN = (b"nan", b"inf", b"-inf", b"0", b"-1", b"1e308", b"1e-320", b"99999999999999999999")
_HEAD = 700  # bytes; in most formats the header


def mutated(content: bytes, chance: random.Random) -> bytes:
    """The content after one to four changes."""
    changed = bytearray(content)
    changes = _CHANGES_OF_TEXT if content.isascii() and b"\0" not in content else _CHANGES
    for _ in range(chance.randint(1, 4)):
        chance.choice(changes)(changed, chance)
    return bytes(changed)


def _place(content: bytearray, chance: random.Random) -> int:
    last = len(content) if chance.random() < 0.4 else min(_HEAD, len(content))
    return chance.randint(0, max(last - 1, 0))


def _flip_bit(content: bytearray, chance: random.Random) -> None:
    if content:
        content[_place(content, chance)] ^= 1 << chance.randrange(8)


def _overwrite_number(content: bytearray, chance: random.Random) -> None:
    place, size = _place(content, chance), chance.choice((1, 2, 4, 8))
    value = chance.choice(_NUMBERS + _LARGE) % 2 ** (8 * size)
    content[place : place + size] = value.to_bytes(size, "little")


def _overwrite_double(content: bytearray, chance: random.Random) -> None:
    place = _place(content, chance)
    content[place : place + 8] = struct.pack("<d", chance.choice(_DOUBLES))


def _insert_word(content: bytearray, chance: random.Random) -> None:
    place = _place(content, chance)
    content[place:place] = chance.choice(_WORDS)


def _remove(content: bytearray, chance: random.Random) -> None:
    place = _place(content, chance)
    del content[place : place + chance.choice((1, 2, 8, 64, 500))]


def _repeat(content: bytearray, chance: random.Random) -> None:
    place = _place(content, chance)
    part = content[place : place + chance.choice((1, 8, 60, 500))]
    content[place:place] = part * chance.choice((1, 2, 20))


def _cut(content: bytearray, chance: random.Random) -> None:
    del content[chance.randint(0, len(content)) :]


def _replace_number(content: bytearray, chance: random.Random) -> None:
    numbers = list(re.finditer(rb"-?\d+(\.\d+)?(e-?\d+)?", content))
    if numbers:
        first, end = chance.choice(numbers).span()
        content[first:end] = chance.choice(_WRITTEN)


def _change_lines(content: bytearray, chance: random.Random) -> None:
    lines = content.split(b"\n")
    line = chance.choice(lines)
    lines.remove(line)
    if chance.random() < 0.5:
        lines.insert(chance.randint(0, len(lines)), line)
    content[:] = b"\n".join(lines)


_CHANGES: tuple[Callable[[bytearray, random.Random], None], ...] = (
    *3 * (_flip_bit,),
    *4 * (_overwrite_number,),
    _overwrite_double,
    _insert_word,
    _remove,
    _repeat,
    _cut,
)
_CHANGES_OF_TEXT = (*_CHANGES, *12 * (_replace_number,), *6 * (_change_lines,))
