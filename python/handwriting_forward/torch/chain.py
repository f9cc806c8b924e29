"""The layers of a network as they are written one after another, and what flows through them.

A model file holds a chain: every layer takes what the one before it gave. A module is a graph. What
is needed again later is kept by a register and fetched by a concatenation.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field

from .. import model

Axes = tuple[str, ...]

# Lines (the batch), frames, columns of a frame; planes of frames, columns of a plane.
ROWS: Axes = ("lines", "frames", "columns")
FRAMES_FIRST: Axes = ("frames", "lines", "columns")
CHANNELS_FIRST: Axes = ("lines", "columns", "frames")
FRAME: Axes = ("lines", "columns")  # one frame, its axis dropped
PLANES: Axes = ("lines", "planes", "frames", "columns")


class Unmapped(Exception):
    """What no layer computes: the reason, and what could stand in its place."""

    def __init__(self, reason: str, instead: str = "") -> None:
        super().__init__(reason)
        self.instead = instead


@dataclass(eq=False)
class Data:
    """What a layer gave, or the input of the network."""

    dim: int  # columns, of a plane where there are planes
    planes: int = 0  # 0: rows
    layer: model.Layer | None = None  # that gave it; None for the input
    registers: dict[bool, str] = field(default_factory=dict)  # that keep it, by "of a stream"
    delayed: bool = False  # whether it leaves a stream later, or earlier, than the input came


@dataclass(frozen=True, eq=False)
class Flow:
    """Data under the order of axes that the module sees; turning axes costs no layer."""

    data: Data
    axes: Axes

    @property
    def dim(self) -> int:
        return self.data.dim

    @property
    def planes(self) -> int:
        return self.data.planes


@dataclass
class Chain:
    """Layers in order, and for each the name of the operation that it belongs to."""

    layers: list[model.Layer] = field(default_factory=list)
    owners: list[str] = field(default_factory=list)
    current: Data = field(default_factory=lambda: Data(0))

    def add(self, layer: model.Layer, owner: str, dim: int, planes: int = 0) -> Data:
        """Appends a layer to what the last one gave; returns what it gives."""
        self.layers.append(layer)
        self.owners.append(owner)
        delayed = self.current.delayed or isinstance(layer, _DELAYING)
        self.current = Data(dim, planes, layer, delayed=delayed)
        return self.current

    def fetch(self, data: Data, owner: str) -> None:
        """Makes `data`, which are rows, what the next layer takes."""
        if data is not self.current:
            self.join([data], owner)
            self.current = data

    def join(self, parts: Sequence[Data], owner: str) -> Data:
        """Puts rows side by side."""
        waits = any(part.delayed for part in parts)
        names = [self._kept(part, waits) for part in parts if part is not self.current]
        positions = [i for i, part in enumerate(parts) if part is self.current]
        width = sum(part.dim for part in parts)
        if waits and len({part.dim for part in parts}) > 1:
            raise Unmapped(
                "parts of several widths, some of which a stream brings later",
                "parts of one width, or streaming=False",
            )
        kind = model.StreamConcatenateComponent if waits else model.ConcatenateComponent
        dim = parts[0].dim if waits else self.current.dim
        layer = kind(dim, width, register_names=names, input_positions=positions)
        joined = self.add(layer, owner, width)
        joined.delayed = waits
        return joined

    def _kept(self, data: Data, waits: bool) -> str:
        """The name of the register that keeps the data; it stands right after what gave them."""
        if waits not in data.registers:
            place = 0
            if data.layer is not None:
                place = next(i for i, each in enumerate(self.layers) if each is data.layer) + 1
            count = sum("Register" in each.marker for each in self.layers)
            data.registers[waits] = name = f"kept-{count}"
            kind = model.StreamRegisterComponent if waits else model.RegisterComponent
            register = kind(data.dim, data.dim, register_name=name)
            self.layers.insert(place, register)
            self.owners.insert(place, self.owners[place - 1] if place else "")
        return data.registers[waits]

    def positions(self) -> dict[str, int]:
        """For each operation the position of its last layer."""
        return {owner: position for position, owner in enumerate(self.owners) if owner}


# Layers over a stream that give a frame in another call than that which brings it.
_DELAYING = (
    model.StreamConv1d,
    model.StreamConvTranspose1d,
    model.StreamMaxPool1d,
    model.StreamReflectionPad,
    model.StreamConstantPad,
    model.StreamSliceComponent,
)
