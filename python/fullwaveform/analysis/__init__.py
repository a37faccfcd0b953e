"""Inspection, matching, comparison, reports and selection of waveforms."""
