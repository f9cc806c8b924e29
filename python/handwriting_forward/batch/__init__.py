"""Recognizes many lines, on the workers of a Dask scheduler or in one process.

    python3 -m handwriting_forward.batch MODEL INPUT... --out FOLDER

needs Dask distributed (`apt install python3-distributed`), but not for `--workers 0`.
`write_store` writes many lines into one file.
"""

from .lines import write_store

__all__ = ["write_store"]
