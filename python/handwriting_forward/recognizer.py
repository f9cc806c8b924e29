"""From features to label sequences."""

from __future__ import annotations

import os
import queue
from collections import deque
from collections.abc import Iterable, Iterator, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from pathlib import Path
from typing import Any, Literal, Union, cast, overload

from numpy.typing import ArrayLike

from . import _core
from .arrays import Floats, floats_of
from .errors import HandwritingError, InputError, RunError
from .handle import Handle, ModelContent, content_of
from .results import Alternative, Result, text_of

Labels = Union[str, "os.PathLike[str]", Sequence[str]]

_MOST_INT = 2**31 - 1
_WANTED = "frames x dim"
_IN_FLIGHT = 2  # lines that wait or are in work, for each recognizer


class Recognizer(Handle[_core.Recognizer]):
    """The recognizer of a model file: two networks and a CTC beam search.

    model: the path of a model file, or its content.
    nbest: width of the beam, and the most sequences that a result holds.
    max_frames: frames to make room for; a longer input makes more room, once.
    labels: names of the classes, name k that of class k (class 0 is the blank): a sequence of them,
        or the path of a UTF-8 text file with one a line.

    A recognizer is used by one thread at a time: a call while another thread is in one raises
    InUseError. The interpreter lock is released while the library works. Pickling carries the model's
    content and the options. A recognizer that a process made is of no use in its forks.

    Raises ModelError with the place in the file and the reason, InputError for a wrong option.
    """

    _what = "recognizer"

    def __init__(
        self,
        model: ModelContent,
        nbest: int = 10,
        max_frames: int = 256,
        labels: Labels | None = None,
    ) -> None:
        self._nbest = _count(nbest, "nbest")
        self._max_frames = _count(max_frames, "max_frames")
        self._labels = None if labels is None else labels_of(labels)
        self._spare: list[_core.Recognizer] = []
        content, name = content_of(model)
        super().__init__(content, name, self._compile(content, name))

    def _compile(self, content: bytes, name: str) -> _core.Recognizer:
        return _core.Recognizer(content, name, self._nbest, self._max_frames)

    def __reduce__(self) -> tuple[Any, ...]:
        self._open()
        return type(self), (self._content, self._nbest, self._max_frames, self._labels)

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"nbest={self._nbest}"
        return f"<{type(self).__name__} {self._name}, {state}>"

    def close(self) -> None:
        """Gives the memory back once calls that still run have ended; may be called again."""
        super().close()
        self._spare = []

    def recognize(self, features: ArrayLike, detail: bool = True) -> Result:
        """The label sequences of one input, frames x dim.

        float32 in C order is read where it stands, unless the model begins with a layer that changes
        its input; everything else is copied, and the caller's array never changes. Without `detail`
        the result has label sequences only, and spans and confidences cost nothing.

        Raises InputError for features that the model does not take, RunError where the library gives
        up, with its message.
        """
        compiled = self._open()
        return self._run(compiled, self._floats(compiled, features, compiled.changes_input), detail)

    @overload
    def recognize_many(
        self,
        lines: Iterable[ArrayLike],
        threads: int = 1,
        errors: Literal["raise"] = "raise",
        detail: bool = True,
    ) -> Iterator[Result]: ...
    @overload
    def recognize_many(
        self,
        lines: Iterable[ArrayLike],
        threads: int = 1,
        *,
        errors: Literal["return"],
        detail: bool = True,
    ) -> Iterator[Result | HandwritingError]: ...
    def recognize_many(
        self,
        lines: Iterable[ArrayLike],
        threads: int = 1,
        errors: Literal["raise", "return"] = "raise",
        detail: bool = True,
    ) -> Iterator[Result | HandwritingError]:
        """The results of many inputs, in their order, by so many recognizers of the same model, each
        with a thread; 0 threads are one for every processor.

        Takes any iterable, also one without end: few inputs are taken ahead of the results, and each
        is copied when it is taken. An input that fails raises there, or, with errors="return", stands
        as the exception in the place of its result. An interrupt acts once the inputs in work are
        done, and so does leaving the loop.
        """
        if errors not in ("raise", "return"):
            raise InputError(f'errors: {errors!r} found, "raise" or "return" wanted')
        if not isinstance(threads, int) or threads < 0:
            raise InputError(f"threads: {threads!r} found, a number from 0 wanted")
        self._open()
        return self._recognize_each(iter(lines), threads or _processors(), errors, detail)

    def _recognize_each(
        self, lines: Iterator[ArrayLike], threads: int, errors: str, detail: bool
    ) -> Iterator[Result | HandwritingError]:
        self._open()
        idle: queue.SimpleQueue[_core.Recognizer] = queue.SimpleQueue()
        for _ in range(threads):
            idle.put(
                self._spare.pop() if self._spare else self._compile(self._content, self._name)
            )

        def work(features: Floats) -> Result:
            compiled = idle.get()
            try:
                return self._run(compiled, features, detail)
            finally:
                idle.put(compiled)

        def outcome(future: Future[Result]) -> Result | HandwritingError:
            try:
                return future.result()
            except HandwritingError as error:
                if errors == "raise":
                    raise
                return error

        waiting: deque[Future[Result]] = deque()
        pool = ThreadPoolExecutor(threads, "recognize")
        try:
            for line in lines:
                waiting.append(self._submit(pool, work, line))
                if len(waiting) >= _IN_FLIGHT * threads:
                    yield outcome(waiting.popleft())
            while waiting:
                yield outcome(waiting.popleft())
        finally:
            pool.shutdown(wait=True, cancel_futures=True)
            if not self.closed:
                self._spare += [idle.get() for _ in range(threads)]

    def _submit(self, pool: ThreadPoolExecutor, work: Any, line: ArrayLike) -> Future[Result]:
        try:
            features = self._floats(self._open(), line, copy=True)
        except InputError as error:
            failed: Future[Result] = Future()
            failed.set_exception(error)
            return failed
        return cast("Future[Result]", pool.submit(work, features))

    def _floats(self, compiled: _core.Recognizer, features: ArrayLike, copy: bool) -> Floats:
        floats = floats_of(features, "features", _WANTED, 2, copy)
        if floats.size == 0:
            shape = " x ".join(map(str, floats.shape))
            raise InputError(f"features: {shape} found, {_WANTED} wanted, neither of them 0")
        try:
            compiled.check_width(floats.shape[1])
        except InputError as error:
            raise InputError(f"features: {error}") from None
        return floats

    def _run(self, compiled: _core.Recognizer, features: Floats, detail: bool) -> Result:
        records = compiled.recognize(features, detail)
        sequences = tuple(tuple(record[0]) for record in records)
        texts = None if self._labels is None else tuple(map(self._text, sequences))
        alternatives = None
        if detail:
            alternatives = tuple(
                Alternative(
                    labels, None if texts is None else texts[i], score, confidence, tuple(spans),
                    None if each is None else tuple(each),
                )
                for i, (labels, (_, score, confidence, spans, each)) in enumerate(
                    zip(sequences, cast("Sequence[_core._Details]", records))
                )
            )
        return Result(sequences, texts, len(features), alternatives)

    def _text(self, sequence: Sequence[int]) -> str:
        names = cast("Sequence[str]", self._labels)
        highest = max(sequence, default=0)
        if highest >= len(names):
            raise RunError(f"class {highest} found, the labels name {len(names)}")
        return text_of(sequence, names)


def _processors() -> int:
    """Processors that this process may use."""
    return len(os.sched_getaffinity(0))


def _count(value: int, what: str) -> int:
    if not isinstance(value, int) or not 1 <= value <= _MOST_INT:
        raise InputError(f"{what}: {value!r} found, a number from 1 to {_MOST_INT} wanted")
    return value


def labels_of(labels: Labels) -> tuple[str, ...]:
    """Names of classes, or those in a file of them. Raises InputError."""
    if isinstance(labels, (str, os.PathLike)):
        try:
            lines = Path(labels).read_text("utf-8-sig").split("\n")
        except OSError as error:
            raise InputError(f"{labels}: {error.strerror}") from error
        except UnicodeDecodeError as error:
            raise InputError(f"{labels}: {error}") from error
        if lines[-1] == "":
            lines.pop()
        labels = [line.removesuffix("\r") for line in lines]
    names = tuple(labels)
    if not names or not all(isinstance(name, str) for name in names):
        raise InputError("labels: names of classes wanted, from class 0 on")
    return names
