"""Metrics of whole waveforms: heights of energy, moments, canopy cover and its profile."""
