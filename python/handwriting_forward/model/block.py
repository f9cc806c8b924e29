"""What all layers of a model file share: the block that they are moved through, and the layer.

A model file is a sequence of networks, a network a uint32 number of layers and the layers. A layer
is a header, with its dimensions and its type code, and a parameter block. All of it is
little-endian.

A layer is one class. It names its type code and its fields, and says its parameter block once, in
`transfer`, in the order of the file; the block it is given reads, writes or fills them:

    @layer_type(0x10B)
    @dataclass(eq=False)
    class Embedding(RowLayer):
        scale: float = 1.0
        weights: Parameter = parameter()

        def transfer(self, block: Block) -> None:
            block.reals(self, "scale")
            block.array(self, "weights", (self.output_dim, self.input_dim))
"""

from __future__ import annotations

import abc
import struct
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, ClassVar, NoReturn, TypeAlias, TypeVar

import numpy as np

from handwriting_forward.errors import ModelError
from handwriting_forward.model.codes import CodeArray, Parameter

MAX_NESTING = 16
MAX_ARRAY_VALUES = 2**30

_FIXED_FAMILIES = {
    0x01: 0x08, 0x02: 0x09, 0x03: 0x0C, 0x04: 0x0A, 0x05: 0x0E,
    0x06: 0x0B, 0x07: 0x0D, 0x10: 0x18, 0x11: 0x19,
}  # fmt: skip
_NUMBER_NAMES = {"<i": "an int32", "<I": "a uint32", "<B": "a byte", "<f": "a 32-bit float"}


def parameter() -> Any:
    """The field of an array; empty until it is read or set."""
    return field(default_factory=lambda: np.zeros(0, np.float32), repr=False)


