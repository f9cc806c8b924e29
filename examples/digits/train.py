#!/usr/bin/python3
"""Trains the recognizer of the digits example and writes model.bin.

Every batch is lines of digits of the training share, each digit distorted at random. Takes a few
minutes on one core; the seed is fixed.
"""

from __future__ import annotations

import argparse
import time
from collections.abc import Iterator
from pathlib import Path

import numpy as np
import torch
from torch import nn
from torch.nn import functional

import lines
from recognizer import BLANK, Recognizer, load, save
from scoring import label_error_rate

CELL_DIM = 48
DROPOUT = 0.3
SEED = 1
BATCHES = 4000
LINES_PER_BATCH = 64
MOST_DIGITS = 7
LEARNING_RATE = 4e-3
WEIGHT_DECAY = 1e-2

CANVAS_WIDTH = 12  # columns of a distorted digit, before its border is cut away
FAINTEST_INK = 0.04  # border columns fainter than this are cut away
CONTRAST = 0.15
NOISE = 0.06  # standard deviation


def distort(images: torch.Tensor, generator: torch.Generator) -> torch.Tensor:
    """Shifts, slants and scales images (count, 8, 8) on canvases (count, 8, 12), each by itself."""

    def uniform(limit: float) -> torch.Tensor:
        return (2 * torch.rand(len(images), generator=generator) - 1) * limit

    # Row by row, where in the image (-1 to 1) the point (x, y) of the canvas (-1 to 1) comes from.
    wide = CANVAS_WIDTH / lines.HEIGHT
    scale_x, scale_y = torch.exp(uniform(0.2)), torch.exp(uniform(0.12))
    x_from = torch.stack([wide * scale_x, uniform(0.35), uniform(0.12)], dim=1)
    y_from = torch.stack([wide * uniform(0.12), scale_y, uniform(0.15)], dim=1)
    grid = functional.affine_grid(
        torch.stack([x_from, y_from], dim=1),
        [len(images), 1, lines.HEIGHT, CANVAS_WIDTH],
        align_corners=False,
    )
    return functional.grid_sample(images[:, None], grid, align_corners=False)[:, 0]


class Batches:
    """Endless batches of lines of distorted digits."""

    def __init__(self, digits: lines.Digits, seed: int) -> None:
        self._images = torch.from_numpy(digits.images)
        self._digits = digits.digits
        self._rng = np.random.default_rng(seed)
        self._generator = torch.Generator().manual_seed(seed)
        self._indices = lines.shuffled_indices(len(digits.images), self._rng)

    def __iter__(self) -> Iterator[tuple[torch.Tensor, torch.Tensor]]:
        """Frames (frames, lines, 8) and class indices (lines, digits) of a batch.

        The lines of a batch have equally many digits and are padded with paper to one length.
        """
        while True:
            shape = (LINES_PER_BATCH, int(self._rng.integers(1, MOST_DIGITS + 1)))
            chosen = np.array([next(self._indices) for _ in range(shape[0] * shape[1])])
            images = self._distorted(chosen)
            starts = range(0, len(images), shape[1])
            made = [lines.join(images[start : start + shape[1]], self._rng) for start in starts]
            frames = np.stack([self._pad(line, max(map(len, made))) for line in made], axis=1)
            classes = self._digits[chosen].reshape(shape) + 1
            yield self._with_noise(torch.from_numpy(frames)), torch.from_numpy(classes)

    def _distorted(self, chosen: np.ndarray) -> list[np.ndarray]:
        """Distorted and trimmed images (8, columns) of the chosen digits."""
        images = distort(self._images[chosen], self._generator)
        contrast = 1 + CONTRAST * (2 * torch.rand(len(images), 1, 1, generator=self._generator) - 1)
        images = (images * contrast).clamp(max=1).numpy()
        return [lines.trim(image, FAINTEST_INK) for image in images]

    def _pad(self, line: np.ndarray, length: int) -> np.ndarray:
        """Pads a line (frames, 8): at its start, at its end or at both, each in a third of all."""
        missing = length - len(line)
        before = int(self._rng.choice([0, missing, self._rng.integers(missing + 1)]))
        return np.pad(line, ((before, missing - before), (0, 0)))

    def _with_noise(self, frames: torch.Tensor) -> torch.Tensor:
        """Noise changes the ink; paper stays clean."""
        noise = NOISE * torch.randn(frames.shape, generator=self._generator)
        return torch.where(frames > 0, frames + noise, frames).clamp(0, 1)


def train(digits: lines.Digits, batches: int) -> Recognizer:
    """Trains a new recognizer."""
    torch.manual_seed(SEED)
    model = Recognizer(CELL_DIM, DROPOUT)
    optimizer = torch.optim.AdamW(model.parameters(), weight_decay=WEIGHT_DECAY)
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimizer, LEARNING_RATE, batches, pct_start=0.1)
    start = time.monotonic()
    recent: list[float] = []
    for batch, (frames, classes) in zip(range(1, batches + 1), Batches(digits, SEED)):
        scores = model(frames)
        counts = [torch.full((len(classes),), size) for size in (len(frames), classes.shape[1])]
        loss = functional.ctc_loss(scores, classes, *counts, blank=BLANK)
        optimizer.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(model.parameters(), 1.0)
        optimizer.step()
        schedule.step()
        recent.append(loss.item())
        if batch % 250 == 0:
            seconds = time.monotonic() - start
            print(f"batch {batch}: loss {np.mean(recent):.4f}, {seconds:.0f} s", flush=True)
            recent.clear()
    return model


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--out", type=Path, default=Path(__file__).parent / "model.bin")
    parser.add_argument("--batches", type=int, default=BATCHES)
    options = parser.parse_args()

    torch.set_num_threads(1)
    training, held_out = lines.load_split()
    save(train(training, options.batches), options.out)

    # What is in the file counts: its LSTM parameters are rounded to binary16.
    model = load(options.out)
    for name, digits in (("training", training), ("held-out", held_out)):
        made = lines.make_lines(digits, [8] * 300, seed=0)
        found = [model.greedy(line.frames) for line in made]
        error = label_error_rate(found, [line.digits for line in made])
        print(f"label error rate on 300 lines of 8 {name} digits: {100 * error:.2f} %")


if __name__ == "__main__":
    main()
