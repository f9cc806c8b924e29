"""Endless batches of lines of distorted digits to train with."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import torch
from torch.nn import functional

import lines

LINES_PER_BATCH = 64
MOST_DIGITS = 7

CANVAS_WIDTH = 12  # columns of a distorted digit, before its border is cut away
FAINTEST_INK = 0.04  # border columns fainter than this are cut away
CONTRAST = 0.15
THICKNESS = 0.4  # largest logarithm of the power to which ink is raised
BEND = 0.07  # standard deviation of the displacement of a bending point; the image is 2 wide
BENDING_POINTS = (3, 4)  # rows and columns
NOISE = 0.06  # standard deviation


def uniform(generator: torch.Generator, limit: float, *shape: int) -> torch.Tensor:
    """Random numbers between -limit and limit."""
    return (2 * torch.rand(*shape, generator=generator) - 1) * limit


def affine_grid(count: int, generator: torch.Generator) -> torch.Tensor:
    """Where in the image (-1 to 1) the points of the canvas come from: shifted, slanted, scaled."""

    def random(limit: float) -> torch.Tensor:
        return uniform(generator, limit, count)

    # Row by row, from the point (x, y) of the canvas (-1 to 1).
    wide = CANVAS_WIDTH / lines.HEIGHT
    scale_x, scale_y = torch.exp(random(0.2)), torch.exp(random(0.12))
    x_from = torch.stack([wide * scale_x, random(0.35), random(0.12)], dim=1)
    y_from = torch.stack([wide * random(0.12), scale_y, random(0.15)], dim=1)
    size = [count, 1, lines.HEIGHT, CANVAS_WIDTH]
    return functional.affine_grid(torch.stack([x_from, y_from], dim=1), size, align_corners=False)


def bends(count: int, generator: torch.Generator) -> torch.Tensor:
    """Smooth random displacements of the points of the canvas."""
    points = BEND * torch.randn(count, 2, *BENDING_POINTS, generator=generator)
    size = (lines.HEIGHT, CANVAS_WIDTH)
    smooth = functional.interpolate(points, size, mode="bicubic", align_corners=True)
    return smooth.permute(0, 2, 3, 1)


def distort(images: torch.Tensor, generator: torch.Generator) -> torch.Tensor:
    """Images (count, 8, 8) on canvases (count, 8, 12): each shifted, slanted, scaled and bent, its
    strokes made thicker or thinner and its ink darker or paler."""
    count = len(images)
    grid = affine_grid(count, generator) + bends(count, generator)
    found = functional.grid_sample(images[:, None], grid, align_corners=False)[:, 0]
    found = found ** torch.exp(uniform(generator, THICKNESS, count, 1, 1))
    return (found * (1 + uniform(generator, CONTRAST, count, 1, 1))).clamp(max=1)


class Batches:
    """Endless batches of lines of distorted digits."""

    def __init__(self, digits: lines.Digits, seed: int) -> None:
        self._images = torch.from_numpy(digits.images)
        self._digits = digits.digits
        self._rng = np.random.default_rng(seed)
        self._generator = torch.Generator().manual_seed(seed)
        self._indices = lines.shuffled_indices(len(digits.images), self._rng)

    def __iter__(self) -> Iterator[tuple[torch.Tensor, torch.Tensor]]:
        """Frames (lines, frames, 8) and class indices (lines, digits) of a batch.

        The lines of a batch have equally many digits and are padded with paper to one length.
        """
        while True:
            shape = (LINES_PER_BATCH, int(self._rng.integers(1, MOST_DIGITS + 1)))
            chosen = np.array([next(self._indices) for _ in range(shape[0] * shape[1])])
            images = self._distorted(chosen)
            starts = range(0, len(images), shape[1])
            made = [lines.join(images[start : start + shape[1]], self._rng) for start in starts]
            frames = np.stack([self._pad(line, max(map(len, made))) for line in made])
            classes = self._digits[chosen].reshape(shape) + 1
            yield self._with_noise(torch.from_numpy(frames)), torch.from_numpy(classes)

    def _distorted(self, chosen: np.ndarray) -> list[np.ndarray]:
        """Distorted and trimmed images (8, columns) of the chosen digits."""
        images = distort(self._images[chosen], self._generator).numpy()
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