class Block(abc.ABC):
    """One side of a transfer: moves the fields of an object to a file or from it.

    Whatever cannot be moved raises a `ModelError` that begins with the place in the model.
    """

    reads: ClassVar[bool] = False  # whether fields are taken from a file and not given to it

    def __init__(self, place: str = "") -> None:
        self._places = [place] if place else []
        self._depth = 0
        self._layer: Layer | None = None

    # What the sides do in different ways.

    @abc.abstractmethod
    def number(self, name: str, value: float, form: str) -> Any:
        """Transfers one number in the `struct` format and returns it."""

    @abc.abstractmethod
    def data(self, name: str, value: bytes, size: int) -> bytes:
        """Transfers `size` bytes and returns them."""

    @abc.abstractmethod
    def values(self, name: str, value: Any, shape: tuple[int, ...], dtype: str) -> Any:
        """Transfers an array of the shape, row by row, stored as `dtype`, and returns it."""

    def new_codes(self, codes: type[CodeArray]) -> CodeArray:
        """The codes of an array that has none yet."""
        return codes()

    def room_for(self, name: str, size: int) -> None:
        """Fails when it is known that fewer than `size` bytes follow."""

    def mark_follows(self, mark: bytes) -> bool:
        """Whether a reader finds the mark next."""
        return False

    # Fields.

    def integers(self, owner: Any, *names: str) -> None:
        """Transfers the int32 fields."""
        for name in names:
            setattr(owner, name, self.number(name, getattr(owner, name), "<i"))

    def reals(self, owner: Any, *names: str) -> None:
        """Transfers the 32-bit float fields."""
        for name in names:
            setattr(owner, name, self.number(name, getattr(owner, name), "<f"))

    def flag(self, owner: Any, name: str) -> None:
        """Transfers a truth value, which is a byte in the file."""
        setattr(owner, name, self.number(name, int(bool(getattr(owner, name))), "<B") != 0)

    def string(self, owner: Any, name: str) -> None:
        """Transfers a string."""
        setattr(owner, name, self._string(name, getattr(owner, name)))

    def strings(self, owner: Any, name: str) -> None:
        """Transfers a count and as many strings."""
        values = list(getattr(owner, name))
        count = self._count(name, len(values))
        values = [""] * count if self.reads else values
        values = [self._string(f"{name}[{i}]", text) for i, text in enumerate(values)]
        if self.reads:
            setattr(owner, name, values)

    def counted_integers(self, owner: Any, name: str) -> None:
        """Transfers a count and as many int32."""
        self.integer_list(owner, name, self._count(name, len(getattr(owner, name))))

    def integer_list(self, owner: Any, name: str, count: int) -> None:
        """Transfers `count` int32."""
        self.room_for(name, 4 * count)
        values = [0] * count if self.reads else list(getattr(owner, name))
        self.require(len(values) == count, f"{name}: {len(values)} found, {count} wanted")
        values = [self.number(name, value, "<i") for value in values]
        if self.reads:
            setattr(owner, name, values)

    def extension(self, owner: Any, name: str, mark: bytes) -> None:
        """Transfers a string behind a mark, or neither; the string is None then."""
        value: str | None = getattr(owner, name)
        if self.mark_follows(mark) if self.reads else value is not None:
            self.data(name, mark, len(mark))
            setattr(owner, name, self._string(name, value or ""))

    def array(self, owner: Any, name: str, shape: tuple[int, ...]) -> None:
        """Transfers an array in the form in which the layer stores its arrays."""
        layer = self._layer
        assert layer is not None, "arrays belong to layers"
        size = 1
        for length in shape:
            self.at_least(f"{name}: length", length, 0)
            size *= length
        self.require(size <= MAX_ARRAY_VALUES, f"{name}: {size} values, at most 2^30 wanted")
        value = getattr(owner, name)
        if layer.fixed and layer.code_type is not None:
            with self.at(name):
                codes = value if isinstance(value, layer.code_type) else None
                codes = codes or self.new_codes(layer.code_type)
                codes.transfer(self, shape)
            setattr(owner, name, codes)
        else:
            setattr(owner, name, self.values(name, value, shape, layer.float_type))

    def layers(self, owner: Any, name: str, count: int) -> None:
        """Transfers `count` complete layers."""
        values: list[Layer | None] = list(getattr(owner, name))
        if self.reads:
            values = [None] * count
        self.require(len(values) == count, f"{name}: {len(values)} found, {count} wanted")
        for i, value in enumerate(values):
            with self.at(f"{name}[{i}]"):
                values[i] = self.component(value)
        if self.reads:
            setattr(owner, name, values)

    # Layers.

    def component(self, layer: Layer | None) -> Layer:
        """Transfers a layer, header and block; None asks a reader for a new one."""
        self.require(self._depth < MAX_NESTING, f"layers nested more than {MAX_NESTING} deep")
        first, second = (0, 0) if layer is None else layer.header_pair()
        first = self.number("header", first, "<i")
        second = self.number("header", second, "<i")
        code = self.number("header", 0 if layer is None else layer.code, "<I")
        if layer is None:
            self.require(code in layer_types, f"unknown type code {code:#06x}")
            make: Callable[..., Layer] = layer_types[code]
            layer = make(first, second, fixed=code == layer_types[code].fixed_type_code)
        outer, self._layer = self._layer, layer
        self._depth += 1
        try:
            with self.at(layer.marker):
                layer.transfer_header(self)
                if layer.keeps_width:
                    self.same("output dimension", *reversed(layer.set_dims()))
                layer.transfer(self)
        finally:
            self._layer = outer
            self._depth -= 1
        return layer

    # Refusals.

    @contextmanager
    def at(self, place: str) -> Iterator[None]:
        """Refusals inside carry the place."""
        self._places.append(place)
        try:
            yield
        finally:
            self._places.pop()

    def fail(self, message: str) -> NoReturn:
        raise ModelError(": ".join([*self._places, message]))

    def require(self, holds: bool, message: str) -> None:
        if not holds:
            self.fail(message)

    def at_least(self, name: str, value: int, least: int) -> None:
        if value < least:
            self.fail(f"{name} {value} found, at least {least} wanted")

    def same(self, name: str, found: int | None, wanted: int | None) -> None:
        """Two dimensions that are both known must be the same."""
        if found is not None and wanted is not None and found != wanted:
            self.fail(f"{name} {found} found, {wanted} wanted")

    def equal(self, name: str, found: int, wanted: int) -> None:
        if found != wanted:
            self.fail(f"{name} {found} found, {wanted} wanted")

    def _count(self, name: str, count: int) -> int:
        count = self.number(f"number of {name}", count, "<i")
        self.at_least(f"number of {name}", count, 0)
        self.room_for(name, 4 * count)
        return count

    # Names are bytes in the file; those that are no UTF-8 come through unchanged, too.
    def _string(self, name: str, value: str) -> str:
        stored = value.encode("utf-8", "surrogateescape")
        size = self.number(f"length of {name}", len(stored), "<i")
        self.at_least(f"length of {name}", size, 0)
        return self.data(name, stored, size).decode("utf-8", "surrogateescape")


