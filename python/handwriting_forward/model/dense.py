"""Dense layers, activations, the highway, normalisations, and layers with a value a column."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import ClassVar

from handwriting_forward.model.block import Block, ChannelLayer, RowLayer, layer_type, parameter
from handwriting_forward.model.codes import Array, AsymmetricCodes, Parameter, SymmetricCodes


@layer_type(0x100)
@dataclass(eq=False)
class AffineTransform(RowLayer):
    """output = weights @ input + bias."""

    code_type: ClassVar = AsymmetricCodes

    bias: Parameter = parameter()  # (output_dim,)
    weights: Parameter = parameter()  # (output_dim, input_dim)

    def transfer(self, block: Block) -> None:
        block.array(self, "bias", (self.output_dim,))
        block.array(self, "weights", (self.output_dim, self.input_dim))


@layer_type(0x101)
@dataclass(eq=False)
class LinearTransform(RowLayer):
    """output = weights @ input."""

    code_type: ClassVar = SymmetricCodes

    weights: Parameter = parameter()  # (output_dim, input_dim)

    def transfer(self, block: Block) -> None:
        block.array(self, "weights", (self.output_dim, self.input_dim))


@layer_type(0x10B)
@dataclass(eq=False)
class Embedding(RowLayer):
    """output = scale * (weights @ input)."""

    code_type: ClassVar = SymmetricCodes

    scale: float = 1.0
    weights: Parameter = parameter()  # (output_dim, input_dim)

    def transfer(self, block: Block) -> None:
        block.reals(self, "scale")
        block.array(self, "weights", (self.output_dim, self.input_dim))


@dataclass(eq=False)
class _Activation(RowLayer):
    """A function of the values of a row; rows keep their width."""

    keeps_width: ClassVar[bool] = True


@layer_type(0x201)
@dataclass(eq=False)
class Softmax(_Activation):
    """output = exp(input - max) / sum over the row."""


@layer_type(0x202)
@dataclass(eq=False)
class Sigmoid(_Activation):
    """output = 1 / (1 + exp(-input))."""


@layer_type(0x203)
@dataclass(eq=False)
class ReLU(_Activation):
    """output = max(input, 0)."""


@layer_type(0x204)
@dataclass(eq=False)
class LogSoftmax(_Activation):
    """output = log(softmax(input))."""


@layer_type(0x205)
@dataclass(eq=False)
class PReLU(_Activation):
    """output = input if input > 0 else alpha * input."""

    alpha: float = 0.0

    def transfer(self, block: Block) -> None:
        block.reals(self, "alpha")


@dataclass(eq=False)
class PlaneLayer(ChannelLayer):
    """A layer whose planes leave as they come; output_channels equals input_channels."""

    keeps_width: ClassVar[bool] = True

    def transfer_header(self, block: Block) -> None:
        super().transfer_header(block)
        block.equal("output channels", self.output_channels, self.input_channels)


@layer_type(0x206)
@dataclass(eq=False)
class ReLU2d(PlaneLayer):
    """output = max(input, 0), on planes."""


@layer_type(0x207)
@dataclass(eq=False)
class PReLU2d(PlaneLayer):
    """output = input if input > 0 else alpha * input, on planes."""

    alpha: float = 0.0

    def transfer(self, block: Block) -> None:
        block.reals(self, "alpha")


@layer_type(0x10F)
@dataclass(eq=False)
class Highway(RowLayer):
    """output = h g + input (1 - g), h = relu(transform(input)), g = sigmoid(gate(input)).

    Both dimensions are the same, D. The fixed-point code holds the same floats.
    """

    transform_weights: Array = parameter()  # (D, D)
    gate_weights: Array = parameter()  # (D, D)
    transform_bias: Array = parameter()  # (D,)
    gate_bias: Array = parameter()  # (D,)

    def transfer(self, block: Block) -> None:
        block.equal("output dimension", self.output_dim, self.input_dim)
        block.array(self, "transform_weights", (self.input_dim, self.input_dim))
        block.array(self, "gate_weights", (self.input_dim, self.input_dim))
        block.array(self, "transform_bias", (self.input_dim,))
        block.array(self, "gate_bias", (self.input_dim,))


@layer_type(0x404)
@dataclass(eq=False)
class NormalizeComponent(RowLayer):
    """output = input / sqrt(sum of squares / (target_rms^2 input_dim)), row by row."""

    keeps_width: ClassVar[bool] = True

    target_rms: float = 1.0

    def transfer(self, block: Block) -> None:
        block.reals(self, "target_rms")


@layer_type(0x405)
@dataclass(eq=False)
class BatchNormComponent(RowLayer):
    """output = (input - mean) / sqrt(variance), per column; block_dim is input_dim."""

    keeps_width: ClassVar[bool] = True

    mean: Array = parameter()  # (input_dim,)
    variance: Array = parameter()  # (input_dim,)
    block_dim: int = field(default=-1, kw_only=True)

    def __post_init__(self) -> None:
        if self.block_dim == -1:
            self.block_dim = self.input_dim

    def transfer(self, block: Block) -> None:
        block.integers(self, "block_dim")
        block.equal("block_dim", self.block_dim, self.input_dim)
        block.array(self, "mean", (self.input_dim,))
        block.array(self, "variance", (self.input_dim,))


@layer_type(0x406)
@dataclass(eq=False)
class LayerNorm(RowLayer):
    """output = gamma (input - mean) / (epsilon + deviation) + beta, row by row.

    The deviation is the unbiased one of the row; epsilon is added to it, not to the variance.
    norm_dim is input_dim.
    """

    keeps_width: ClassVar[bool] = True

    epsilon: float = 0.0
    gamma: Array = parameter()  # (input_dim,)
    beta: Array = parameter()  # (input_dim,)
    norm_dim: int = field(default=-1, kw_only=True)

    def __post_init__(self) -> None:
        if self.norm_dim == -1:
            self.norm_dim = self.input_dim

    def transfer(self, block: Block) -> None:
        block.integers(self, "norm_dim")
        block.equal("norm_dim", self.norm_dim, self.input_dim)
        block.reals(self, "epsilon")
        block.array(self, "gamma", (self.input_dim,))
        block.array(self, "beta", (self.input_dim,))


@dataclass(eq=False)
class _Statistics:
    """The statistics of a batch normalisation of n columns or channels."""

    epsilon: float = 0.0
    mean: Array = parameter()  # (n,)
    variance: Array = parameter()  # (n,)
    gamma: Array = parameter()  # (n,)
    beta: Array = parameter()  # (n,)

    def transfer_statistics(self, block: Block, n: int) -> None:
        block.reals(self, "epsilon")
        for name in ("mean", "variance", "gamma", "beta"):
            block.array(self, name, (n,))


@layer_type(0x407)
@dataclass(eq=False)
class BatchNorm2d(_Statistics, PlaneLayer):
    """output = gamma (input - mean) / sqrt(variance + epsilon) + beta, per channel."""

    def transfer(self, block: Block) -> None:
        self.transfer_statistics(block, self.input_channels)


@layer_type(0x409)
@dataclass(eq=False)
class BatchNorm1d(_Statistics, RowLayer):
    """output = gamma (input - mean) / sqrt(variance + epsilon) + beta, per column."""

    keeps_width: ClassVar[bool] = True

    def transfer(self, block: Block) -> None:
        self.transfer_statistics(block, self.input_dim)


@layer_type(0x401)
@dataclass(eq=False)
class Splice(RowLayer):
    """output[t] = the frames t + offset side by side; output_dim is input_dim times the offsets.

    The offsets ascend and reach from first <= 0 to last >= 0.
    """

    offsets: list[int] = field(default_factory=list)

    def transfer(self, block: Block) -> None:
        block.at_least("input dimension", self.input_dim, 1)
        block.at_least("output dimension", self.output_dim, 1)
        count, rest = divmod(self.output_dim, self.input_dim)
        block.equal("output dimension modulo input dimension", rest, 0)
        block.integer_list(self, "offsets", count)
        offsets = self.offsets
        ascending = all(a < b for a, b in zip(offsets, offsets[1:], strict=False))
        block.require(ascending and offsets[0] <= 0 <= offsets[-1], f"wrong offsets {offsets[:9]}")


@layer_type(0x402)
@dataclass(eq=False)
class AddShift(RowLayer):
    """output = input + shift."""

    keeps_width: ClassVar[bool] = True

    shift: Array = parameter()  # (input_dim,)

    def transfer(self, block: Block) -> None:
        block.array(self, "shift", (self.input_dim,))


@layer_type(0x403)
@dataclass(eq=False)
class Rescale(RowLayer):
    """output = input * scale."""

    keeps_width: ClassVar[bool] = True

    scale: Array = parameter()  # (input_dim,)

    def transfer(self, block: Block) -> None:
        block.array(self, "scale", (self.input_dim,))


@layer_type(0x408)
@dataclass(eq=False)
class AddComponent(RowLayer):
    """output = the sum over k of weights[k] * block k of input; input_num blocks of output_dim."""

    input_num: int = 1
    weights: Array = parameter()  # (input_num,)

    def transfer(self, block: Block) -> None:
        block.integers(self, "input_num")
        block.at_least("input_num", self.input_num, 1)
        block.equal("input dimension", self.input_dim, self.input_num * self.output_dim)
        block.array(self, "weights", (self.input_num,))


@layer_type(0x600)
@dataclass(eq=False)
class Prior(RowLayer):
    """output = input - prior; a prior is the logarithm of a probability."""

    keeps_width: ClassVar[bool] = True

    prior: Array = parameter()  # (input_dim,)

    def transfer(self, block: Block) -> None:
        block.array(self, "prior", (self.input_dim,))
