"""Accuracy of every method on waveforms with known echoes: scenes, bound, measures, tables, pictures."""
