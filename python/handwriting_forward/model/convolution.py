"""Convolutions and pooling along the frames, and convolutions over planes."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import ClassVar

from handwriting_forward.model.block import (
    Block,
    ChannelLayer,
    Layer,
    RowLayer,
    layer_type,
    parameter,
)
from handwriting_forward.model.codes import Array


@dataclass(eq=False)
class _Window(RowLayer):
    """Taps that slide over the frames, and the frames of padding around them."""

    kernel_size: int = 0
    stride: int = 1
    padding_left: int = 0
    padding_right: int = 0
    dilation: int = 1

    def check_window(self, block: Block) -> None:
        for name in ("kernel_size", "padding_left", "padding_right"):
            block.at_least(name, getattr(self, name), 0)
        for name in ("stride", "dilation"):
            block.at_least(name, getattr(self, name), 1)


@dataclass(eq=False)
class _Convolution(_Window):
    """What convolutions have beside the window; without has_bias there is no bias_vector.

    has_bias follows from the bias_vector unless it is given.
    """

    groups: int = 1
    kernel: Array = parameter()
    bias_vector: Array = parameter()  # (output_dim,)
    has_bias: int = field(default=-1, kw_only=True)

    def __post_init__(self) -> None:
        if self.has_bias == -1:
            self.has_bias = int(len(self.bias_vector) > 0)

    def transfer_kernel(self, block: Block, rows: int, columns: int) -> None:
        self.check_window(block)
        block.at_least("groups", self.groups, 1)
        block.at_least("input dimension", self.input_dim, 0)
        block.at_least("output dimension", self.output_dim, 0)
        for name, dim in (("input", self.input_dim), ("output", self.output_dim)):
            block.equal(f"{name} dimension modulo groups", dim % self.groups, 0)
        block.array(self, "kernel", (rows, columns // self.groups, self.kernel_size))
        if self.has_bias != 0:
            block.array(self, "bias_vector", (self.output_dim,))


@layer_type(0x307)
@dataclass(eq=False)
class Conv1d(_Convolution):
    """output[t][o] = bias[o] + sum of kernel[o][c][j] input[t stride - left + j dilation][c].

    The kernel is (output_dim, input_dim / groups, kernel_size).
    """

    def transfer(self, block: Block) -> None:
        block.integers(self, "kernel_size", "stride", "padding_left", "padding_right")
        block.integers(self, "dilation", "groups", "has_bias")
        self.transfer_kernel(block, self.output_dim, self.input_dim)


@layer_type(0x308)
@dataclass(eq=False)
class ConvTranspose1d(_Convolution):
    """input[t][i] kernel[i][p][j] is added to output[t stride - left + j dilation][p]; then bias.

    The kernel is (input_dim, output_dim / groups, kernel_size).
    """

    output_padding: int = field(default=0, kw_only=True)

    def transfer(self, block: Block) -> None:
        block.integers(self, "kernel_size", "stride", "padding_left", "padding_right")
        block.integers(self, "output_padding", "dilation", "groups", "has_bias")
        block.at_least("output_padding", self.output_padding, 0)
        self.transfer_kernel(block, self.input_dim, self.output_dim)


@layer_type(0x309)
@dataclass(eq=False)
class MaxPool1d(_Window):
    """output[t] = the largest of input[t stride - left + j dilation], per column."""

    keeps_width: ClassVar[bool] = True

    def transfer(self, block: Block) -> None:
        block.integers(self, "kernel_size", "stride", "padding_left", "padding_right", "dilation")
        self.check_window(block)


@layer_type(0x301)
@dataclass(eq=False)
class Conv2d(ChannelLayer):
    """A general convolution over planes, stored only: the library does not run it.

    has_bias follows from the bias_vector unless it is given.
    """

    kernel_height: int = 0
    kernel_width: int = 0
    stride_height: int = 1
    stride_width: int = 1
    padding_top: int = 0
    padding_bottom: int = 0
    padding_left: int = 0
    padding_right: int = 0
    dilation_height: int = 1
    dilation_width: int = 1
    groups: int = 1
    kernel: Array = parameter()  # (in x out channels / groups, kernel_height, kernel_width)
    bias_vector: Array = parameter()  # (output_channels,)
    has_bias: int = field(default=-1, kw_only=True)

    def __post_init__(self) -> None:
        if self.has_bias == -1:
            self.has_bias = int(len(self.bias_vector) > 0)

    def transfer(self, block: Block) -> None:
        block.integers(self, "kernel_height", "kernel_width", "stride_height", "stride_width")
        block.integers(self, "padding_top", "padding_bottom", "padding_left", "padding_right")
        block.integers(self, "dilation_height", "dilation_width", "groups", "has_bias")
        block.at_least("groups", self.groups, 1)
        block.at_least("input channels", self.input_channels, 0)
        block.at_least("output channels", self.output_channels, 0)
        count, rest = divmod(self.input_channels * self.output_channels, self.groups)
        block.equal("pairs of channels modulo groups", rest, 0)
        block.array(self, "kernel", (count, self.kernel_height, self.kernel_width))
        if self.has_bias != 0:
            block.array(self, "bias_vector", (self.output_channels,))


@dataclass(eq=False)
class _Composite(ChannelLayer):
    """A layer that consists of whole layers, stored only: the library does not run it."""

    count: ClassVar[int]

    components: list[Layer] = field(default_factory=list)

    def transfer(self, block: Block) -> None:
        block.layers(self, "components", self.count)


@layer_type(0x302)
@dataclass(eq=False)
class ConvBN2d(_Composite):
    """Convolution, batch normalisation, parametric rectifier."""

    count: ClassVar[int] = 3


@layer_type(0x303)
@dataclass(eq=False)
class ConvDW2d(_Composite):
    """Convolution, batch normalisation, parametric rectifier, and all three again."""

    count: ClassVar[int] = 6


@layer_type(0x304)
@dataclass(eq=False)
class SeperableConv2d(_Composite):
    """Convolution, parametric rectifier, convolution."""

    count: ClassVar[int] = 3


@dataclass(eq=False)
class _Simple(ChannelLayer):
    """Three weights over the positions of a row for every pair of channels."""

    kernel: Array = parameter()  # (output_channels, input_channels, 3)
    bias_vector: Array = parameter()  # (output_channels,)

    def transfer(self, block: Block) -> None:
        block.array(self, "kernel", (self.output_channels, self.input_channels, 3))
        block.array(self, "bias_vector", (self.output_channels,))


@layer_type(0x305)
@dataclass(eq=False)
class SimpleConv2d1x3s2(_Simple):
    """output[i] = bias + sum of input[2i - 1] w0 + input[2i] w1 + input[2i + 1] w2.

    Halves the width; the output dimension is input_dim // 2 when it is not set.
    """


@layer_type(0x306)
@dataclass(eq=False)
class SimpleDeconv2d1x3s2(_Simple):
    """input[i] times w0, w1, w2 is added to output[2i - 1], [2i], [2i + 1], from bias on.

    Doubles the width.
    """
