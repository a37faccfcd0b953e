"""PulseWaves files."""
