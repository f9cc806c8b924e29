"""What recognizers and networks have in common: a model, and an object of the compiled module."""

from __future__ import annotations

import os
from pathlib import Path
from types import TracebackType
from typing import Generic, TypeVar, Union

from .errors import ClosedError, ForkedError, ModelError

ModelContent = Union[str, "os.PathLike[str]", bytes, bytearray, memoryview]

_Compiled = TypeVar("_Compiled")
_Self = TypeVar("_Self", bound="Handle")  # type: ignore[type-arg]


def content_of(model: ModelContent) -> tuple[bytes, str]:
    """The bytes of a model and what messages call it. Raises ModelError, with the path, for a file
    that cannot be read."""
    if isinstance(model, (bytes, bytearray, memoryview)):
        return bytes(model), "model"
    path = Path(model)
    try:
        return path.read_bytes(), str(path)
    except OSError as error:
        raise ModelError(f"{path}: {error.strerror}") from error


class Handle(Generic[_Compiled]):
    """An object of the compiled module that is closed at some time and stays in its process."""

    _what = "object"

    def __init__(self, content: bytes, name: str, compiled: _Compiled) -> None:
        self._content = content
        self._name = name
        self._compiled: _Compiled | None = compiled
        self._process = os.getpid()

    def _open(self) -> _Compiled:
        """The compiled object, for one call."""
        compiled = self._compiled
        if compiled is None:
            raise ClosedError(f"this {self._what} has been closed")
        if os.getpid() != self._process:
            raise ForkedError(
                f"this {self._what} belongs to process {self._process}: make one in the child,"
                " or pickle it there"
            )
        return compiled

    @property
    def closed(self) -> bool:
        """Whether `close` was called."""
        return self._compiled is None

    def close(self) -> None:
        """Gives the memory back once calls that still run have ended; may be called again."""
        self._compiled = None
        self._content = b""

    def __enter__(self: _Self) -> _Self:
        self._open()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.close()
