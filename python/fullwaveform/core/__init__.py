"""The compiled library: driver, scanner description, on-board echoes, console messages."""
