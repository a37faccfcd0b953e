"""Accuracy of every method: scenes with known echoes, bound, measures, tables, pictures."""
