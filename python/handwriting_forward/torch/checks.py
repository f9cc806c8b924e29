"""Runs what was written beside PyTorch: how far they are apart, and where they part."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

import numpy as np
import torch
from torch import fx

from .. import model
from ..errors import ExportError, RunError
from ..network import Network
from .chain import Axes
from .graph import Compiled
from .rules import Floats

# Layers that see one frame at a time, or carry what they know from call to call: however the frames
# are cut, these give the same.
_OF_STREAMS = (
    *(model.AffineTransform, model.LinearTransform, model.Embedding, model.Highway),
    *(model.Softmax, model.LogSoftmax, model.Sigmoid, model.ReLU, model.PReLU),
    *(model.ReLU2d, model.PReLU2d, model.BatchNorm1d, model.BatchNorm2d, model.LayerNorm),
    *(model.NormalizeComponent, model.BatchNormComponent, model.AddShift, model.Rescale),
    *(model.AddComponent, model.Prior, model.SimpleConv2d1x3s2, model.SimpleDeconv2d1x3s2),
    *(model.FlattenComponent, model.DeflattenComponent),
    *(model.RegisterComponent, model.ConcatenateComponent),
    *(model.Lstm, model.Gru, model.LstmProjectedNnet3Streams),
    *(model.StreamConv1d, model.StreamConvTranspose1d, model.StreamMaxPool1d),
    *(model.StreamRegisterComponent, model.StreamConcatenateComponent),
    *(model.StreamReflectionPad, model.StreamConstantPad, model.StreamSliceComponent),
)


def first_without_stream(layers: Sequence[model.Layer]) -> int | None:
    """The position of the first layer that needs the whole input at once."""
    for position, layer in enumerate(layers):
        if type(layer) not in _OF_STREAMS:
            return position
    return None


@contextmanager
def as_stored(networks: Sequence[Compiled]) -> Iterator[None]:
    """Within it the modules have the parameters that the file holds, which may be rounded."""
    pairs = [pair for network in networks for pair in network.rounded.parameters]
    before = [parameter.detach().clone() for parameter, _ in pairs]
    with torch.no_grad():
        try:
            for parameter, stored in pairs:
                parameter.copy_(stored)
            yield
        finally:
            for (parameter, _), value in zip(pairs, before):
                parameter.copy_(value)


def run_torch(network: Compiled, frames: Floats) -> Floats:
    """What the module gives for the frames of one line. Raises RuntimeError as PyTorch does."""
    return _rows(_forward(network, frames), network.axes_out)


def _forward(network: Compiled, frames: Floats) -> torch.Tensor:
    parameter = next(network.module.parameters(), torch.zeros(0))
    with torch.no_grad():
        given: torch.Tensor = network.module(torch.tensor(frames)[None].to(parameter))
    return given


def _rows(value: torch.Tensor, axes: Axes) -> Floats:
    """A result of PyTorch as the library has it: frames x columns, or planes x frames x columns."""
    named = dict(zip(axes, range(value.dim())))
    order = [named[axis] for axis in ("lines", "planes", "frames", "columns") if axis in named]
    rows: Floats = value.permute(order)[0].detach().cpu().float().numpy()
    return rows if "frames" in named else rows[None]


@dataclass(frozen=True)
class Deviation:
    """The largest difference from PyTorch, and the largest value of PyTorch."""

    absolute: float = 0.0
    largest: float = 0.0

    @property
    def relative(self) -> float:
        """To the largest value where that is more than 1."""
        return self.absolute / max(1.0, self.largest)

    def or_worse(self, other: Deviation) -> Deviation:
        """Of both together."""
        return Deviation(max(self.absolute, other.absolute), max(self.largest, other.largest))


# The library takes the logarithm of a probability that is a float32: of one below its smallest
# numbers it gives about this, PyTorch goes on.
_LEAST_LOGARITHM = -87.0


def deviation(found: Floats, wanted: Floats, layer: model.Layer | None = None) -> Deviation:
    """How far the output of a layer is from what is wanted."""
    if isinstance(layer, model.LogSoftmax):
        found, wanted = np.maximum(found, _LEAST_LOGARITHM), np.maximum(wanted, _LEAST_LOGARITHM)
    if found.shape != wanted.shape or not np.isfinite(wanted).all():
        return Deviation(np.inf, 0.0)
    if wanted.size == 0:
        return Deviation()
    return Deviation(float(np.abs(found - wanted).max()), float(np.abs(wanted).max()))


def in_chunks(network: Network, frames: Floats, cuts: Sequence[int], mark_last: bool) -> Floats:
    """What a network gives for frames that come in pieces, which end at `cuts`."""
    network.reset()
    pieces = [frames[a:b] for a, b in zip([0, *cuts[:-1]], cuts)]
    given = [
        network.forward(p, last=mark_last and i + 1 == len(pieces)) for i, p in enumerate(pieces)
    ]
    return np.concatenate(given)


def chunk_ends(count: int, size: int) -> list[int]:
    """Where chunks end of which only the first is shorter, as a recognizer makes them."""
    return list(range((count - 1) % size + 1, count + 1, size))


def check_network(
    stored: bytes,
    index: int,
    compiled: Compiled,
    lines: Sequence[Floats],
    chunk: int | None,
    tolerance: float,
) -> tuple[Deviation, list[int], list[Floats]]:
    """Compares one network with its module on lines, whole and, given a size of chunks, in these.

    Gives the deviation, the frames of the lines that were compared (PyTorch refuses some that are
    too short), and what PyTorch gave for them. Raises ExportError that names the layer where they
    part.
    """
    worst, compared, outputs = Deviation(), [], []
    refusal: Exception | None = None
    with Network(stored, index) as network:
        for frames in lines:
            try:
                wanted = run_torch(compiled, frames)
            except RuntimeError as error:
                refusal = error
                continue
            if wanted.size == 0:
                continue
            worst = worst.or_worse(_checked(network, compiled, frames, wanted, chunk, tolerance))
            compared.append(len(frames))
            outputs.append(wanted)
    if not compared:
        raise ExportError(f"PyTorch runs no line: {refusal}") from refusal
    return worst, compared, outputs


def _checked(
    network: Network,
    compiled: Compiled,
    frames: Floats,
    wanted: Floats,
    chunk: int | None,
    tolerance: float,
) -> Deviation:
    count = len(frames)
    ways = {"whole": [count]}
    if chunk is not None:
        ways[f"in chunks of {chunk}"] = chunk_ends(count, chunk)
    worst = Deviation()
    for way, cuts in ways.items():
        try:
            found = in_chunks(network, frames, cuts, mark_last=True)
        except RunError as error:
            raise ExportError(f"{count} frames, {way}: {error}") from error
        apart = deviation(found, wanted, compiled.layers[-1])
        if not apart.relative <= tolerance:
            place = ""
            if way == "whole":
                network.reset()
                place = _first_difference(network, compiled, frames, tolerance)
            raise ExportError(
                f"{count} frames, {way}: {_apart(found, wanted)}, tolerance {tolerance:g}{place}"
            )
        worst = worst.or_worse(apart)
    return worst


def _apart(found: Floats, wanted: Floats) -> str:
    if found.shape != wanted.shape:
        return f"shape {found.shape}, PyTorch gives {wanted.shape}"
    if not np.isfinite(wanted).all():
        return "PyTorch gives values that are not finite"
    apart = deviation(found, wanted)
    return f"differs from PyTorch by {apart.absolute:.3g} (its largest value: {apart.largest:.3g})"


class _Values(fx.Interpreter):
    """Runs a graph, and keeps what every operation gives."""

    def __init__(self, network: Compiled) -> None:
        super().__init__(fx.GraphModule(network.module, network.graph))
        self.values: dict[str, Any] = {}

    def run_node(self, n: fx.Node) -> Any:
        value = super().run_node(n)
        first = value[0] if isinstance(value, tuple) and value else value
        self.values[n.name] = first.clone() if isinstance(first, torch.Tensor) else first
        return value


def _first_difference(
    network: Network, compiled: Compiled, frames: Floats, tolerance: float
) -> str:
    """In words, the first layer whose output differs."""
    values = _Values(compiled)
    parameter = next(compiled.module.parameters(), torch.zeros(0))
    with torch.no_grad():
        values.run(torch.tensor(frames)[None].to(parameter))
    steps = network.trace(frames, last=True)
    for name, position in sorted(compiled.positions().items(), key=lambda each: each[1]):
        value, axes = values.values.get(name), compiled.axes.get(name)
        if not isinstance(value, torch.Tensor) or axes is None or "lines" not in axes:
            continue
        wanted, found = _rows(value, axes), steps[position].output
        if not deviation(found, wanted, compiled.layers[position]).relative <= tolerance:
            return (
                f"\n    first at layer {position} {steps[position].marker}, which stands for "
                f"{compiled.paths[name]}: {_apart(found, wanted)}"
            )
    return ""
