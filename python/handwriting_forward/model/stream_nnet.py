"""Layers for an input that arrives in chunks; each has the block of its twin for whole inputs."""

from __future__ import annotations

from dataclasses import dataclass
from typing import ClassVar

from handwriting_forward.model.block import Block, RowLayer, layer_type
from handwriting_forward.model.convolution import Conv1d, ConvTranspose1d, MaxPool1d
from handwriting_forward.model.flow import ConstantPad, Parts, ReflectionPad


@layer_type(0x1000)
@dataclass(eq=False)
class StreamConv1d(Conv1d):
    """Conv1d over a stream."""


@layer_type(0x1001)
@dataclass(eq=False)
class StreamConvTranspose1d(ConvTranspose1d):
    """ConvTranspose1d over a stream."""


@layer_type(0x1002)
@dataclass(eq=False)
class StreamMaxPool1d(MaxPool1d):
    """MaxPool1d over a stream."""


@layer_type(0x1100)
@dataclass(eq=False)
class StreamRegisterComponent(RowLayer):
    """output = input, of which a copy is kept for streaming concatenations."""

    keeps_width: ClassVar[bool] = True

    register_name: str = ""

    def transfer(self, block: Block) -> None:
        block.string(self, "register_name")
        block.require(self.register_name != "", "register_name is empty")


@layer_type(0x1101)
@dataclass(eq=False)
class StreamConcatenateComponent(Parts, RowLayer):
    """ConcatenateComponent over a stream; every part is input_dim wide."""


@layer_type(0x1102)
@dataclass(eq=False)
class StreamReflectionPad(ReflectionPad):
    """ReflectionPad over a stream."""


@layer_type(0x1103)
@dataclass(eq=False)
class StreamConstantPad(ConstantPad):
    """ConstantPad over a stream."""


@layer_type(0x1104)
@dataclass(eq=False)
class StreamSliceComponent(RowLayer):
    """output = input without its first s frames; s is the first number of index_text."""

    keeps_width: ClassVar[bool] = True

    index_text: str = ""

    def transfer(self, block: Block) -> None:
        block.string(self, "index_text")
