#!/usr/bin/python3
"""Lines of real handwritten digits, made from the 8 x 8 images of the UCI data set "Optical
Recognition of Handwritten Digits" as scikit-learn carries them.

A line is digits side by side: the empty border columns of every digit are cut away, and 0 to 3 empty
columns lie between two digits. A frame is one column, from left to right: 8 floats from top to
bottom, 0 for paper and 1 for ink (the values 0 to 16 of the data set divided by 16).

As a command, writes the held-out lines that the example ships: lines/line-01.npy and so on, and
their digits in lines/truth.txt.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from sklearn.datasets import load_digits

HEIGHT = 8  # rows of a digit, floats of a frame
MAX_GAP = 3  # empty columns between two digits
TRAINING_SHARE = 0.7  # of the digits, in file order; the rest is held out
VALIDATION_SHARE = 0.2  # of the training digits, the last ones: they decide, nothing learns from them
INK = 16.0  # the largest value of the data set

SHIPPED_LINES = 20
SHIPPED_DIGITS = (4, 10)  # fewest and most digits of a shipped line
SHIPPED_SEED = 1


@dataclass(frozen=True)
class Digits:
    """Images (count, 8, 8) of values 0 to 1 and the digits (count,) that they show."""

    images: np.ndarray
    digits: np.ndarray


@dataclass(frozen=True)
class Line:
    """Frames (count, 8), float32 in C order, and the digits in them."""

    frames: np.ndarray
    digits: list[int]


def load_split() -> tuple[Digits, Digits]:
    """The digits to train and validate with and those held out."""
    data = load_digits()
    images = (data.images / INK).astype(np.float32)
    end = int(TRAINING_SHARE * len(images))
    return Digits(images[:end], data.target[:end]), Digits(images[end:], data.target[end:])


def load_training() -> tuple[Digits, Digits]:
    """The digits not held out: those to learn from and those to validate with."""
    digits, _ = load_split()
    end = int((1 - VALIDATION_SHARE) * len(digits.images))
    return (
        Digits(digits.images[:end], digits.digits[:end]),
        Digits(digits.images[end:], digits.digits[end:]),
    )


def trim(image: np.ndarray, threshold: float = 0.0) -> np.ndarray:
    """Cuts border columns without a value above the threshold from an image (rows, columns)."""
    inked = np.flatnonzero((image > threshold).any(axis=0))
    return image[:, inked[0] : inked[-1] + 1] if inked.size else image


def join(images: Sequence[np.ndarray], rng: np.random.Generator) -> np.ndarray:
    """The frames (count, 8) of trimmed images (8, columns) with random gaps between them."""
    columns: list[np.ndarray] = []
    for image in images:
        if columns:
            columns.append(np.zeros((rng.integers(MAX_GAP + 1), HEIGHT), np.float32))
        columns.append(image.T)
    return np.ascontiguousarray(np.concatenate(columns), np.float32)


def shuffled_indices(count: int, rng: np.random.Generator) -> Iterator[int]:
    """Endless indices below count; every one comes once before any comes again."""
    while True:
        yield from rng.permutation(count).tolist()


def make_lines(digits: Digits, lengths: Sequence[int], seed: int) -> list[Line]:
    """A line for every length, of unchanged digits."""
    rng = np.random.default_rng(seed)
    indices = shuffled_indices(len(digits.images), rng)
    lines = []
    for length in lengths:
        chosen = [next(indices) for _ in range(length)]
        frames = join([trim(digits.images[i]) for i in chosen], rng)
        lines.append(Line(frames, digits.digits[chosen].tolist()))
    return lines


def shipped_lines() -> list[Line]:
    """The held-out lines that lie beside the model."""
    fewest, most = SHIPPED_DIGITS
    lengths = np.random.default_rng(SHIPPED_SEED).integers(fewest, most + 1, SHIPPED_LINES)
    return make_lines(load_split()[1], lengths.tolist(), SHIPPED_SEED)


def main() -> None:
    folder = Path(__file__).parent / "lines"
    folder.mkdir(exist_ok=True)
    truth = ""
    for number, line in enumerate(shipped_lines(), start=1):
        name = f"line-{number:02}.npy"
        np.save(folder / name, line.frames)
        truth += f"{name}\t{''.join(map(str, line.digits))}\n"
    (folder / "truth.txt").write_text(truth)


if __name__ == "__main__":
    main()
