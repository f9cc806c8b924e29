#!/usr/bin/python3
"""Digits as strokes, drawn for this example, and lines of them as one writes them on the page.

As a command, writes the lines that the page offers, page/samples.json. With --compare, draws lines
of several hands (fixed seed) instead and prints how well the model reads them when every digit is
brought to one size, as the page does it, and when a line is, for some widths of the pen.
"""

from __future__ import annotations

import argparse
import json
import math
import random
import subprocess
import sys
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np

import scoring
import strokes

HERE = Path(__file__).resolve().parent

# For each digit some ways to write it: strokes of points (x, y) in a box of height 1, y downwards,
# joined by straight lines ("line") or by a curve through them ("curve").
SHAPES: dict[str, list[list[tuple[str, list[tuple[float, float]]]]]] = {
    "0": [
        [("curve", [(0.30, 0.02), (0.12, 0.12), (0.03, 0.40), (0.05, 0.70), (0.20, 0.95), (0.40, 0.96),
                    (0.55, 0.75), (0.58, 0.42), (0.48, 0.12), (0.30, 0.02)])],
        [("curve", [(0.40, 0.00), (0.15, 0.10), (0.00, 0.45), (0.08, 0.85), (0.30, 1.00), (0.52, 0.85),
                    (0.62, 0.50), (0.50, 0.12), (0.34, 0.02)])],
    ],
    "1": [
        [("line", [(0.05, 0.22), (0.25, 0.00), (0.25, 1.00)])],
        [("line", [(0.10, 0.00), (0.10, 1.00)])],
        [("line", [(0.05, 0.20), (0.25, 0.00), (0.25, 1.00)]), ("line", [(0.05, 1.00), (0.45, 1.00)])],
        [("line", [(0.30, 0.00), (0.10, 1.00)])],
    ],
    "2": [
        [("curve", [(0.05, 0.22), (0.15, 0.05), (0.35, 0.00), (0.52, 0.12), (0.52, 0.32), (0.38, 0.55),
                    (0.18, 0.80), (0.02, 1.00)]),
         ("line", [(0.02, 1.00), (0.60, 0.98)])],
        [("curve", [(0.04, 0.20), (0.20, 0.02), (0.42, 0.03), (0.52, 0.20), (0.45, 0.45), (0.25, 0.75),
                    (0.05, 0.95), (0.04, 0.99), (0.30, 0.97), (0.60, 1.00)])],
    ],
    "3": [
        [("curve", [(0.04, 0.12), (0.22, 0.00), (0.45, 0.05), (0.50, 0.22), (0.40, 0.40), (0.22, 0.47),
                    (0.42, 0.52), (0.56, 0.70), (0.46, 0.92), (0.22, 1.00), (0.02, 0.90)])],
        [("curve", [(0.05, 0.10), (0.28, 0.00), (0.50, 0.12), (0.44, 0.36), (0.24, 0.46)]),
         ("curve", [(0.24, 0.46), (0.52, 0.56), (0.56, 0.82), (0.30, 1.00), (0.02, 0.88)])],
    ],
    "4": [
        [("line", [(0.22, 0.00), (0.02, 0.60), (0.62, 0.60)]), ("line", [(0.45, 0.25), (0.42, 1.00)])],
        [("line", [(0.45, 0.00), (0.00, 0.65), (0.62, 0.65)]), ("line", [(0.45, 0.00), (0.45, 1.00)])],
        [("curve", [(0.08, 0.00), (0.04, 0.30), (0.10, 0.48), (0.30, 0.50), (0.55, 0.45)]),
         ("line", [(0.52, 0.00), (0.50, 1.00)])],
    ],
    "5": [
        [("line", [(0.12, 0.00), (0.08, 0.42)]),
         ("curve", [(0.08, 0.42), (0.30, 0.36), (0.52, 0.50), (0.54, 0.78), (0.36, 0.98), (0.12, 0.98),
                    (0.00, 0.90)]),
         ("line", [(0.12, 0.00), (0.55, 0.00)])],
        [("curve", [(0.52, 0.02), (0.14, 0.00), (0.08, 0.42), (0.30, 0.38), (0.52, 0.52), (0.52, 0.82),
                    (0.30, 1.00), (0.00, 0.92)])],
    ],
    "6": [
        [("curve", [(0.42, 0.00), (0.20, 0.20), (0.05, 0.52), (0.06, 0.82), (0.24, 1.00), (0.46, 0.93),
                    (0.52, 0.72), (0.38, 0.55), (0.18, 0.58), (0.06, 0.75)])],
        [("curve", [(0.50, 0.03), (0.25, 0.10), (0.05, 0.45), (0.03, 0.75), (0.20, 0.98), (0.45, 0.95),
                    (0.54, 0.75), (0.40, 0.56), (0.20, 0.60), (0.05, 0.78)])],
    ],
    "7": [
        [("line", [(0.00, 0.02), (0.55, 0.00), (0.22, 1.00)])],
        [("line", [(0.00, 0.02), (0.55, 0.00), (0.22, 1.00)]), ("line", [(0.12, 0.50), (0.55, 0.48)])],
        [("curve", [(0.00, 0.10), (0.02, 0.00), (0.30, 0.03), (0.56, 0.00), (0.40, 0.35), (0.25, 0.65),
                    (0.20, 1.00)])],
    ],
    "8": [
        [("curve", [(0.48, 0.14), (0.28, 0.00), (0.08, 0.12), (0.12, 0.34), (0.32, 0.48), (0.52, 0.66),
                    (0.50, 0.90), (0.28, 1.00), (0.05, 0.88), (0.08, 0.66), (0.30, 0.47), (0.48, 0.30),
                    (0.48, 0.14)])],
        [("curve", [(0.30, 0.00), (0.10, 0.10), (0.12, 0.35), (0.30, 0.47), (0.48, 0.34), (0.50, 0.10),
                    (0.30, 0.00)]),
         ("curve", [(0.30, 0.47), (0.06, 0.62), (0.06, 0.90), (0.30, 1.00), (0.54, 0.90), (0.54, 0.62),
                    (0.30, 0.47)])],
    ],
    "9": [
        [("curve", [(0.50, 0.18), (0.32, 0.02), (0.10, 0.10), (0.06, 0.32), (0.20, 0.47), (0.40, 0.42),
                    (0.50, 0.18), (0.52, 0.40), (0.50, 0.70), (0.46, 1.00)])],
        [("curve", [(0.52, 0.15), (0.34, 0.00), (0.08, 0.12), (0.08, 0.36), (0.28, 0.46), (0.48, 0.34),
                    (0.52, 0.15), (0.50, 0.50), (0.38, 0.85), (0.12, 1.00)])],
    ],
}
STEPS = 8  # lines from one point of a shape to the next

