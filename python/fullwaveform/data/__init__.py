"""What all folders exchange: waveform blocks, echo tables, column descriptions, tallies."""
