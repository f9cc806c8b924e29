"""What a recognizer finds."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, Optional


@dataclass(frozen=True)
class Alternative:
    """A label sequence in detail.

    labels: class indices, the blank (class 0) left out.
    text: the labels' names, joined; None where the recognizer has none.
    score: the natural logarithm by which sequences are ordered; higher is better.
    confidence: the exact CTC probability of the sequence over all frames, 0 to 1, whatever the beam;
        None where the second network's rows are not log probabilities.
    spans: for each label the frames [start, end) of its run on the best path; CTC peaks, not extents.
    label_confidences: for each label its mean posterior over its span; None as `confidence`.
    """

    labels: tuple[int, ...]
    text: Optional[str]
    score: float
    confidence: Optional[float]
    spans: tuple[tuple[int, int], ...]
    label_confidences: Optional[tuple[float, ...]]

    def to_dict(self) -> dict[str, Any]:
        """As `handwriting recognize --json --detail` prints it."""
        record: dict[str, Any] = {"labels": list(self.labels)}
        if self.text is not None:
            record["text"] = self.text
        record["score"] = _finite_or_none(self.score)
        record["confidence"] = _finite_or_none(self.confidence)
        record["spans"] = [list(span) for span in self.spans]
        record["label_confidences"] = (
            None
            if self.label_confidences is None
            else [_finite_or_none(each) for each in self.label_confidences]
        )
        return record


@dataclass(frozen=True)
class Result:
    """Label sequences, best first.

    sequences: class indices of each sequence.
    texts: the same by the names of labels; None where the recognizer has none.
    frames: rows of the input.
    alternatives: the same sequences in detail; None where details were not asked for.
    """

    sequences: tuple[tuple[int, ...], ...]
    texts: Optional[tuple[str, ...]]
    frames: int
    alternatives: Optional[tuple[Alternative, ...]] = None

    @property
    def labels(self) -> tuple[int, ...]:
        """The best sequence; empty where there is none."""
        return self.sequences[0] if self.sequences else ()

    @property
    def text(self) -> Optional[str]:
        """The best sequence by the names of labels."""
        if self.texts is None:
            return None
        return self.texts[0] if self.texts else ""

    @property
    def best(self) -> Optional[Alternative]:
        """The best sequence in detail."""
        return self.alternatives[0] if self.alternatives else None

    def to_dict(self) -> dict[str, Any]:
        """The record of `handwriting recognize --json`, with details that of `--detail`, less the
        name of the file."""
        record: dict[str, Any] = {"sequences": [list(each) for each in self.sequences]}
        if self.texts is not None:
            record["text"] = list(self.texts)
        if self.alternatives is not None:
            record["frames"] = self.frames
            record["alternatives"] = [each.to_dict() for each in self.alternatives]
        return record


def text_of(labels: Sequence[int], names: Sequence[str]) -> str:
    """The names of a sequence, joined."""
    return "".join(names[label] for label in labels)


def _finite_or_none(value: Optional[float]) -> Optional[float]:
    return value if value is not None and math.isfinite(value) else None
