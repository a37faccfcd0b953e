"""Reading echoes and discrete returns from files of any format, block by block."""