class BlockWriter(Block):
    """Appends fields to `written`."""

    def __init__(self, place: str = "") -> None:
        super().__init__(place)
        self.written = bytearray()

    def number(self, name: str, value: float, form: str) -> Any:
        try:
            self.written += struct.pack(form, value)
        except (struct.error, OverflowError, TypeError):
            self.fail(f"{name}: {value!r} found, {_NUMBER_NAMES[form]} wanted")
        return value

    def data(self, name: str, value: bytes, size: int) -> bytes:
        self.written += value
        return value

    def values(self, name: str, value: Any, shape: tuple[int, ...], dtype: str) -> Any:
        found = np.asarray(value)
        if found.shape != shape:
            self.fail(f"{name}: shape {found.shape} found, {shape} wanted")
        with np.errstate(over="ignore"):
            stored = found.astype(dtype)
        floats = stored.dtype.kind == "f"
        same = np.isfinite(stored) == np.isfinite(found) if floats else stored == found
        if not np.all(same):
            self.fail(f"{name}: a value is too large for {stored.dtype.name}")
        self.written += stored.tobytes()
        return value

    def new_codes(self, codes: type[CodeArray]) -> CodeArray:
        self.fail(f"floats found, {codes.__name__} wanted")


class BlockReader(Block):
    """Takes fields from the bytes of a file; every size is compared with what is left of it."""

    reads = True

    def __init__(self, source: bytes | bytearray | memoryview, place: str = "") -> None:
        super().__init__(place)
        self._source = memoryview(source)
        self._next = 0

    def at_end(self) -> bool:
        """Whether nothing is left to read."""
        return self._next == len(self._source)

    def number(self, name: str, value: float, form: str) -> Any:
        return struct.unpack(form, self._take(name, struct.calcsize(form)))[0]

    def data(self, name: str, value: bytes, size: int) -> bytes:
        return bytes(self._take(name, size))

    def values(self, name: str, value: Any, shape: tuple[int, ...], dtype: str) -> Any:
        size = np.dtype(dtype).itemsize
        for length in shape:
            size *= length
        read = np.frombuffer(self._take(name, size), dtype)
        try:  # also copies
            return read.astype(np.float32 if read.dtype.kind == "f" else dtype).reshape(shape)
        except ValueError:  # no values, but lengths that NumPy cannot have
            self.fail(f"{name}: shape {shape} is too large")

    def room_for(self, name: str, size: int) -> None:
        left = len(self._source) - self._next
        self.require(size <= left, f"{name}: {size} bytes wanted, {left} found")

    def mark_follows(self, mark: bytes) -> bool:
        return self._source[self._next : self._next + len(mark)] == mark

    def _take(self, name: str, size: int) -> memoryview:
        self.room_for(name, size)
        self._next += size
        return self._source[self._next - size : self._next]


class BlockFiller(Block):
    """Gives the arrays of layers random values and leaves all other fields as they are."""

    def __init__(self, rng: np.random.Generator) -> None:
        super().__init__()
        self._rng = rng

    def number(self, name: str, value: float, form: str) -> Any:
        return value

    def data(self, name: str, value: bytes, size: int) -> bytes:
        return value

    def values(self, name: str, value: Any, shape: tuple[int, ...], dtype: str) -> Any:
        if np.dtype(dtype).kind == "f":
            return self._rng.uniform(-1, 1, shape).astype(dtype).astype(np.float32)
        limits = np.iinfo(dtype)
        return self._rng.integers(limits.min, limits.max, shape, endpoint=True).astype(dtype)


