"""Messages of a Kelo system, in plain Python."""
