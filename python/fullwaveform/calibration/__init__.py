"""What is measured once per file before its extraction."""
