"""Comparison of drawn pictures with those of the documents."""

from __future__ import annotations

from pathlib import Path

import matplotlib as mpl
import numpy as np
import pytest
from matplotlib import image

DOCUMENTS = Path(__file__).resolve().parents[3] / "docs"
#: Earlier versions place and draw text differently.
_SAME_TEXT = (3, 11)


def assert_same_picture(made: Path, document: str) -> None:
    """The picture is that of the documents, in their version of the drawing library."""
    drawn, shown = (image.imread(path)[..., :3] for path in (made, DOCUMENTS / document))
    assert drawn.shape == shown.shape
    if mpl.__version_info__[:2] < _SAME_TEXT:
        pytest.skip(f"matplotlib {mpl.__version__} draws text differently; sizes compared only")
    # Another version of a library below may still draw text a little differently.
    assert np.mean(np.abs(drawn - shown) > 0.1) < 0.01
