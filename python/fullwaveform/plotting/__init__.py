"""Pictures of waveforms, system waves and comparisons."""
