"""Each module that is mapped, over a table of shapes, beside PyTorch."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

torch = pytest.importorskip("torch")
from torch import nn  # noqa: E402
from torch.nn import functional  # noqa: E402

from handwriting_forward.model import read_model  # noqa: E402
from handwriting_forward.torch import Fsmn, PositionalEncoding, export  # noqa: E402


class Do(nn.Module):
    """A forward given as a function of the parts and the input."""

    def __init__(self, forward: Callable[..., Any], *parts: nn.Module) -> None:
        super().__init__()
        self.parts = nn.ModuleList(parts)
        self._forward = forward

    def forward(self, x: Any) -> Any:
        return self._forward(*self.parts, x)


class Turned(nn.Module):
    """Modules of channels x frames among those of frames x channels."""

    def __init__(self, *parts: nn.Module) -> None:
        super().__init__()
        self.parts = nn.Sequential(*parts)

    def forward(self, x: Any) -> Any:
        return self.parts(x.transpose(1, 2)).permute(0, 2, 1)


class Output(nn.Module):
    """The output of a recurrent module."""

    def __init__(self, module: nn.Module, batch_first: bool = True) -> None:
        super().__init__()
        self.module = module
        self.batch_first = batch_first

    def forward(self, x: Any) -> Any:
        if self.batch_first:
            y, _ = self.module(x)
            return y
        y, (h, c) = self.module(x.transpose(0, 1))
        return y.transpose(0, 1)


class Zeros(nn.Module):
    """Initial states made in forward."""

    def __init__(self) -> None:
        super().__init__()
        self.lstm = nn.LSTM(5, 6, num_layers=2, batch_first=True)
        self.gru = nn.GRU(6, 4, batch_first=True, bidirectional=True)

    def forward(self, x: Any) -> Any:
        b, t, d = x.shape
        h = torch.zeros(2, b, 6, device=x.device)
        x, (h, c) = self.lstm(x, (h, torch.zeros(2, b, 6)))
        return self.gru(x, x.new_zeros(2, b, 4))[0]


class Learned(nn.Module):
    """Sines and cosines kept as a buffer."""

    def __init__(self, dim: int) -> None:
        super().__init__()
        angles = torch.arange(200)[:, None] * 10000 ** (-torch.arange(0, dim, 2) / dim)
        self.register_buffer("pe", torch.stack([angles.sin(), angles.cos()], 2).flatten(1)[None])

    def forward(self, x: Any) -> Any:
        return x + self.pe[:, : x.size(1)]


class Inherited(nn.BatchNorm1d):
    """Batch norm of lines x frames x columns."""

    def forward(self, x: Any) -> Any:
        return super().forward(x.transpose(1, 2)).transpose(1, 2)


class Own(nn.Linear):
    """A subclass that keeps its forward."""


class Residual(nn.Module):
    """Skip connections around normalised convolutions, twice."""

    def __init__(self) -> None:
        super().__init__()
        self.blocks = nn.ModuleList(
            nn.Sequential(nn.Conv1d(5, 5, 3, padding=1), nn.BatchNorm1d(5), nn.ReLU(inplace=True))
            for _ in range(2)
        )

    def forward(self, x: Any) -> Any:
        h = x.transpose(1, 2)
        for block in self.blocks:
            h = h + block(h)
        return h.transpose(1, 2)


class Halves(nn.Module):
    """A skip connection around a stride, for even numbers of frames."""

    def __init__(self) -> None:
        super().__init__()
        self.down = nn.Conv1d(5, 6, 4, stride=2, padding=1)
        self.up = nn.ConvTranspose1d(6, 4, 4, stride=2, padding=1)

    def forward(self, x: Any) -> Any:
        x = x.transpose(1, 2)
        return torch.cat([x, self.up(self.down(x).relu())], 1).transpose(1, 2)


class Planes(nn.Module):
    """Columns halved and doubled plane by plane."""

    def __init__(self) -> None:
        super().__init__()
        self.down = nn.Conv2d(1, 3, (1, 3), (1, 2), (0, 1))
        self.norm = nn.BatchNorm2d(3)
        self.relu = nn.PReLU()
        self.up = nn.ConvTranspose2d(3, 2, (1, 3), (1, 2), (0, 1), (0, 1), bias=False)
        self.out = nn.Linear(24, 4)

    def forward(self, x: Any) -> Any:
        b, t, _ = x.shape
        h = functional.relu(self.up(self.relu(self.norm(self.down(x.unsqueeze(1))))))
        return self.out(h.permute(0, 2, 1, 3).reshape(b, t, -1))


def encoder(**options: Any) -> nn.TransformerEncoderLayer:
    options = {"norm_first": True, "batch_first": True} | options
    return nn.TransformerEncoderLayer(8, 2, 12, **options)


LAYERS: list[tuple[str, Callable[[], nn.Module], int]] = [
    ("AffineTransform", lambda: nn.Linear(5, 3), 5),
    ("AffineTransform", lambda: nn.Sequential(nn.Flatten(2), Own(5, 3)), 5),
    ("LinearTransform", lambda: nn.Linear(5, 3, bias=False), 5),
    ("ReLU", nn.ReLU, 5),
    ("Sigmoid", lambda: Do(lambda x: torch.sigmoid(x)), 5),
    ("PReLU", lambda: Do(lambda p, x: p(x - 0.5), nn.PReLU()), 5),
    ("PReLU", lambda: Do(lambda p, x: p(x - 0.5), nn.LeakyReLU(0.2)), 5),
    ("AddShift", lambda: Do(lambda x: torch.tanh(3 * x - 1)), 5),
    ("AddShift", lambda: nn.Sequential(nn.Linear(5, 4), nn.Hardtanh(-0.3, 0.2)), 5),
    ("AddShift", lambda: nn.Sequential(nn.Linear(5, 4), nn.ReLU6()), 5),
    ("AddShift", lambda: Do(lambda x: functional.hardsigmoid(8 * x - 4)), 5),
    ("ReLU", lambda: Do(lambda x: (x - 0.5).clamp(min=0)), 5),
    ("Softmax", lambda: nn.Softmax(2), 5),
    ("LogSoftmax", lambda: Do(lambda x: functional.log_softmax(x, dim=-1)), 5),
    ("Softmax", lambda: Turned(nn.Softmax(dim=1)), 5),
    ("AffineTransform", lambda: nn.Sequential(nn.Dropout(), nn.Linear(5, 3), nn.Identity()), 5),
    ("BatchNorm1d", lambda: Turned(nn.BatchNorm1d(5)), 5),
    ("BatchNorm1d", lambda: Turned(nn.ReLU(), nn.BatchNorm1d(5, affine=False)), 5),
    ("AffineTransform", lambda: nn.Sequential(nn.Linear(5, 4, bias=False), Inherited(4)), 5),
    ("Conv1d", lambda: Turned(nn.Conv1d(5, 4, 3), nn.BatchNorm1d(4)), 5),
    ("LayerNorm", lambda: nn.Sequential(nn.Linear(5, 7), nn.LayerNorm(7)), 5),
    ("LayerNorm", lambda: nn.LayerNorm(5, elementwise_affine=False), 5),
    ("Lstm", lambda: Output(nn.LSTM(5, 4, batch_first=True)), 5),
    ("Lstm", lambda: Output(nn.LSTM(5, 4, 2, bias=False), batch_first=False), 5),
    ("Blstm", lambda: Output(nn.LSTM(5, 4, 2, bidirectional=True, batch_first=True)), 5),
    (
        "LstmProjectedNnet3Streams",
        lambda: Output(nn.LSTM(5, 4, 2, proj_size=3, batch_first=True)),
        5,
    ),
    (
        "BlstmProjectedNnet3Streams",
        lambda: Output(nn.LSTM(5, 4, 2, proj_size=2, bidirectional=True, batch_first=True)),
        5,
    ),
    ("Gru", lambda: Output(nn.GRU(5, 4, 2, batch_first=True)), 5),
    ("BGru", lambda: Output(nn.GRU(5, 4, 2, bias=False, bidirectional=True, batch_first=True)), 5),
    ("BGru", Zeros, 5),
    ("Conv1d", lambda: Turned(nn.Conv1d(6, 9, 3, padding=1, groups=3)), 6),
    ("Conv1d", lambda: Turned(nn.Conv1d(6, 4, 4, stride=2, dilation=2, bias=False)), 6),
    ("Conv1d", lambda: Turned(nn.Conv1d(6, 4, 4, padding="same", dilation=2)), 6),
    ("Conv1d", lambda: Turned(nn.Conv1d(6, 4, 3, padding=2, padding_mode="reflect")), 6),
    ("Conv1d", lambda: Turned(nn.AvgPool1d(3, 2, 1)), 6),
    (
        "ConvTranspose1d",
        lambda: Turned(nn.ConvTranspose1d(6, 4, 4, 3, 1, output_padding=2, groups=2, dilation=2)),
        6,
    ),
    ("MaxPool1d", lambda: Turned(nn.MaxPool1d(3, 2, dilation=2)), 6),
    ("MaxPool1d", lambda: Turned(nn.Conv1d(6, 4, 1), nn.ReLU(), nn.MaxPool1d(3, 1, 1)), 6),
    ("FlattenComponent", lambda: Do(lambda p, x: p(x)[..., :3], Planes()), 12),
    ("Encoder", encoder, 8),
    ("Encoder", lambda: nn.TransformerEncoder(encoder(), 2, nn.LayerNorm(8)), 8),
    (
        "Encoder",
        lambda: Do(lambda e, x: e(x.transpose(0, 1)).transpose(0, 1), encoder(batch_first=False)),
        8,
    ),
    ("PositionalEncoding", lambda: PositionalEncoding(7), 7),
    ("PositionalEncoding", lambda: Learned(8), 8),
    ("Fsmn", lambda: Fsmn(5, 3, 2, stride=2), 5),
    ("Fsmn", lambda: nn.Sequential(nn.Linear(5, 4), Fsmn(4, 2, 0)), 5),
    ("ConcatenateComponent", Residual, 5),
    ("ConcatenateComponent", Halves, 5),
    (
        "ConcatenateComponent",
        lambda: Do(lambda p, q, x: torch.cat([x, p(x), q(x)], 2), nn.Linear(5, 3), nn.Linear(5, 2)),
        5,
    ),
    ("AddComponent", lambda: Do(lambda p, x: 2 * x - p(x) / 3, nn.Linear(5, 5)), 5),
    ("AddShift", lambda: Do(lambda x: 1 - x * torch.arange(5.0)), 5),
    ("Splice", lambda: Do(lambda x: x[:, 2:-1]), 5),
    ("MaxPool1d", lambda: Do(lambda x: x[:, ::2]), 5),
    ("SliceComponent", lambda: Do(lambda p, x: p(x[:, -1]), nn.Linear(5, 3)), 5),
    ("LinearTransform", lambda: Do(lambda x: torch.cat(x.chunk(2, -1)[::-1], -1)), 5),
    ("ReflectionPad", lambda: Turned(nn.ReflectionPad1d((2, 1))), 5),
    ("ConstantPad", lambda: Turned(nn.ConstantPad1d((2, 1), 0.5)), 5),
    ("ConstantPad", lambda: Do(lambda x: functional.pad(x, (0, 0, 3, 0), value=-1.0)), 5),
    (
        "AffineTransform",
        lambda: Do(lambda p, x: p(x.reshape(-1, 5)).view(x.size(0), -1, 3), nn.Linear(5, 3)),
        5,
    ),
]


# A logarithm of few bits; an epsilon that stands elsewhere.
COARSER = ("LogSoftmax", "LayerNorm", "Encoder")


def _settled(module: nn.Module) -> nn.Module:
    """Statistics as after training."""
    for each in module.modules():
        if isinstance(each, (nn.BatchNorm1d, nn.BatchNorm2d)):
            for values in (each.running_mean, each.running_var, each.weight, each.bias):
                if values is not None:
                    nn.init.uniform_(values, 0.5, 1.5)
    return module


@pytest.mark.parametrize(
    ("marker", "make", "dim"), LAYERS, ids=[f"{i}-{each[0]}" for i, each in enumerate(LAYERS)]
)
def test_gives_what_pytorch_gives(marker: str, make: Any, dim: int, tmp_path: Path) -> None:
    torch.manual_seed(3)
    module = _settled(make())
    report = export(tmp_path / "model.bin", [module], input_dim=dim)
    layers = read_model(report.path)[0]
    assert marker in [type(layer).__name__ for layer in layers]
    assert module.training
    bound = 1e-3 if marker in COARSER else 2e-5
    assert report.networks[0].deviation < bound * max(1, report.networks[0].largest)


STREAMS: list[Callable[[], nn.Module]] = [
    lambda: Turned(nn.Conv1d(5, 5, 3, padding=1), nn.BatchNorm1d(5), nn.ReLU(), nn.MaxPool1d(2)),
    lambda: Turned(nn.ConvTranspose1d(5, 4, 4, 2, 1)),
    lambda: Turned(nn.ReflectionPad1d((2, 1)), nn.ConstantPad1d(1, 0.5), nn.Conv1d(5, 4, 5)),
    lambda: nn.Sequential(Fsmn(5, 3, 2), Output(nn.GRU(5, 4, batch_first=True))),
    lambda: Do(lambda x: x[:, 3:]),
    Residual,
]


@pytest.mark.parametrize("make", STREAMS)
def test_streams_in_chunks(make: Any, tmp_path: Path) -> None:
    torch.manual_seed(3)
    module = _settled(make())
    path = tmp_path / "model.bin"
    report = export(path, [module], input_dim=5, streaming=True)
    assert report.networks[0].chunk == 16
