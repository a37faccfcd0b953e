"""One extraction on several machines: part files, the manifest that lists them, reading them."""

from fullwaveform.cluster.parts import part_paths, read_parts

__all__ = ["part_paths", "read_parts"]
