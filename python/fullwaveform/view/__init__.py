"""The viewer: its index files, its server on the loopback address, and its page."""
