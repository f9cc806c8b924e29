"""From strokes to frames: what the page does with a drawing before it sends it (page/frames.js), to
the bit, for those who want to try or to test strokes without a browser.

A stroke is a sequence of points (x, y) in CSS pixels, y downwards; a single point is a dot. Strokes
that touch or stand above one another are one digit. The box of a digit is brought into the middle of
32 x 32 pixels, drawn with a pen 6 wide, and counted in blocks of 4 x 4; columns without ink are cut,
and 0 to 3 empty ones stand between two digits.
"""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from typing import NamedTuple

import numpy as np

Point = Sequence[float]
Stroke = Sequence[Point]

ROWS = 8  # values of a frame
PEN = 8  # width of the pen on the screen
BOX = 32  # pixels a side of the square that a digit is brought into
BLOCK = 4  # pixels a side that are counted together
BOX_PEN = 6  # width of the pen in that square
MOST_GAP = 3  # empty columns between two digits


class Box(NamedTuple):
    left: float
    top: float
    right: float
    bottom: float


def squared(a: Point, b: Point) -> float:
    return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1])


def squared_distance(point: Point, a: Point, b: Point) -> float:
    """The square of the distance from a point to the line from a to b."""
    dx = b[0] - a[0]
    dy = b[1] - a[1]
    length = dx * dx + dy * dy
    if length == 0:
        return squared(point, a)
    along = ((point[0] - a[0]) * dx + (point[1] - a[1]) * dy) / length
    t = min(max(along, 0), 1)
    return squared(point, (a[0] + t * dx, a[1] + t * dy))


def side(a: Point, b: Point, point: Point) -> float:
    """On which side of the line from a to b a point lies: the sign says it."""
    return (b[0] - a[0]) * (point[1] - a[1]) - (b[1] - a[1]) * (point[0] - a[0])


def cross(a: Point, b: Point, c: Point, d: Point) -> bool:
    return side(a, b, c) * side(a, b, d) < 0 and side(c, d, a) * side(c, d, b) < 0


def lines_touch(a: Point, b: Point, c: Point, d: Point) -> bool:
    for axis in (0, 1):
        if max(a[axis], b[axis]) + PEN < min(c[axis], d[axis]):
            return False
        if max(c[axis], d[axis]) + PEN < min(a[axis], b[axis]):
            return False
    nearest = min(
        squared_distance(a, c, d), squared_distance(b, c, d),
        squared_distance(c, a, b), squared_distance(d, a, b),
    )
    return cross(a, b, c, d) or nearest <= PEN * PEN


def lines_of(stroke: Stroke) -> Iterator[tuple[Point, Point]]:
    """The lines of a stroke; a dot is a line without length."""
    return zip(stroke, stroke[1:]) if len(stroke) > 1 else iter([(stroke[0], stroke[0])])


def box_of(strokes: Sequence[Stroke]) -> Box:
    x, y = zip(*(point for stroke in strokes for point in stroke))
    return Box(min(x), min(y), max(x), max(y))


def stacked(a: Box, b: Box) -> bool:
    """Whether one stroke stands above the other: they share half of the narrower one's width."""
    shared = min(a.right, b.right) - max(a.left, b.left) + PEN
    return shared >= (min(a.right - a.left, b.right - b.left) + PEN) / 2


def groups_of(strokes: Sequence[Stroke]) -> list[list[Stroke]]:
    """The strokes of each digit, digits from left to right."""
    drawn = [stroke for stroke in strokes if len(stroke) > 0]
    boxes = [box_of([stroke]) for stroke in drawn]
    group = list(range(len(drawn)))

    def touch(i: int, j: int) -> bool:
        return any(
            lines_touch(*first, *second)
            for first in lines_of(drawn[i]) for second in lines_of(drawn[j])
        )

    for i in range(len(drawn)):
        for j in range(i):
            if group[i] != group[j] and (stacked(boxes[i], boxes[j]) or touch(i, j)):
                old = group[i]
                group = [group[j] if each == old else each for each in group]
    found = [
        [stroke for stroke, number in zip(drawn, group) if number == each]
        for each in dict.fromkeys(group)
    ]
    return sorted(found, key=lambda strokes: box_of(strokes).left)


def draw_line(pixels: np.ndarray, a: Point, b: Point, pen: float) -> None:
    """Marks the pixels whose centre a pen of that width covers on its way from a to b."""
    radius = pen / 2

    def covered(axis: int) -> range:
        low, high = min(a[axis], b[axis]), max(a[axis], b[axis])
        end = min(pixels.shape[1 - axis], math.floor(high + radius) + 1)
        return range(max(0, math.floor(low - radius)), end)

    for y in covered(1):
        for x in covered(0):
            if squared_distance((x + 0.5, y + 0.5), a, b) <= radius * radius:
                pixels[y, x] = 1


def columns_of(group: Sequence[Stroke], pen: float) -> tuple[np.ndarray, Box, float]:
    """The columns of a digit that have ink (count, ROWS), its box and its scale."""
    box = box_of(group)
    width = box.right - box.left
    height = box.bottom - box.top
    scale = (BOX - pen) / max(width, height, PEN)
    x0 = (BOX - width * scale) / 2
    y0 = (BOX - height * scale) / 2
    pixels = np.zeros((BOX, BOX))
    for stroke in group:
        placed = [((x - box.left) * scale + x0, (y - box.top) * scale + y0) for x, y in stroke]
        for a, b in lines_of(placed):
            draw_line(pixels, a, b, pen)
    blocks = pixels.reshape(ROWS, BLOCK, BOX // BLOCK, BLOCK).mean(axis=(1, 3))
    columns = blocks.T
    return columns[columns.any(axis=1)], box, scale


def prepare(strokes: Sequence[Stroke], pen: float = BOX_PEN) -> np.ndarray:
    """The frames of a drawing (count, ROWS), float32."""
    columns: list[np.ndarray] = [np.zeros((0, ROWS))]
    ink_end = None
    for group in groups_of(strokes):
        inked, box, scale = columns_of(group, pen)
        if ink_end is None:
            ink_end = box.right
        else:
            room = math.floor((box.left - ink_end - PEN) * scale / BLOCK + 0.5)
            columns.append(np.zeros((min(max(room, 0), MOST_GAP), ROWS)))
            ink_end = max(ink_end, box.right)
        columns.append(inked)
    return np.concatenate(columns).astype(np.float32)
