"""The recognizers of the digits example in PyTorch: four families, each two networks.

The first network takes a whole line, frames of 8 floats; the second turns every frame of the first
into log-probabilities of the classes by itself. Both take and give lines x frames x values, and as
many frames come out as go in.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import torch
from torch import nn

import package  # noqa: F401
from handwriting_forward import torch as exporter
from handwriting_forward.torch import Fsmn, PositionalEncoding, Report

FRAME_DIM = 8
BLANK = 0
CLASSES = 11  # the blank, then the digits: class k + 1 is digit k

FOLDER = Path(__file__).resolve().parent / "models"


class BlstmReader(nn.Module):
    """Two bidirectional LSTM layers."""

    output_dim = 96

    def __init__(self) -> None:
        super().__init__()
        self.lstm = nn.LSTM(
            FRAME_DIM, 48, num_layers=2, bidirectional=True, dropout=0.3, batch_first=True
        )
        self.dropout = nn.Dropout(0.3)

    def forward(self, frames: torch.Tensor) -> torch.Tensor:
        hidden, _ = self.lstm(frames)
        return self.dropout(hidden)


class Convolutions(nn.Sequential):
    """Convolutions along the frames, each with batch norm and ReLU, from channels to channels."""

    def __init__(self, dims: Sequence[int], kernel_size: int = 3) -> None:
        layers: list[nn.Module] = []
        for before, after in zip(dims, dims[1:]):
            layers += [
                nn.Conv1d(before, after, kernel_size, padding=kernel_size // 2),
                nn.BatchNorm1d(after),
                nn.ReLU(),
            ]
        super().__init__(*layers)


class ConvGruReader(nn.Module):
    """Convolutions that see the shape of a stroke, then a bidirectional GRU."""

    output_dim = 112

    def __init__(self) -> None:
        super().__init__()
        self.convolutions = Convolutions([FRAME_DIM, 48, 48])
        self.between = nn.Dropout(0.2)
        self.gru = nn.GRU(48, self.output_dim // 2, bidirectional=True, batch_first=True)
        self.dropout = nn.Dropout(0.3)

    def forward(self, frames: torch.Tensor) -> torch.Tensor:
        seen = self.convolutions(frames.transpose(1, 2)).transpose(1, 2)
        hidden, _ = self.gru(self.between(seen))
        return self.dropout(hidden)


class TransformerReader(nn.Module):
    """A convolution, the position of every frame, and layers of attention."""

    output_dim = 48

    def __init__(self) -> None:
        super().__init__()
        self.convolutions = Convolutions([FRAME_DIM, 48, 48])
        self.position = PositionalEncoding(48)
        self.encoder = nn.Sequential(
            *(
                nn.TransformerEncoderLayer(
                    48, 4, 96, dropout=0.1, batch_first=True, norm_first=True
                )
                for _ in range(2)
            )
        )
        self.norm = nn.LayerNorm(48)

    def forward(self, frames: torch.Tensor) -> torch.Tensor:
        seen = self.convolutions(frames.transpose(1, 2)).transpose(1, 2)
        return self.norm(self.encoder(self.position(seen)))


class ColumnNorm(nn.BatchNorm1d):
    """Batch norm of lines x frames x values."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return super().forward(x.transpose(1, 2)).transpose(1, 2)


class FsmnReader(nn.Module):
    """Memory blocks between narrow and wide layers; nothing recurs."""

    output_dim = 96

    def __init__(self) -> None:
        super().__init__()
        wide, narrow = self.output_dim, 44
        layers: list[nn.Module] = [nn.Linear(FRAME_DIM, wide), ColumnNorm(wide), nn.ReLU()]
        for _ in range(5):
            layers += [
                nn.Linear(wide, narrow),
                Fsmn(narrow, 4, 4),
                nn.Linear(narrow, wide),
                ColumnNorm(wide),
                nn.ReLU(),
                nn.Dropout(0.1),
            ]
        self.layers = nn.Sequential(*layers)

    def forward(self, frames: torch.Tensor) -> torch.Tensor:
        return self.layers(frames)


@dataclass(frozen=True)
class Settings:
    """How a recognizer is made and trained."""

    reader: Callable[[], nn.Module]
    batches: int
    learning_rate: float


SETTINGS = {
    "blstm": Settings(BlstmReader, batches=7000, learning_rate=4e-3),
    "conv-gru": Settings(ConvGruReader, batches=10000, learning_rate=4e-3),
    "transformer": Settings(TransformerReader, batches=7000, learning_rate=2e-3),
    "fsmn": Settings(FsmnReader, batches=9000, learning_rate=4e-3),
}


CHOSEN = "conv-gru"  # the one with the lowest validation error, shipped as model.bin


def build(name: str) -> nn.ModuleList:
    """The two networks of a recognizer, with random parameters."""
    first = SETTINGS[name].reader()
    second = nn.Sequential(nn.Linear(first.output_dim, CLASSES), nn.LogSoftmax(dim=2))
    return nn.ModuleList([first, second])


def forward(networks: Sequence[nn.Module], frames: torch.Tensor) -> torch.Tensor:
    """Log-probabilities (lines, frames, classes) for frames (lines, frames, 8)."""
    for network in networks:
        frames = network(frames)
    return frames


def save(networks: nn.ModuleList, path: Path) -> None:
    """Writes a checkpoint. Its values are rounded to binary16, so that it is half the size and a
    model file made of it holds the same values, whatever the precision of its layers."""
    torch.save(
        {k: v.half() if v.is_floating_point() else v for k, v in networks.state_dict().items()}, path
    )


def load(name: str, path: Path | None = None) -> nn.ModuleList:
    """The recognizer of a checkpoint, the shipped one unless a path is given, ready to be run."""
    networks = build(name)
    networks.load_state_dict(torch.load(path or FOLDER / f"{name}.pt"))
    return networks.eval()


def shipped() -> list[nn.Module]:
    """The networks of the shipped model."""
    return list(load(CHOSEN))


def export(networks: nn.ModuleList, path: Path, frames: np.ndarray) -> Report:
    """Writes a model file of the library and its fixed-point form, checked against PyTorch on the
    frames of a line."""
    return exporter.export(path, networks, frames, check_fixed=True)


@torch.no_grad()
def best_path(networks: nn.ModuleList, frames: np.ndarray) -> list[int]:
    """The digits of a line (frames, 8): the best class of every frame, then `collapse`."""
    networks.eval()
    return collapse(forward(networks, torch.from_numpy(frames)[None])[0].argmax(dim=1).tolist())


def collapse(classes: Sequence[int]) -> list[int]:
    """The digits of a frame-by-frame path: repeats merged, blanks removed."""
    merged = [c for c, before in zip(classes, [BLANK, *classes]) if c != before]
    return [c - 1 for c in merged if c != BLANK]
