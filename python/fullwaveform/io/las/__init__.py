"""LAS and LAZ files with waveform packets."""
