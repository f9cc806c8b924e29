"""The recognizer of the digits example in PyTorch: two bidirectional LSTM layers and an affine layer.

It moves from and to the layers of a model file, so the file that the library runs is the only copy
of the parameters.
"""

from __future__ import annotations

import sys
from collections.abc import Sequence
from pathlib import Path

import numpy as np
import torch
from torch import nn

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

from handwriting_forward.model import (  # noqa: E402
    AffineTransform,
    Blstm,
    LogSoftmax,
    LstmDirection,
    Network,
    read_model,
    write_model,
)

FRAME_DIM = 8
BLANK = 0
CLASSES = 11  # the blank, then the digits: class k + 1 is digit k
LSTM_LAYERS = 2


class Recognizer(nn.Module):
    """Frames (count, 8) to log-probabilities of the classes, frame by frame."""

    def __init__(self, cell_dim: int, dropout: float = 0.0) -> None:
        super().__init__()
        self.lstm = nn.LSTM(
            FRAME_DIM, cell_dim, num_layers=LSTM_LAYERS, bidirectional=True, dropout=dropout
        )
        self.dropout = nn.Dropout(dropout)
        self.output = nn.Linear(2 * cell_dim, CLASSES)

    def forward(self, frames: torch.Tensor) -> torch.Tensor:
        """Log-probabilities (frames, lines, classes) for lines of one length (frames, lines, 8)."""
        hidden, _ = self.lstm(frames)
        return self.output(self.dropout(hidden)).log_softmax(dim=2)

    @torch.no_grad()
    def greedy(self, frames: np.ndarray) -> list[int]:
        """The digits of a line (frames, 8): the best class of every frame, then `collapse`."""
        self.eval()
        scores = self(torch.from_numpy(frames)[:, None])
        return collapse(scores[:, 0].argmax(dim=1).tolist())


def collapse(classes: Sequence[int]) -> list[int]:
    """The digits of a frame-by-frame path: repeats merged, blanks removed."""
    merged = [c for c, before in zip(classes, [BLANK, *classes]) if c != before]
    return [c - 1 for c in merged if c != BLANK]


def _lstm_parameters(lstm: nn.LSTM, layer: int, reverse: bool) -> dict[str, nn.Parameter]:
    """The parameters of one direction under their names in the model file."""
    suffix = f"l{layer}" + ("_reverse" if reverse else "")
    return {
        "input_weights": getattr(lstm, f"weight_ih_{suffix}"),
        "recurrent_weights": getattr(lstm, f"weight_hh_{suffix}"),
        "input_bias": getattr(lstm, f"bias_ih_{suffix}"),
        "recurrent_bias": getattr(lstm, f"bias_hh_{suffix}"),
    }


def _to_networks(model: Recognizer) -> list[Network]:
    """The two networks of the model file: the LSTM layers, and the output layer."""

    def direction(layer: int, reverse: bool) -> LstmDirection:
        parameters = _lstm_parameters(model.lstm, layer, reverse)
        return LstmDirection(**{k: v.detach().numpy() for k, v in parameters.items()})

    hidden_dim = model.output.in_features
    first: Network = []
    for layer in range(LSTM_LAYERS):
        input_dim = hidden_dim if layer > 0 else FRAME_DIM
        first.append(Blstm(input_dim, hidden_dim, direction(layer, False), direction(layer, True)))
    affine = AffineTransform(
        hidden_dim,
        CLASSES,
        bias=model.output.bias.detach().numpy(),
        weights=model.output.weight.detach().numpy(),
    )
    return [first, [affine, LogSoftmax(CLASSES, CLASSES)]]


@torch.no_grad()
def _from_networks(networks: Sequence[Network]) -> Recognizer:
    """The recognizer of the two networks of a model file."""
    first, (affine, _) = networks
    model = Recognizer(cell_dim=first[0].output_dim // 2)
    for layer, blstm in enumerate(first):
        for reverse, direction in ((False, blstm.forward), (True, blstm.backward)):
            for name, parameter in _lstm_parameters(model.lstm, layer, reverse).items():
                parameter.copy_(torch.from_numpy(getattr(direction, name)))
    model.output.weight.copy_(torch.from_numpy(affine.weights))
    model.output.bias.copy_(torch.from_numpy(affine.bias))
    return model


def save(model: Recognizer, path: str | Path) -> None:
    """Writes a model file, in which the LSTM parameters are rounded to binary16."""
    write_model(path, _to_networks(model))


def load(path: str | Path) -> Recognizer:
    """Reads a model file."""
    return _from_networks(read_model(path))
