#!/usr/bin/python3
"""Trains a recognizer of the digits example and writes its model file.

Every batch is lines of digits of the training share, each digit distorted at random. Takes a quarter
of an hour on one core at most; the seed is fixed. The label error rate that it prints at the end is
that of validation digits, which are never trained with. The held-out digits are not looked at.
"""

from __future__ import annotations

import argparse
import copy
import resource
from pathlib import Path

import numpy as np
import torch
from torch import nn
from torch.nn import functional

import lines
import models
from batches import Batches
from scoring import label_error_rate

SEED = 1
WEIGHT_DECAY = 1e-2  # of matrices; biases and normalisations have none
LARGEST_GRADIENT = 1.0
AVERAGING = 0.999  # share that the average keeps of itself at a step
WARM_UP = 0.1  # share of the batches in which the learning rate rises

VALIDATION_LINES = 1000
DIGITS_PER_LINE = 8


class Average:
    """The exponential average of a model over its training, which reads better than its last state."""

    def __init__(self, model: nn.Module) -> None:
        self.model = copy.deepcopy(model)
        self._steps = 0

    @torch.no_grad()
    def update(self, model: nn.Module) -> None:
        self._steps += 1
        keep = min(AVERAGING, (1 + self._steps) / (10 + self._steps))
        for mean, value in zip(self.model.state_dict().values(), model.state_dict().values()):
            if mean.is_floating_point():
                mean.lerp_(value, 1 - keep)
            else:
                mean.copy_(value)


def make_optimizer(model: nn.Module, learning_rate: float) -> torch.optim.Optimizer:
    matrices = [each for each in model.parameters() if each.dim() > 1]
    vectors = [each for each in model.parameters() if each.dim() == 1]
    groups = [
        {"params": matrices, "weight_decay": WEIGHT_DECAY},
        {"params": vectors, "weight_decay": 0.0},
    ]
    return torch.optim.AdamW(groups, lr=learning_rate)


def loss_of(model: nn.ModuleList, frames: torch.Tensor, classes: torch.Tensor) -> torch.Tensor:
    """The CTC loss of a batch."""
    scores = models.forward(model, frames).transpose(0, 1)
    counts = [torch.full((len(classes),), size) for size in (len(scores), classes.shape[1])]
    return functional.ctc_loss(scores, classes, *counts, blank=models.BLANK)


def train(name: str, digits: lines.Digits, batches: int) -> nn.ModuleList:
    """Trains a new recognizer; gives the average of its parameters."""
    torch.manual_seed(SEED)
    model = models.build(name)
    average = Average(model)
    learning_rate = models.SETTINGS[name].learning_rate
    optimizer = make_optimizer(model, learning_rate)
    schedule = torch.optim.lr_scheduler.OneCycleLR(
        optimizer, learning_rate, batches, pct_start=WARM_UP
    )
    recent: list[float] = []
    for batch, (frames, classes) in zip(range(1, batches + 1), Batches(digits, SEED)):
        loss = loss_of(model, frames, classes)
        optimizer.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(model.parameters(), LARGEST_GRADIENT)
        optimizer.step()
        schedule.step()
        average.update(model)
        recent.append(loss.item())
        if batch % 250 == 0:
            minutes = user_seconds() / 60
            print(f"batch {batch}: loss {np.mean(recent):.4f}, {minutes:.1f} min", flush=True)
            recent.clear()
    return average.model


def user_seconds() -> float:
    return resource.getrusage(resource.RUSAGE_SELF).ru_utime


def validation_lines() -> list[lines.Line]:
    lengths = [DIGITS_PER_LINE] * VALIDATION_LINES
    return lines.make_lines(lines.load_training()[1], lengths, seed=0)


def validation_error(model: nn.ModuleList) -> float:
    """The label error rate of best paths on lines of validation digits."""
    made = validation_lines()
    found = [models.best_path(model, line.frames) for line in made]
    return label_error_rate(found, [line.digits for line in made])


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--model", choices=models.SETTINGS, default=models.CHOSEN, help="default: %(default)s"
    )
    parser.add_argument("--out", type=Path, help="model file (default: models/MODEL.bin)")
    parser.add_argument("--batches", type=int, help="default: that of the model")
    options = parser.parse_args()
    out = options.out or models.FOLDER / f"{options.model}.bin"

    torch.set_num_threads(1)
    batches = options.batches or models.SETTINGS[options.model].batches
    trained = train(options.model, lines.load_training()[0], batches)
    print(f"trained in {user_seconds() / 60:.1f} minutes of user time")
    models.save(trained, out.with_suffix(".pt"))
    model = models.load(options.model, out.with_suffix(".pt"))  # what is in the file counts
    print(models.export(model, out, validation_lines()[0].frames))
    error = validation_error(model)
    print(
        f"label error rate of {options.model} on {VALIDATION_LINES} lines of {DIGITS_PER_LINE} "
        f"validation digits: {100 * error:.2f} %"
    )


if __name__ == "__main__":
    main()
