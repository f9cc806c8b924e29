"""Registers, concatenations, slices, padding, views, statistics and windows."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, ClassVar

from handwriting_forward.model.block import Block, ChannelLayer, RowLayer, layer_type
from handwriting_forward.model.dense import PlaneLayer


@layer_type(0x700)
@dataclass(eq=False)
class RegisterComponent(RowLayer):
    """output = input, of which a copy is kept: all rows, or the one frame slice_index names."""

    keeps_width: ClassVar[bool] = True

    register_name: str = ""
    slice_index: str | None = None

    def transfer(self, block: Block) -> None:
        block.string(self, "register_name")
        block.extension(self, "slice_index", b"EXT")
        block.require(self.register_name != "", "register_name is empty")
        block.at_least("input dimension", self.input_dim, 0)
        block.at_least("output dimension", self.output_dim, 0)


@layer_type(0x701)
@dataclass(eq=False)
class Register2dComponent(PlaneLayer):
    """output = input, of which a copy of all planes is kept."""

    register_name: str = ""

    def transfer(self, block: Block) -> None:
        block.string(self, "register_name")
        block.require(self.register_name != "", "register_name is empty")


@dataclass(eq=False)
class Parts:
    """The parts that are joined: those at input_positions are the input, the others registers."""

    register_names: list[str] = field(default_factory=list)
    input_positions: list[int] = field(default_factory=list)

    def transfer(self, block: Block) -> None:
        block.strings(self, "register_names")
        block.counted_integers(self, "input_positions")
        block.require(all(self.register_names), "register name is empty")
        count = len(self.register_names) + len(self.input_positions)
        known = set(self.input_positions)
        fits = len(known) == len(self.input_positions) and all(0 <= p < count for p in known)
        block.require(fits, f"input_positions {self.input_positions[:9]} of {count} parts")

    def ignores_input(self) -> bool:
        return not self.input_positions


@layer_type(0x702)
@dataclass(eq=False)
class ConcatenateComponent(Parts, RowLayer):
    """output = the rows of all parts side by side; output_dim is the sum of their widths."""

    def transfer(self, block: Block) -> None:
        super().transfer(block)
        block.at_least("input dimension", self.input_dim, 0)
        block.at_least("output dimension", self.output_dim, 0)


@layer_type(0x703)
@dataclass(eq=False)
class Concatenate2dComponent(Parts, ChannelLayer):
    """output = the planes of all parts; output_channels is the sum of their channels."""


def _transfer_channels(block: Block, layer: Any, name: str, dim: int, row: int) -> None:
    """The channels whose planes of `dim` columns are rows of `row` values, side by side."""
    block.integers(layer, name)
    channels: int = getattr(layer, name)
    block.at_least(name, channels, 1)
    block.equal("row dimension", row, channels * dim)


@layer_type(0x704)
@dataclass(eq=False)
class FlattenComponent(RowLayer):
    """output[t] = row t of every plane, side by side; output_dim is input_channels x input_dim."""

    input_channels: int = 1

    def transfer(self, block: Block) -> None:
        _transfer_channels(block, self, "input_channels", self.input_dim, self.output_dim)


@layer_type(0x705)
@dataclass(eq=False)
class DeflattenComponent(RowLayer):
    """The inverse of FlattenComponent; input_dim is output_channels x output_dim."""

    output_channels: int = 1

    def transfer(self, block: Block) -> None:
        _transfer_channels(block, self, "output_channels", self.output_dim, self.input_dim)


@layer_type(0x706)
@dataclass(eq=False)
class SliceComponent(RowLayer):
    """output = the one frame that index_text names in digits; -1 is the last."""

    keeps_width: ClassVar[bool] = True

    index_text: str = ""

    def transfer(self, block: Block) -> None:
        block.string(self, "index_text")
        block.require(self.index_text != "", "index_text is empty")


@layer_type(0x707)
@dataclass(eq=False)
class ReflectionPad(RowLayer):
    """output = input between its mirrored ends: padding_left frames before, padding_right after."""

    keeps_width: ClassVar[bool] = True

    padding_left: int = 0
    padding_right: int = 0

    def transfer(self, block: Block) -> None:
        block.integers(self, "padding_left", "padding_right")
        block.at_least("padding_left", self.padding_left, 0)
        block.at_least("padding_right", self.padding_right, 0)


@layer_type(0x708)
@dataclass(eq=False)
class ConstantPad(RowLayer):
    """output = padding_left frames of value, input, padding_right frames of value."""

    keeps_width: ClassVar[bool] = True

    padding_left: int = 0
    padding_right: int = 0
    value: float = 0.0

    def transfer(self, block: Block) -> None:
        block.integers(self, "padding_left", "padding_right")
        block.reals(self, "value")
        block.at_least("padding_left", self.padding_left, 0)
        block.at_least("padding_right", self.padding_right, 0)


@layer_type(0x500)
@dataclass(eq=False)
class ViewComponent(RowLayer):
    """output = the same floats as rows of output_dim values; what fills no row is dropped."""

    def transfer(self, block: Block) -> None:
        block.at_least("output dimension", self.output_dim, 1)


@layer_type(0x501)
@dataclass(eq=False)
class TransposeComponent(RowLayer):
    """output = the transposed block: input_dim rows of as many values as there were frames."""

    def given_width(self) -> int | None:
        return None


@layer_type(0x601)
@dataclass(eq=False)
class StatisticsExtractionComponent(RowLayer):
    """output[t] = [count, sums, sums of squares] of frames t, t + input_period, … of a span.

    output_dim is 1 + 2 input_dim, without variance 1 + input_dim; input_period divides
    output_period, the span.
    """

    input_period: int = 1
    output_period: int = 1
    include_variance: bool = True

    def transfer(self, block: Block) -> None:
        block.integers(self, "input_period", "output_period")
        block.flag(self, "include_variance")
        block.at_least("input_period", self.input_period, 1)
        block.at_least("output_period", self.output_period, 1)
        block.equal("output_period modulo input_period", self.output_period % self.input_period, 0)
        block.at_least("input dimension", self.input_dim, 1)
        sums = 2 if self.include_variance else 1
        block.equal("output dimension", self.output_dim, 1 + sums * self.input_dim)


@layer_type(0x602)
@dataclass(eq=False)
class StatisticsPoolingComponent(RowLayer):
    """output = sums / count of each block of rows [count, sums], with output_stddevs deviations.

    output_dim is num_log_count_features + input_dim - 1. The period and contexts are not used.
    """

    input_period: int = 1
    left_context: int = -1
    right_context: int = -1
    num_log_count_features: int = 0
    output_stddevs: bool = True
    variance_floor: float = 1e-10

    def transfer(self, block: Block) -> None:
        block.integers(self, "input_period", "left_context", "right_context")
        block.integers(self, "num_log_count_features")
        block.flag(self, "output_stddevs")
        block.reals(self, "variance_floor")
        block.at_least("num_log_count_features", self.num_log_count_features, 0)
        block.at_least("input dimension", self.input_dim, 1)
        block.at_least("output dimension", self.output_dim, 1)
        wanted = self.num_log_count_features + self.input_dim - 1
        block.equal("output dimension", self.output_dim, wanted)


@layer_type(0x603)
@dataclass(eq=False)
class SlidingWindowComponent(RowLayer):
    """output = the frames of windows of window_size frames, hop_size apart, one after another.

    The last window of an input is shorter (sliding_mode 0) or goes back to full length (1).
    """

    window_size: int = 1
    hop_size: int = 1
    sliding_mode: int = 0

    def transfer(self, block: Block) -> None:
        block.integers(self, "window_size", "hop_size", "sliding_mode")
        block.at_least("hop_size", self.hop_size, 1)
        block.at_least("window_size", self.window_size, self.hop_size)
        mode = self.sliding_mode
        block.require(mode in (0, 1), f"sliding_mode {mode} found, 0 or 1 wanted")
        block.at_least("input dimension", self.input_dim, 1)
        block.equal("output dimension", self.output_dim, self.input_dim)
