"""What a batch is: its lines, cut into shards, and the folder that its results go to."""

from __future__ import annotations

import hashlib
import json
import os
import uuid
from collections.abc import Iterator, Sequence
from contextlib import suppress
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from ..errors import InputError
from .lines import Source

MANIFEST = "manifest.json"


@dataclass(frozen=True)
class Options:
    """How lines are recognized. `labels` are the names of the classes, None for their numbers."""

    nbest: int
    labels: tuple[str, ...] | None


@dataclass(frozen=True)
class Model:
    """A model by its content."""

    name: str
    content: bytes

    @property
    def digest(self) -> str:
        return hashlib.sha256(self.content).hexdigest()


@dataclass(frozen=True)
class Counts:
    """What has been done: lines, frames, and lines that failed."""

    lines: int = 0
    frames: int = 0
    errors: int = 0

    def __add__(self, other: Counts) -> Counts:
        return Counts(
            self.lines + other.lines, self.frames + other.frames, self.errors + other.errors
        )


@dataclass(frozen=True)
class Shard:
    """Lines first to end, and the file that their records go to."""

    number: int
    first: int
    end: int
    file: str

    @property
    def path(self) -> Path:
        return Path(self.file)


class Job:
    """A batch, and its folder."""

    def __init__(
        self,
        model: Model,
        sources: Sequence[Source],
        folder: Path,
        options: Options,
        shard: int,
        version: str,
    ) -> None:
        self.model = model
        self.sources = sources
        self.folder = folder
        self.options = options
        self.shard_lines = shard
        self.line_count = sum(map(len, sources))
        self._what = {
            "format": 1,
            "version": version,
            "model": {"sha256": model.digest, "bytes": len(model.content)},
            "options": {
                "nbest": options.nbest,
                "labels": None if options.labels is None else list(options.labels),
                "shard": shard,
            },
            "inputs": [
                {"path": each.path, "lines": len(each), "sha256": each.digest()} for each in sources
            ],
        }

    @property
    def shard_count(self) -> int:
        return -(-self.line_count // self.shard_lines)

    def shards(self) -> Iterator[Shard]:
        """All shards in order."""
        for number in range(self.shard_count):
            first = number * self.shard_lines
            end = min(first + self.shard_lines, self.line_count)
            yield Shard(number, first, end, str(self.folder / f"part-{number:08}.jsonl"))

    def missing(self) -> Iterator[Shard]:
        """The shards whose file is not there."""
        return (shard for shard in self.shards() if not shard.path.exists())

    def open(self) -> None:
        """Makes the folder and says in its manifest what it is for. Raises InputError where it is
        for something else, and removes what an earlier run has left half written."""
        self.folder.mkdir(parents=True, exist_ok=True)
        before = self._manifest()
        if before is None:
            if any(self.folder.glob("part-*.jsonl")):
                raise InputError(
                    f"{self.folder}: shards without a {MANIFEST}: another folder wanted"
                )
            write_whole(self.folder / MANIFEST, _text_of(self._what))
        else:
            for key, value in self._what.items():
                if before.get(key) != value:
                    raise InputError(
                        f"{self.folder}: made with another {_difference(key, before.get(key), value)}"
                    )
        for left in self.folder.glob(f"*{TEMPORARY}"):
            with suppress(OSError):
                left.unlink()

    def finish(self) -> Counts:
        """Says in the manifest what is in the folder, once all shards are there."""
        total = Counts()
        for shard in self.shards():
            total += counts_of(shard.path)
        write_whole(
            self.folder / MANIFEST,
            _text_of(
                {
                    **self._what,
                    "shards": self.shard_count,
                    "lines": total.lines,
                    "frames": total.frames,
                    "errors": total.errors,
                }
            ),
        )
        return total

    def _manifest(self) -> dict[str, Any] | None:
        path = self.folder / MANIFEST
        try:
            found = json.loads(path.read_text("utf-8"))
        except FileNotFoundError:
            return None
        except ValueError as error:
            raise InputError(f"{path}: no manifest: {error}") from error
        if not isinstance(found, dict):
            raise InputError(f"{path}: no manifest")
        return found


def _difference(key: str, before: Any, value: Any) -> str:
    if isinstance(before, dict) and isinstance(value, dict):
        for name in value:
            if before.get(name) != value[name]:
                return (
                    f"{key} ({name}: {_short(before.get(name))} there, {_short(value[name])} here)"
                )
    return f"{key}: {_short(before)} there, {_short(value)} here"


def _short(value: Any) -> str:
    text = json.dumps(value, ensure_ascii=False)
    return text if len(text) <= 80 else text[:77] + "..."


def _text_of(manifest: dict[str, Any]) -> bytes:
    return (json.dumps(manifest, ensure_ascii=False, indent=1) + "\n").encode(
        "utf-8", "backslashreplace"
    )


# What a file is called until it is complete: unlike any other, so that two that write the same do not
# meet.
TEMPORARY = ".part"


def write_whole(path: Path, content: bytes) -> None:
    """Writes a file beside its place; it takes its name when it is complete and on the disk."""
    temporary = path.with_name(f".{path.name}.{uuid.uuid4().hex}{TEMPORARY}")
    try:
        with temporary.open("wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
    finally:
        temporary.unlink(missing_ok=True)


def counts_of(path: Path) -> Counts:
    """What the records of a shard say."""
    lines = frames = errors = 0
    with path.open("rb") as file:
        for text in file:
            record = json.loads(text)
            lines += 1
            frames += record.get("frames", 0)
            errors += "error" in record
    return Counts(lines, frames, errors)
