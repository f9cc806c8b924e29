"""Where lines come from: `.npy` files of one line each, and stores of many.

A store is an uncompressed `.npz` (`numpy.savez`) of two arrays: `values`, the frames of all lines one
after another (float32, frames x dim), and `offsets` (int64), where line i is the rows offsets[i] to
offsets[i + 1]. Lines are read where they stand, without the rest of the store.
"""

from __future__ import annotations

import functools
import hashlib
import os
import struct
import zipfile
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Protocol

import numpy as np

from ..arrays import Floats
from ..errors import InputError

_format: Any = np.lib.format


def write_store(path: str | os.PathLike[str], lines: Iterable[Any]) -> None:
    """Writes lines, frames x dim each and all of one dim, as a store. It takes its name when it is
    complete. Raises InputError for a line of another width or none."""
    rows = [np.ascontiguousarray(line, np.float32) for line in lines]
    dims = {row.shape[1] if row.ndim == 2 else None for row in rows}
    if len(dims) != 1 or None in dims:
        raise InputError("lines: at least one wanted, all frames x dim of one dim")
    offsets = np.cumsum([0, *map(len, rows)], dtype=np.int64)
    path = Path(path)
    temporary = path.with_name(f"{path.name}.{os.getpid()}.tmp")
    try:
        with temporary.open("wb") as file:
            np.savez(file, values=np.concatenate(rows), offsets=offsets)
        os.replace(temporary, path)
    finally:
        temporary.unlink(missing_ok=True)


class Source(Protocol):
    """Lines in order."""

    @property
    def path(self) -> str:
        """The input as it was named."""

    def __len__(self) -> int:
        ...

    def name(self, index: int) -> dict[str, Any]:
        """What a record says of a line before its result."""

    def frames(self, index: int) -> Any:
        """The frames of a line."""

    def part(self, first: int, end: int) -> Part:
        """Some of the lines."""

    def digest(self) -> str:
        """Changes with the lines, as far as that can be told without reading all of them."""


class Files:
    """Lines in files of their own."""

    def __init__(self, path: str, files: Sequence[str]) -> None:
        self.path = path
        self._files = files

    def __len__(self) -> int:
        return len(self._files)

    def name(self, index: int) -> dict[str, Any]:
        return {"file": self._files[index]}

    def frames(self, index: int) -> Any:
        return np.load(self._files[index])

    def part(self, first: int, end: int) -> Part:
        return Part(Files(self.path, self._files[first:end]), 0, end - first)

    def digest(self) -> str:
        return hashlib.sha256("\n".join(self._files).encode("utf-8", "surrogateescape")).hexdigest()


class Store:
    """Lines in a store."""

    def __init__(self, path: str) -> None:
        self.path = path
        try:
            self._values, self._offsets = (_member(path, name) for name in ("values", "offsets"))
        except (OSError, zipfile.BadZipFile, KeyError, ValueError, struct.error) as error:
            raise InputError(f"{path}: no store of lines: {error}") from error
        rows = len(self._values) if self._values.ndim == 2 else -1
        offsets = self._offsets
        fits = offsets.ndim == 1 and len(offsets) > 0 and offsets.dtype.kind in "iu"
        if (
            rows < 0
            or not fits
            or offsets[0] != 0
            or offsets[-1] != rows
            or (np.diff(offsets) < 0).any()
        ):
            raise InputError(f"{path}: offsets do not fit values: they ascend from 0 to its rows")

    def __len__(self) -> int:
        return len(self._offsets) - 1

    def name(self, index: int) -> dict[str, Any]:
        return {"file": self.path, "line": index}

    def frames(self, index: int) -> Any:
        return np.array(self._values[self._offsets[index] : self._offsets[index + 1]])

    def part(self, first: int, end: int) -> Part:
        return Part(self, first, end)

    def __reduce__(self) -> tuple[Any, ...]:
        return _opened, (self.path,)

    def digest(self) -> str:
        found = hashlib.sha256(np.ascontiguousarray(self._offsets).tobytes())
        found.update(str((self._values.shape, self._values.dtype.str)).encode())
        return found.hexdigest()


@functools.lru_cache(maxsize=64)
def _opened(path: str) -> Store:
    """A store, opened once a process."""
    return Store(path)


def _member(path: str, name: str) -> Floats:
    """An array of a store where it stands in the file."""
    with zipfile.ZipFile(path) as archive, open(path, "rb") as file:
        entry = archive.getinfo(f"{name}.npy")
        if entry.compress_type != zipfile.ZIP_STORED:
            raise ValueError("it is compressed: numpy.savez wanted")
        file.seek(entry.header_offset)
        lengths = struct.unpack("<26xHH", file.read(30))
        file.seek(sum(lengths), os.SEEK_CUR)
        version = _format.read_magic(file)
        read = {(1, 0): _format.read_array_header_1_0, (2, 0): _format.read_array_header_2_0}
        if version not in read:
            raise ValueError(f"version {version} of its arrays")
        shape, is_fortran, dtype = read[version](file)
        if is_fortran or dtype.hasobject:
            raise ValueError("arrays of numbers in C order wanted")
        if np.prod(shape, dtype=object) == 0:
            return np.zeros(shape, dtype)
        return np.memmap(path, dtype, "r", file.tell(), shape)


def sources_of(inputs: Sequence[str]) -> list[Source]:
    """The lines of inputs: a folder (its `.npy` files in the order of their names, those of folders
    in it as well), a store, one `.npy` file, or a text file that names a file a line. Paths become
    absolute. Raises InputError for what is none of these."""
    return [_source_of(os.path.abspath(each)) for each in inputs]


def _source_of(path: str) -> Source:
    if os.path.isdir(path):
        files = sorted(str(each) for each in Path(path).rglob("*.npy") if each.is_file())
        if not files:
            raise InputError(f"{path}: no .npy files")
        return Files(path, files)
    if path.endswith(".npz"):
        return Store(path)
    if path.endswith(".npy"):
        return Files(path, [path])
    try:
        names = Path(path).read_text("utf-8", "surrogateescape").splitlines()
    except OSError as error:
        raise InputError(f"{path}: {error.strerror}") from error
    folder = os.path.dirname(path)
    return Files(path, [os.path.join(folder, name) for name in names if name])


@dataclass(frozen=True)
class Part:
    """Lines first to end of a source. Pickles as their names, or as the path of a store."""

    source: Source
    first: int
    end: int

    def __len__(self) -> int:
        return self.end - self.first

    def names(self) -> Iterator[dict[str, Any]]:
        """What records say of the lines."""
        return map(self.source.name, range(self.first, self.end))

    def lines(self) -> Iterator[tuple[dict[str, Any], Any]]:
        """Names and frames; an OSError or ValueError in the place of frames that cannot be read."""
        for index in range(self.first, self.end):
            try:
                frames = self.source.frames(index)
            except (OSError, ValueError) as error:
                frames = error
            yield self.source.name(index), frames


def parts_of(sources: Sequence[Source], first: int, end: int) -> list[Part]:
    """The lines with these numbers, counted over all sources."""
    parts = []
    start = 0
    for source in sources:
        a, b = max(first - start, 0), min(end - start, len(source))
        if a < b:
            parts.append(source.part(a, b))
        start += len(source)
    return parts
