"""Attributes of scan containers, and what h5py raises at damaged files."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import h5py
import numpy as np
import numpy.typing as npt

from fullwaveform.data.errors import WaveformFileError


def stored_text(text: str) -> npt.NDArray[Any]:
    """A text of fixed length, for an attribute.

    Texts of variable length stand on a heap, on whose damages the HDF5 library can hang.
    """
    content = text.encode()
    return np.array(content, dtype=h5py.string_dtype("utf-8", max(len(content), 1)))


def plain_value(value: Any) -> Any:
    """The value of an attribute as text, number or list of numbers."""
    if isinstance(value, np.ndarray | np.generic):
        value = value.tolist()
    return value.decode("utf-8", "replace") if isinstance(value, bytes) else value


@contextmanager
def damage_told(path: Path, what: str) -> Iterator[None]:
    """Turn whatever h5py raises at damaged files, or a value at its use, into a sentence."""
    try:
        yield
    except (WaveformFileError, MemoryError):
        raise
    except Exception as error:  # h5py has OSError, KeyError, RuntimeError, TypeError, ...
        raise WaveformFileError(
            f"{path}: {what} cannot be used, the file may be cut off or damaged "
            f"({type(error).__name__}: {error})"
        ) from error