SAMPLES = ("0123456789", "407", "1984", "365", "52")
SAMPLE_HEIGHT, SAMPLE_ROOM, SAMPLE_LEFT, SAMPLE_TOP = 56, 12, 16, 32  # CSS pixels

COMPARED = 400  # lines, half of them single digits, the others of 2 to 8
SEED = 5

Point = tuple[float, float]


@dataclass(frozen=True)
class Hand:
    """How a digit is written: its height in pixels and what is done to its shape before."""

    height: float
    width: float = 1.0  # factor
    slant: float = 0.0  # to the right, of the height
    wave: tuple[float, ...] = (0.0, 0.0, 0.0, 0.0)  # two amplitudes and two phases
    apart: float = 0.0  # how far later strokes of a 4 or a 5 miss the first


def path(kind: str, points: Sequence[Point]) -> list[Point]:
    """Points along straight lines, or along a Catmull-Rom curve, through the given ones."""
    ends = [points[0], *points, points[-1]]
    found = []
    for a, b, c, d in zip(ends, ends[1:], ends[2:], ends[3:]):
        for t in (step / STEPS for step in range(STEPS)):
            if kind == "line":
                found.append(tuple(p + (q - p) * t for p, q in zip(b, c)))
            else:
                found.append(tuple(
                    (2 * q + (r - p) * t + (2 * p - 5 * q + 4 * r - s) * t * t
                     + (3 * q - p - 3 * r + s) * t ** 3) / 2
                    for p, q, r, s in zip(a, b, c, d)
                ))
    return [*found, points[-1]]


def digit(name: str, hand: Hand, shape: int = 0) -> list[list[Point]]:
    """The strokes of a digit, its left edge at 0."""
    first, second, early, late = hand.wave

    def placed(point: Point, miss: float) -> Point:
        x = point[0] + miss + first * math.sin(5 * point[1] + early)
        y = point[1] - miss + second * math.sin(6 * point[0] + late)
        return (x * hand.width - hand.slant * (y - 0.5)) * hand.height, y * hand.height

    drawn = [
        [placed(point, hand.apart if index > 0 and name in "45" else 0) for point in path(*stroke)]
        for index, stroke in enumerate(SHAPES[name][shape])
    ]
    left = strokes.box_of(drawn).left
    return [[(x - left, y) for x, y in stroke] for stroke in drawn]


