"""A range encoder with the models of compressed PulseWaves files, for streams of a few values.

Written from the description of the format for clarity: integers of any size take the place of
carries, and nothing is shared with the decoder.
"""

from __future__ import annotations

from collections.abc import Iterator


class Encoder:
    """Bytes of a stream; the decoder consumes exactly all of them."""

    def __init__(self) -> None:
        self.base, self.length, self.shifted = 0, 0xFFFFFFFF, 0

    def narrow(self, low: int, length: int) -> None:
        self.base += low
        self.length = length
        while self.length < 1 << 24:
            self.base <<= 8
            self.length <<= 8
            self.shifted += 1

    def bits(self, value: int, count: int) -> None:
        if count > 19:
            self.bits(value & 0xFFFF, 16)
            self.bits(value >> 16, count - 16)
            return
        unit = self.length >> count
        self.narrow(value * unit, unit)

    def bits64(self, value: int) -> None:
        for part in range(4):
            self.bits(value >> 16 * part & 0xFFFF, 16)

    def stream(self) -> bytes:
        return self.base.to_bytes(self.shifted + 4, "big")


class Bit:
    def __init__(self) -> None:
        self.zeros, self.total, self.probability = 1, 2, 1 << 12
        self.cycle = self.left = 4

    def encode(self, out: Encoder, bit: int) -> None:
        split = self.probability * (out.length >> 13)
        if bit:
            out.narrow(split, out.length - split)
        else:
            out.narrow(0, split)
            self.zeros += 1
        self.left -= 1
        if self.left == 0:
            self.total += self.cycle
            if self.total > 1 << 13:
                self.total, self.zeros = (self.total + 1) // 2, (self.zeros + 1) // 2
                self.total += self.zeros == self.total
            self.probability = (self.zeros * ((1 << 31) // self.total)) >> 18
            self.left = self.cycle = min(64, 5 * self.cycle // 4)


class Symbol:
    def __init__(self, size: int) -> None:
        self.size, self.counts, self.total, self.cycle = size, [1] * size, 0, size
        self._update()
        self.cycle = self.left = (size + 6) // 2

    def encode(self, out: Encoder, symbol: int) -> None:
        whole, unit = out.length, out.length >> 15
        low = self.limits[symbol] * unit
        high = whole if symbol == self.size - 1 else self.limits[symbol + 1] * unit
        out.narrow(low, high - low)
        self.counts[symbol] += 1
        self.left -= 1
        if self.left == 0:
            self._update()

    def _update(self) -> None:
        self.total += self.cycle
        if self.total > 1 << 15:
            self.counts = [(count + 1) // 2 for count in self.counts]
            self.total = sum(self.counts)
        scale = (1 << 31) // self.total
        self.limits = [scale * sum(self.counts[:k]) >> 16 for k in range(self.size)]
        self.left = self.cycle = min(5 * self.cycle // 4, 8 * (self.size + 6))


class Number:
    """Numbers of 8, 16 or 32 bits as differences to predictions."""

    def __init__(self, bits: int, contexts: int = 1) -> None:
        self.bits = bits
        self.classes = [Symbol(bits + 1) for _ in range(contexts)]
        self.zero_or_one = Bit()
        self.places = {k: Symbol(1 << min(k, 8)) for k in range(1, min(bits, 31) + 1)}

    def encode(self, out: Encoder, value: int, prediction: int, context: int = 0) -> None:
        half = 1 << (self.bits - 1)
        difference = (value - prediction + half) % (2 * half) - half
        if difference == -(1 << 31):
            self.classes[context].encode(out, 32)
            return
        k = next(k for k in range(33) if -(1 << k) + 1 <= difference <= 1 << k)
        self.classes[context].encode(out, k)
        if k == 0:
            self.zero_or_one.encode(out, difference)
            return
        place = difference - 1 if difference > 0 else difference + (1 << k) - 1
        if k <= 8:
            self.places[k].encode(out, place)
        else:
            self.places[k].encode(out, place >> (k - 8))
            out.bits(place & ((1 << (k - 8)) - 1), k - 8)


class ByAppearance:
    """Contexts in the order in which values appear: 0, 1, ... 127, 0, ..."""

    def __init__(self) -> None:
        self.seen: dict[int, int] = {}

    def of(self, value: int) -> int:
        return self.seen.setdefault(value, len(self.seen) % 128)


class Last:
    """The last difference in a context, or of any context, or 0."""

    def __init__(self) -> None:
        self.known: dict[int, int] = {}
        self.any = 0

    def get(self, context: int) -> int:
        return self.known.get(context, self.any)

    def set(self, context: int, difference: int) -> None:
        self.known[context] = self.any = difference


class Models(dict[int, Symbol]):
    def __init__(self, size: int) -> None:
        self.size = size

    def __missing__(self, key: int) -> Symbol:
        self[key] = Symbol(self.size)
        return self[key]


def signed32(value: int) -> int:
    return (value + (1 << 31)) % (1 << 32) - (1 << 31)


def chunk_table(bytes_of: list[int], pulses_of: list[int] | None) -> bytes:
    """Entries of a chunk table; the numbers of pulses only if they vary."""
    if not bytes_of:
        return b""
    out, numbers = Encoder(), Number(32, 2)
    last_pulses = last_bytes = 0
    for chunk, size in enumerate(bytes_of):
        if pulses_of is not None:
            numbers.encode(out, pulses_of[chunk], last_pulses, 0)
            last_pulses = pulses_of[chunk]
        numbers.encode(out, size, last_bytes, 1)
        last_bytes = size
    return out.stream()


def differences(values: list[int]) -> Iterator[tuple[int, int]]:
    """Each value with the one before, the first one with 0."""
    return zip(values, [0, *values][: len(values)], strict=True)
