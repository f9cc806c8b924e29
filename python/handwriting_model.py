"""Writes and reads model files of the handwriting library.

A model file is a sequence of networks, a network a list of layers:

    write_model("model.bin", [
        [Blstm(8, 96, forward=..., backward=...)],
        [AffineTransform(96, 11, bias=..., weights=...), LogSoftmax(11, 11)],
    ])
    networks = read_model("model.bin")

Parameters are NumPy arrays of any float type; matrices have one row per output. Everything in the
file is little-endian: a network is a uint32 number of layers and the layers, a layer its input
dimension, output dimension and type code (int32, int32, uint32) and its parameter block.

A new layer is one class here. It names its type code and its fields, and says its parameter block
once, in `transfer`, in the order of the file; the block it is given reads or writes them:

    @layer_type(0x10B)
    @dataclass
    class Embedding(Layer):
        scale: float = 1.0
        weights: Array = parameter()  # (output_dim, input_dim)

        def transfer(self, block: Block) -> None:
            block.number(self, "scale", "<f4")
            block.array(self, "weights", (self.output_dim, self.input_dim))
"""

from __future__ import annotations

import abc
import os
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, BinaryIO, ClassVar, TypeVar

import numpy as np

Array = np.ndarray

INT32 = "<i4"
UINT32 = "<u4"
FLOAT16 = "<f2"
FLOAT32 = "<f4"


def parameter() -> Any:
    """The field of an array; empty until it is read or set."""
    return field(default_factory=lambda: np.zeros(0, np.float32), repr=False)


class ModelError(ValueError):
    """A model that cannot be written, or a file that holds none."""


class Block(abc.ABC):
    """One side of a transfer: moves fields of an object to a file or from it."""

    @abc.abstractmethod
    def array(self, owner: Any, name: str, shape: tuple[int, ...], dtype: str = FLOAT32) -> None:
        """Transfers the array `owner.name` of that shape, row by row, stored as `dtype`."""

    @abc.abstractmethod
    def number(self, owner: Any, name: str, dtype: str) -> None:
        """Transfers the number `owner.name`."""


class BlockWriter(Block):
    """Writes fields to a file."""

    def __init__(self, file: BinaryIO) -> None:
        self._file = file

    def array(self, owner: Any, name: str, shape: tuple[int, ...], dtype: str = FLOAT32) -> None:
        values = np.asarray(getattr(owner, name))
        label = f"{type(owner).__name__}.{name}"
        if values.shape != shape:
            raise ModelError(f"{label}: shape {values.shape} found, {shape} wanted")
        with np.errstate(over="ignore"):
            stored = values.astype(dtype)
        if not np.isfinite(stored).all():
            raise ModelError(f"{label}: not finite when stored as {np.dtype(dtype).name}")
        self._file.write(stored.tobytes())

    def number(self, owner: Any, name: str, dtype: str) -> None:
        self.value(getattr(owner, name), dtype)

    def value(self, value: float, dtype: str) -> None:
        """Writes one number."""
        self._file.write(np.array(value, dtype).tobytes())


class BlockReader(Block):
    """Reads fields from a file; what is stored as binary16 becomes float32."""

    def __init__(self, file: BinaryIO) -> None:
        self._file = file
        self._size = os.fstat(file.fileno()).st_size

    def array(self, owner: Any, name: str, shape: tuple[int, ...], dtype: str = FLOAT32) -> None:
        setattr(owner, name, self._read(shape, dtype).astype(np.float32))

    def number(self, owner: Any, name: str, dtype: str) -> None:
        setattr(owner, name, self.value(dtype))

    def value(self, dtype: str) -> Any:
        """Reads one number."""
        return self._read((), dtype).item()

    def at_end(self) -> bool:
        """Whether nothing is left to read."""
        return self._file.tell() == self._size

    def _read(self, shape: tuple[int, ...], dtype: str) -> Array:
        size = np.dtype(dtype).itemsize
        for length in shape:
            size *= length
        if not 0 <= size <= self._size - self._file.tell():
            raise ModelError("the file ends inside a layer")
        return np.frombuffer(self._file.read(size), dtype).reshape(shape)


@dataclass
class Layer:
    """A layer: input_dim floats a frame in, output_dim floats a frame out.

    The default has no parameters.
    """

    code: ClassVar[int]

    input_dim: int
    output_dim: int

    def transfer(self, block: Block) -> None:
        """Transfers the parameter block, in the order of the file."""


