"""The label error rate: edit distances over the number of labels."""

from __future__ import annotations

from collections.abc import Iterable, Sequence


def edit_distance(found: Sequence[int], wanted: Sequence[int]) -> int:
    """The fewest insertions, deletions and substitutions that turn one sequence into the other."""
    row = list(range(len(wanted) + 1))
    for i, label in enumerate(found, start=1):
        diagonal, row[0] = row[0], i
        for j, other in enumerate(wanted, start=1):
            diagonal, row[j] = row[j], min(diagonal + (label != other), row[j] + 1, row[j - 1] + 1)
    return row[-1]


def label_error_rate(found: Iterable[Sequence[int]], wanted: Iterable[Sequence[int]]) -> float:
    """Errors of all lines over labels of all lines."""
    wanted = list(wanted)
    errors = sum(edit_distance(f, w) for f, w in zip(found, wanted, strict=True))
    return errors / sum(map(len, wanted))
