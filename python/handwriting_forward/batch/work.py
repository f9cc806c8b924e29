"""The work on a shard, in whatever process does it."""

from __future__ import annotations

import json
import threading
from collections.abc import Iterable, Iterator
from typing import Any

from ..errors import HandwritingError
from ..recognizer import Recognizer
from .job import Counts, Model, Options
from .lines import Part

_MADE = threading.local()


def recognizer_of(model: Model, options: Options) -> Recognizer:
    """The recognizer of this thread for the model; made once, kept until another is wanted."""
    key = (model.digest, options)
    if getattr(_MADE, "key", None) != key:
        _MADE.recognizer = Recognizer(model.content, nbest=options.nbest, labels=options.labels)
        _MADE.key = key
    recognizer: Recognizer = _MADE.recognizer
    return recognizer


def records_of(
    lines: Iterable[tuple[dict[str, Any], Any]], recognizer: Recognizer
) -> Iterator[dict[str, Any]]:
    """A record for every line: its name and what `handwriting recognize --json` says of it, with its
    frames, or an error."""
    for name, frames in lines:
        try:
            if isinstance(frames, Exception):
                raise frames
            result = recognizer.recognize(frames, detail=False)
        except (HandwritingError, OSError, ValueError) as error:
            yield {**name, "error": message_of(error)}
        else:
            yield {**name, **result.to_dict(), "frames": result.frames}


def message_of(error: BaseException) -> str:
    """What is wrong, in one line, and the same on every machine."""
    if isinstance(error, OSError) and error.strerror:
        return error.strerror
    return " ".join(str(error).split()) or type(error).__name__


def text_of(records: Iterable[dict[str, Any]]) -> tuple[bytes, Counts]:
    """Records as JSON lines, and what they say."""
    text = bytearray()
    counts = Counts()
    for record in records:
        line = json.dumps(record, ensure_ascii=False, separators=(",", ":"))
        text += line.encode("utf-8", "backslashreplace") + b"\n"
        counts += Counts(1, record.get("frames", 0), int("error" in record))
    return bytes(text), counts


def work_on(parts: Iterable[Part], model: Model, options: Options) -> tuple[bytes, Counts]:
    """The records of the lines, as JSON lines, and what they say."""
    recognizer = recognizer_of(model, options)
    return text_of(record for part in parts for record in records_of(part.lines(), recognizer))