def line(text: str) -> list[list[Point]]:
    """A clean line, in points of whole and half pixels, as wide as a phone's screen takes."""
    drawn = []
    left = SAMPLE_LEFT
    for name in text:
        made = digit(name, Hand(SAMPLE_HEIGHT * (1 if len(text) > 6 else 1.6)))
        drawn += [
            [(round((x + left) * 2) / 2, round((y + SAMPLE_TOP) * 2) / 2) for x, y in stroke]
            for stroke in made
        ]
        left += strokes.box_of(made).right + SAMPLE_ROOM + strokes.PEN
    return drawn


def write_samples(file: Path) -> None:
    made = (json.dumps({"text": text, "strokes": line(text)}, separators=(",", ":"))
            for text in SAMPLES)
    file.write_text('{"samples": [\n' + ",\n".join(made) + "\n]}\n")


def line_of_a_hand(text: str, rng: random.Random) -> list[list[Point]]:
    drawn = []
    left = 0.0
    for name in text:
        wave = (rng.gauss(0, 0.012), rng.gauss(0, 0.012), rng.uniform(0, 6), rng.uniform(0, 6))
        hand = Hand(rng.uniform(85, 130), rng.uniform(0.8, 1.35), rng.gauss(0, 0.12), wave,
                    rng.uniform(0, 0.1))
        made = digit(name, hand, rng.randrange(len(SHAPES[name])))
        top = rng.uniform(-10, 10)
        drawn += [[(x + left, y + top) for x, y in stroke] for stroke in made]
        left += strokes.box_of(made).right + rng.uniform(12, 40)
    return drawn


def prepare_line(drawn: list[list[Point]], pen: float) -> np.ndarray:
    """The frames of a drawing of which the whole line is brought to one height."""
    box = strokes.box_of(drawn)
    scale = (strokes.BOX - pen) / max(box.bottom - box.top, strokes.PEN)
    blocks = math.ceil(((box.right - box.left) * scale + pen) / strokes.BLOCK)
    pixels = np.zeros((strokes.BOX, blocks * strokes.BLOCK))
    for stroke in drawn:
        placed = [((x - box.left) * scale + pen / 2, (y - box.top) * scale + pen / 2)
                  for x, y in stroke]
        for a, b in strokes.lines_of(placed):
            strokes.draw_line(pixels, a, b, pen)
    columns: list[np.ndarray] = []
    for column in pixels.reshape(strokes.ROWS, strokes.BLOCK, blocks, strokes.BLOCK).mean((1, 3)).T:
        before = columns[-strokes.MOST_GAP:]
        if column.any() or len(before) < strokes.MOST_GAP or np.any(before):
            columns.append(column)
    return np.array(columns, np.float32)


def read(tool: Path, inputs: list[np.ndarray]) -> list[str]:
    with tempfile.TemporaryDirectory() as folder:
        files = [Path(folder) / f"{number}.npy" for number in range(len(inputs))]
        for file, frames in zip(files, inputs):
            np.save(file, frames)
        command = [tool, "recognize", HERE / "model.bin", "-", "--json", "--labels",
                   HERE / "labels.txt"]
        done = subprocess.run(command, input="\n".join(map(str, files)), stdout=subprocess.PIPE,
                              text=True, check=True)
    return [json.loads(answer)["text"][0] for answer in done.stdout.splitlines()]


def compare(tool: Path) -> None:
    rng = random.Random(SEED)
    lengths = [1 if number < COMPARED // 2 else rng.randint(2, 8) for number in range(COMPARED)]
    texts = ["".join(rng.choices("0123456789", k=length)) for length in lengths]
    drawn = [line_of_a_hand(text, rng) for text in texts]
    print("| brought to one size | pen | error, single digits | error, lines |\n| --- | --- | --- | --- |")
    for way, prepare, pens in (("each digit", strokes.prepare, (4, 5, 6, 7)),
                               ("the line", prepare_line, (6,))):
        for pen in pens:
            got = read(tool, [prepare(each, pen) for each in drawn])
            half = COMPARED // 2
            errors = [scoring.label_error_rate(got[part], texts[part])
                      for part in (slice(half), slice(half, None))]
            print(f"| {way} | {pen} of 32 | {errors[0]:.1%} | {errors[1]:.1%} |")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--compare", action="store_true", help="print the table instead")
    parser.add_argument("--tool", type=Path, default=HERE.parents[1] / "build/release/handwriting",
                        help="the command-line tool (default: %(default)s)")
    given = parser.parse_args()
    if not given.compare:
        write_samples(HERE / "page/samples.json")
        return 0
    try:
        compare(given.tool)
    except (OSError, subprocess.CalledProcessError) as error:
        print(f"drawn.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
