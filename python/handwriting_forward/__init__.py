"""Handwriting recognition: runs, reads, writes and exports the models of the library."""
