"""One network of a model file, by itself and layer by layer."""

from __future__ import annotations

import json
from dataclasses import dataclass
from typing import Any

from numpy.typing import ArrayLike

from . import _core
from .arrays import Floats, floats_of, text_of
from .errors import InputError, RunError
from .handle import Handle, ModelContent, content_of


@dataclass(frozen=True)
class LayerOutput:
    """What one layer gave: its position from 0, its marker, and its output, frames x dim or
    channels x frames x dim."""

    position: int
    marker: str
    output: Floats


class Network(Handle[_core.Network]):
    """One network of a model file with what it carries from call to call.

    model: the path of a model file, binary or text, or its content.
    index: which of its networks, from 0, as `model.read_model` gives them.

    Frames are frames x dim, or channels x frames x dim where the network takes (gives) planes. A
    network is used by one thread at a time, as a Recognizer is; pickling carries the model's content,
    never what is carried from call to call.

    Raises ModelError with the place in the file and the reason.
    """

    _what = "network"

    def __init__(self, model: ModelContent, index: int = 0) -> None:
        if not isinstance(index, int) or index < 0:
            raise InputError(f"index: {index!r} found, a number from 0 wanted")
        self._index = index
        content, name = content_of(model)
        super().__init__(content, name, _core.Network(content, name, index))
        self._why_reset = ""

    def __reduce__(self) -> tuple[Any, ...]:
        self._open()
        return type(self), (self._content, self._index)

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self._index} of {self._name}{', closed' if self.closed else ''}>"

    @property
    def layers(self) -> list[dict[str, Any]]:
        """The layers as `handwriting inspect --json` shows them: position, marker, type, input,
        output, parameters, bytes, left_context, right_context, links."""
        self._open()
        networks = json.loads(_core.describe(self._content, self._name))["networks"]
        layers: list[dict[str, Any]] = networks[self._index]["layers"]
        return layers

    def reset(self) -> None:
        """Begins a new input: what the network carries is forgotten."""
        self._open().reset()
        self._why_reset = ""

    def forward(self, frames: ArrayLike, last: bool = False) -> Floats:
        """The output for the next frames of an input; `last` marks its end, after which only a reset
        may follow. Arrays are read as `Recognizer.recognize` reads them.

        Raises InputError for frames that the network does not take, RunError where the library gives
        up, with its message; the next call is then a reset.
        """
        compiled = self._open()
        floats = self._floats(compiled, frames)
        with _Call(self, last):
            return compiled.forward(floats, last)

    def trace(self, frames: ArrayLike, last: bool = False) -> list[LayerOutput]:
        """The same call; gives the output of every layer by position."""
        compiled = self._open()
        floats = self._floats(compiled, frames)
        with _Call(self, last):
            outputs = compiled.trace(floats, last)
        markers = [layer["marker"] for layer in self.layers]
        return [LayerOutput(i, *each) for i, each in enumerate(zip(markers, outputs))]

    def _floats(self, compiled: _core.Network, frames: ArrayLike) -> Floats:
        if self._why_reset:
            raise RunError(f"{self._why_reset}: reset() begins a new input")
        planes = compiled.takes_planes
        wanted = f"frames x {compiled.dim or 'dim'}"
        if planes:
            wanted = f"{compiled.channels} x {wanted}"
        floats = floats_of(frames, "frames", wanted, 3 if planes else 2, compiled.changes_input)
        if floats.shape[-1] != (compiled.dim or floats.shape[-1]) or (
            planes and floats.shape[0] != compiled.channels
        ):
            raise InputError(f"frames: {text_of(floats.shape)} found, {wanted} wanted")
        return floats


class _Call:
    """A call of a network: remembers why only a reset may follow."""

    def __init__(self, network: Network, last: bool) -> None:
        self._network = network
        self._last = last

    def __enter__(self) -> None:
        pass

    def __exit__(self, kind: type[BaseException] | None, error: object, traceback: object) -> None:
        if kind is not None and issubclass(kind, RunError):
            self._network._why_reset = "a call failed"
        elif kind is None and self._last:
            self._network._why_reset = "the input has ended"
