"""Files in, files out: readers yield blocks of waveforms, writers take tables of echoes."""
