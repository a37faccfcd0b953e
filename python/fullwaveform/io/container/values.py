"""Attribute values of scan containers, and errors of h5py for damaged files."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import h5py
import numpy as np

from fullwaveform.data.arrays import AnyArray
from fullwaveform.data.errors import WaveformFileError
from fullwaveform.io.remote import RemoteError, remote_failures_first


def stored_text(text: str) -> AnyArray:
    """A text of fixed length, for an attribute.

    HDF5 stores texts of variable length on a heap, and can hang if the heap is damaged.
    """
    content = text.encode()
    return np.array(content, dtype=h5py.string_dtype("utf-8", max(len(content), 1)))


def plain_value(value: Any) -> Any:
    """The value of an attribute as text, number or list of numbers."""
    if isinstance(value, np.ndarray | np.generic):
        value = value.tolist()
    return value.decode("utf-8", "replace") if isinstance(value, bytes) else value


@contextmanager
def damaged_file_errors(path: Path, part: str) -> Iterator[None]:
    """Replace any error of h5py or of an unusable value by a WaveformFileError."""
    try:
        with remote_failures_first():
            yield
    except (WaveformFileError, MemoryError, RemoteError):
        raise
    except Exception as error:  # h5py raises OSError, KeyError, RuntimeError, TypeError, ...
        raise WaveformFileError(
            f"{path}: unreadable {part}; the file may be truncated or corrupt "
            f"({type(error).__name__}: {error})"
        ) from error
