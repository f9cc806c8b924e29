"""Attention blocks, positions, and the memory block."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import ClassVar

from handwriting_forward.model.block import Block, Layer, RowLayer, layer_type, parameter
from handwriting_forward.model.codes import Array


@layer_type(0x108)
@dataclass(eq=False)
class PositionalEncoding(RowLayer):
    """output = input + sin(t w), cos(t w) in columns 2k and 2k + 1, w = 10000^(-2k / input_dim)."""

    keeps_width: ClassVar[bool] = True


@dataclass(eq=False)
class _AttentionLayer(RowLayer):
    """Layers around an attention of head_num heads over rows of d = input_dim = output_dim."""

    head_num: int = 1

    def transfer_head_num(self, block: Block) -> None:
        block.integers(self, "head_num")
        block.at_least("input dimension", self.input_dim, 1)
        block.equal("output dimension", self.output_dim, self.input_dim)
        block.at_least("head_num", self.head_num, 1)
        block.equal("input dimension modulo head_num", self.input_dim % self.head_num, 0)

    def check_widths(self, block: Block, name: str) -> None:
        """The layers of the group map d to d."""
        for i, layer in enumerate(getattr(self, name)):
            widths, wanted = (layer.input_dim, layer.output_dim), (self.input_dim, self.output_dim)
            block.require(widths == wanted, f"{name}[{i}]: {widths} found, {wanted} wanted")

    def check_feed_forward(self, block: Block, layers: list[Layer]) -> None:
        """The first maps d to F >= d, the second back."""
        found = [(layer.input_dim, layer.output_dim) for layer in layers]
        hidden = max(layers[0].output_dim or 0, self.input_dim)
        wanted = [(self.input_dim, hidden), (hidden, self.output_dim)]
        block.require(found == wanted, f"ff_layers: {found} found, {wanted} wanted")


@layer_type(0x109)
@dataclass(eq=False)
class Encoder(_AttentionLayer):
    """x' = x + P(attention of Q K V over N0(x)); output = x' + B(max(0, A(N1(x')))).

    The hidden width F of A and B is at least d.
    """

    self_atten_layers: list[Layer] = field(default_factory=list)  # Q, K, V, P: d to d
    ff_layers: list[Layer] = field(default_factory=list)  # A: d to F, B: F to d
    sub_layers: list[Layer] = field(default_factory=list)  # N0, N1: d to d

    def transfer(self, block: Block) -> None:
        self.transfer_head_num(block)
        block.layers(self, "self_atten_layers", 4)
        self.check_widths(block, "self_atten_layers")
        block.layers(self, "ff_layers", 2)
        self.check_feed_forward(block, self.ff_layers)
        block.layers(self, "sub_layers", 2)
        self.check_widths(block, "sub_layers")


@layer_type(0x10A)
@dataclass(eq=False)
class Decoder(_AttentionLayer):
    """As Encoder, step by step, with an attention over a memory between the two sums."""

    self_atten_layers: list[Layer] = field(default_factory=list)  # Q, K, V, P: d to d
    cross_atten_layers: list[Layer] = field(default_factory=list)  # Q', K', V', P': d to d
    ff_layers: list[Layer] = field(default_factory=list)  # A: d to F, B: F to d
    sub_layers: list[Layer] = field(default_factory=list)  # N0, N1, N2: d to d

    def transfer(self, block: Block) -> None:
        self.transfer_head_num(block)
        for name in ("self_atten_layers", "cross_atten_layers"):
            block.layers(self, name, 4)
            self.check_widths(block, name)
        block.layers(self, "ff_layers", 2)
        self.check_feed_forward(block, self.ff_layers)
        block.layers(self, "sub_layers", 3)
        self.check_widths(block, "sub_layers")


@layer_type(0x107)
@dataclass(eq=False)
class Fsmn(RowLayer):
    """output[t] = input[t] + sum over k of filter[k] * input[t + (k - l_order) stride].

    depend = -i also adds the sums of the i-th Fsmn before this one. output_dim equals input_dim.
    """

    l_order: int = 0
    r_order: int = 0
    stride: int = 1
    depend: int = 0
    filter: Array = parameter()  # (l_order + r_order + 1, input_dim)

    def transfer(self, block: Block) -> None:
        block.integers(self, "l_order", "r_order", "stride", "depend")
        block.at_least("input dimension", self.input_dim, 1)
        block.equal("output dimension", self.output_dim, self.input_dim)
        for name in ("l_order", "r_order", "stride"):
            block.at_least(name, getattr(self, name), 0)
        block.require(self.depend <= 0, f"depend {self.depend} found, at most 0 wanted")
        context = max(self.l_order, self.r_order) * self.stride
        block.require(context < 2**31, f"context {context} found, less than 2^31 wanted")
        block.array(self, "filter", (self.l_order + self.r_order + 1, self.input_dim))
