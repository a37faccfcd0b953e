"""Readers that yield blocks of waveforms, and writers of echo tables."""
