"""One extraction over many machines: part files, a manifest that names them, and reading them."""

from fullwaveform.cluster.parts import part_paths, read_parts

__all__ = ["part_paths", "read_parts"]
