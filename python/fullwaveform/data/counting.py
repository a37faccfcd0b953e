"""Numbers with their nouns, for messages."""

from __future__ import annotations


def counted(count: int, singular: str, plural: str | None = None) -> str:
    """The count and the noun in the right form; the plural ends in s unless it is given."""
    return f"{count:,} {singular if count == 1 else plural or f'{singular}s'}"