Network = list[Layer]

_LayerClass = TypeVar("_LayerClass", bound=type[Layer])
_layer_types: dict[int, type[Layer]] = {}


def layer_type(code: int) -> Callable[[_LayerClass], _LayerClass]:
    """Registers a class under its type code."""

    def register(cls: _LayerClass) -> _LayerClass:
        if code in _layer_types:
            raise ModelError(f"type code {code:#06x} belongs to {_layer_types[code].__name__}")
        cls.code = code
        _layer_types[code] = cls
        return cls

    return register


@layer_type(0x100)
@dataclass
class AffineTransform(Layer):
    """output = weights @ input + bias."""

    bias: Array = parameter()  # (output_dim,)
    weights: Array = parameter()  # (output_dim, input_dim)

    def transfer(self, block: Block) -> None:
        block.array(self, "bias", (self.output_dim,))
        block.array(self, "weights", (self.output_dim, self.input_dim))


@layer_type(0x204)
@dataclass
class LogSoftmax(Layer):
    """output = log(softmax(input))."""


@dataclass
class LstmDirection:
    """The parameters of one direction of an LSTM of c cells; gates in the order i, f, g, o."""

    input_weights: Array = parameter()  # (4c, input_dim)
    recurrent_weights: Array = parameter()  # (4c, c)
    input_bias: Array = parameter()  # (4c,)
    recurrent_bias: Array = parameter()  # (4c,)

    def transfer(self, block: Block, input_dim: int, cell_dim: int, dtype: str) -> None:
        """Transfers the four arrays."""
        gate_dim = 4 * cell_dim
        block.array(self, "input_weights", (gate_dim, input_dim), dtype)
        block.array(self, "recurrent_weights", (gate_dim, cell_dim), dtype)
        block.array(self, "input_bias", (gate_dim,), dtype)
        block.array(self, "recurrent_bias", (gate_dim,), dtype)


@layer_type(0x10E)
@dataclass
class Blstm(Layer):
    """A bidirectional LSTM; output [forward, backward], so output_dim is twice the cells.

    The parameters are stored as binary16: they come back rounded.
    """

    forward: LstmDirection = field(default_factory=LstmDirection)
    backward: LstmDirection = field(default_factory=LstmDirection)
    cell_dim: int = field(init=False)

    def __post_init__(self) -> None:
        self.cell_dim = self.output_dim // 2

    def transfer(self, block: Block) -> None:
        block.number(self, "cell_dim", INT32)
        if 2 * self.cell_dim != self.output_dim:
            raise ModelError(f"Blstm: {self.cell_dim} cells but output_dim {self.output_dim}")
        for direction in (self.forward, self.backward):
            direction.transfer(block, self.input_dim, self.cell_dim, FLOAT16)


def write_model(path: str | Path, networks: Sequence[Sequence[Layer]]) -> None:
    """Writes the networks; the file replaces an older one only when it is complete."""
    temporary = Path(f"{path}.{os.getpid()}.tmp")
    try:
        with open(temporary, "wb") as file:
            block = BlockWriter(file)
            for network in networks:
                _check_dims(network)
                block.value(len(network), UINT32)
                for layer in network:
                    _write_layer(block, layer)
        temporary.replace(path)
    finally:
        temporary.unlink(missing_ok=True)


def read_model(path: str | Path) -> list[Network]:
    """Reads all networks of a file."""
    with open(path, "rb") as file:
        block = BlockReader(file)
        networks: list[Network] = []
        while not block.at_end():
            networks.append([_read_layer(block) for _ in range(block.value(UINT32))])
        return networks


def _check_dims(network: Sequence[Layer]) -> None:
    for before, after in zip(network, network[1:]):
        if before.output_dim != after.input_dim:
            raise ModelError(f"{before} does not fit {after}")


def _write_layer(block: BlockWriter, layer: Layer) -> None:
    block.value(layer.input_dim, INT32)
    block.value(layer.output_dim, INT32)
    block.value(layer.code, UINT32)
    layer.transfer(block)


def _read_layer(block: BlockReader) -> Layer:
    input_dim, output_dim, code = block.value(INT32), block.value(INT32), block.value(UINT32)
    if code not in _layer_types:
        raise ModelError(f"unknown type code {code:#06x}")
    layer = _layer_types[code](input_dim, output_dim)
    layer.transfer(block)
    return layer