class Layer(abc.ABC):
    """A layer of a network. `fixed` says whether it is stored under its fixed-point type code.

    Layers with a `code_type` then hold 8-bit codes in place of arrays; all others have the same
    block under both codes.
    """

    type_code: ClassVar[int]
    fixed_type_code: ClassVar[int]
    float_type: ClassVar[str] = "<f4"  # how arrays are stored, in float form
    code_type: ClassVar[type[CodeArray] | None] = None  # and in fixed-point form
    keeps_width: ClassVar[bool] = False  # whether rows leave at the width at which they come

    input_dim: int | None
    output_dim: int | None
    fixed: bool

    @property
    def code(self) -> int:
        """The type code in the file."""
        return self.fixed_type_code if self.fixed else self.type_code

    @property
    def marker(self) -> str:
        """The name that the text form and messages give the layer."""
        return f"<{'Fixed' if self.fixed else ''}{type(self).__name__}>"

    @abc.abstractmethod
    def header_pair(self) -> tuple[int, int]:
        """The two numbers before the type code."""

    @abc.abstractmethod
    def set_dims(self) -> tuple[int | None, int | None]:
        """Input and output dimension; None where it is not set or not positive."""

    def transfer_header(self, block: Block) -> None:
        """Transfers what the header has after the type code."""

    def transfer(self, block: Block) -> None:
        """Transfers the parameter block, in the order of the file; there need not be any."""

    def given_width(self) -> int | None:
        """The width that the next layer sees; None when it is not known."""
        return self.set_dims()[1]

    def ignores_input(self) -> bool:
        """Whether the width of the layer before does not matter."""
        return False


@dataclass(eq=False)
class RowLayer(Layer):
    """A layer on rows: input_dim floats a frame in, output_dim floats a frame out.

    A dimension that is not positive is not set; it then follows the width that reaches the layer.
    """

    input_dim: int
    output_dim: int
    fixed: bool = field(default=False, kw_only=True)

    def header_pair(self) -> tuple[int, int]:
        return self.input_dim, self.output_dim

    def set_dims(self) -> tuple[int | None, int | None]:
        return _positive(self.input_dim), _positive(self.output_dim)


@dataclass(eq=False)
class ChannelLayer(Layer):
    """A layer on planes: one plane a channel, its rows the frames of so many floats.

    A dimension that is None or not positive is not set. A file says so with flags of its own; the
    two fields hold one that differs from that.
    """

    input_channels: int
    output_channels: int
    input_dim: int | None = None
    output_dim: int | None = None
    input_dim_set: bool | None = field(default=None, kw_only=True, repr=False)
    output_dim_set: bool | None = field(default=None, kw_only=True, repr=False)
    fixed: bool = field(default=False, kw_only=True)

    def header_pair(self) -> tuple[int, int]:
        return self.input_channels, self.output_channels

    def set_dims(self) -> tuple[int | None, int | None]:
        return (
            None if self.input_dim_set is False else _positive(self.input_dim),
            None if self.output_dim_set is False else _positive(self.output_dim),
        )

    def transfer_header(self, block: Block) -> None:
        dims = [block.number("header", dim or 0, "<i") for dim in (self.input_dim, self.output_dim)]
        flags = (self.input_dim_set, self.output_dim_set)
        marks = [dim > 0 if flag is None else flag for dim, flag in zip(dims, flags, strict=True)]
        marks = [block.number("header", int(mark), "<B") != 0 for mark in marks]
        self.input_dim, self.output_dim = (dim or None for dim in dims)
        self.input_dim_set, self.output_dim_set = (
            None if mark == (dim > 0) else mark for dim, mark in zip(dims, marks, strict=True)
        )


Network: TypeAlias = list[Layer]

_LayerClass = TypeVar("_LayerClass", bound=type[Layer])
layer_types: dict[int, type[Layer]] = {}


def fixed_code_of(code: int) -> int:
    """The fixed-point twin of a type code."""
    return _FIXED_FAMILIES[code >> 8] << 8 | code & 0xFF


def layer_type(code: int) -> Callable[[_LayerClass], _LayerClass]:
    """Registers a class under its type code and the fixed-point twin of it."""

    def register(cls: _LayerClass) -> _LayerClass:
        cls.type_code, cls.fixed_type_code = code, fixed_code_of(code)
        for each in (cls.type_code, cls.fixed_type_code):
            if each in layer_types:
                raise ModelError(f"type code {each:#06x} belongs to {layer_types[each].__name__}")
            layer_types[each] = cls
        return cls

    return register


def _positive(dim: int | None) -> int | None:
    return dim if dim is not None and dim > 0 else None
