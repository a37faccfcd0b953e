"""From blocks of waveforms to georeferenced echoes."""
