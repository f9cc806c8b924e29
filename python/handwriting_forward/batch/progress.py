"""A line in the terminal that says how far a batch is, and what it says at its end."""

from __future__ import annotations

import sys
import time
from collections import defaultdict

from .job import Counts

_BETWEEN = 0.2  # seconds between two pictures of the line
_BAR = 30  # characters


class Progress:
    """What has been done in this run, by whom, of how many lines."""

    def __init__(self, lines: int, done: int) -> None:
        self._lines = lines
        self._done = done
        self._begin = time.monotonic()
        self._start = 0.0
        self._drawn = 0.0
        self._by_worker: dict[str, tuple[Counts, float]] = defaultdict(lambda: (Counts(), 0.0))
        self._is_shown = sys.stderr.isatty()

    def start(self) -> None:
        """The workers are there: what took until now is told apart."""
        now = time.monotonic()
        self._start, self._begin = now - self._begin, now

    def add(self, counts: Counts, worker: str, seconds: float) -> None:
        """A shard has been done."""
        before, spent = self._by_worker[worker]
        self._by_worker[worker] = (before + counts, spent + seconds)
        now = time.monotonic()
        if self._is_shown and now - self._drawn >= _BETWEEN:
            self._drawn = now
            self._draw(now)

    def _draw(self, now: float) -> None:
        here = sum((each for each, _ in self._by_worker.values()), Counts())
        share = (self._done + here.lines) / max(self._lines, 1)
        spent = now - self._begin
        left = spent * (self._lines - self._done - here.lines) / max(here.lines, 1)
        bar = "#" * int(_BAR * share)
        print(
            f"\r[{bar:{_BAR}}] {self._done + here.lines} of {self._lines} lines, "
            f"{here.frames / max(spent, 1e-9):.0f} frames/s, {left:.0f} s left\x1b[K",
            end="", file=sys.stderr, flush=True,
        )  # fmt: skip

    def close(self) -> None:
        """Takes the line away."""
        if self._is_shown:
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)

    def summary(self) -> str:
        """Lines, frames a second and failures, by worker and together."""
        spent = time.monotonic() - self._begin
        total = sum((each for each, _ in self._by_worker.values()), Counts())
        rows = [
            f"{worker or 'lost':28} {_text_of(counts, seconds)}"
            for worker, (counts, seconds) in sorted(self._by_worker.items())
        ]
        start = f"{'start of the workers':28} {self._start:44.1f} s"
        return "\n".join([*rows, f"{'together':28} {_text_of(total, spent)}", start])


def _text_of(counts: Counts, seconds: float) -> str:
    speed = counts.frames / seconds if seconds > 0 else 0
    return (
        f"{counts.lines:9} lines {counts.frames:11} frames {seconds:9.1f} s {speed:9.0f} frames/s "
        f"{counts.errors:6} failed"
    )
