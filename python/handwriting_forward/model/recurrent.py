"""LSTM and GRU layers, in one direction and in both.

Gate matrices have one block of rows a gate; the order of the blocks is part of the format.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import ClassVar

from handwriting_forward.model.block import Block, RowLayer, layer_type, parameter
from handwriting_forward.model.codes import AsymmetricCodes, Parameter, SymmetricCodes


@dataclass(eq=False)
class _Gates:
    """The parameters of one direction of c cells and G gates."""

    gates: ClassVar[int]

    input_weights: Parameter = parameter()  # (G c, input_dim)
    recurrent_weights: Parameter = parameter()  # (G c, c)
    input_bias: Parameter = parameter()  # (G c,)
    recurrent_bias: Parameter = parameter()  # (G c,)

    def transfer_arrays(self, block: Block, input_dim: int, cell_dim: int) -> None:
        gate_dim = self.gates * cell_dim
        block.array(self, "input_weights", (gate_dim, input_dim))
        block.array(self, "recurrent_weights", (gate_dim, cell_dim))
        block.array(self, "input_bias", (gate_dim,))
        block.array(self, "recurrent_bias", (gate_dim,))


@dataclass(eq=False)
class LstmDirection(_Gates):
    """One direction of an LSTM of c cells: four gates, in the order i, f, g, o.

    G = W x + b_in + R h + b_rec; c' = s(G_f) c + s(G_i) tanh(G_g); h' = s(G_o) tanh(c').
    """

    gates: ClassVar[int] = 4


@dataclass(eq=False)
class GruDirection(_Gates):
    """One direction of a GRU of c cells: three gates, in the order r, z, n.

    n = tanh(W_n x + b_n + r (R_n h + c_n)); h' = (1 - z) n + z h.
    """

    gates: ClassVar[int] = 3


@dataclass(eq=False)
class ProjectedLstmDirection:
    """One direction of a projected LSTM of c cells and P outputs: gates in the order g, i, f, o.

    G = W x + b + R r, with peepholes p c in i, f and o; r' = P_w (s(G_o) tanh(c')) + P_b.
    """

    input_weights: Parameter = parameter()  # (4c, input_dim)
    recurrent_weights: Parameter = parameter()  # (4c, P)
    bias: Parameter = parameter()  # (4c,)
    peephole_input: Parameter = parameter()  # (c,)
    peephole_forget: Parameter = parameter()  # (c,)
    peephole_output: Parameter = parameter()  # (c,)
    projection_weights: Parameter = parameter()  # (P, c)
    projection_bias: Parameter = parameter()  # (P,)

    def transfer_arrays(self, block: Block, input_dim: int, cell_dim: int, outputs: int) -> None:
        block.array(self, "input_weights", (4 * cell_dim, input_dim))
        block.array(self, "recurrent_weights", (4 * cell_dim, outputs))
        block.array(self, "bias", (4 * cell_dim,))
        for name in ("peephole_input", "peephole_forget", "peephole_output"):
            block.array(self, name, (cell_dim,))
        block.array(self, "projection_weights", (outputs, cell_dim))
        block.array(self, "projection_bias", (outputs,))


@dataclass(eq=False)
class _RecurrentLayer(RowLayer):
    """The cells of a direction are cell_dim; unless given, as many as its output values."""

    code_type: ClassVar = SymmetricCodes
    directions: ClassVar[int] = 1
    projects: ClassVar[bool] = False

    cell_dim: int = field(default=0, kw_only=True)

    def __post_init__(self) -> None:
        if self.cell_dim == 0:
            self.cell_dim = self.output_dim // self.directions

    def outputs(self) -> int:
        """Output values of one direction."""
        return self.output_dim // self.directions

    def transfer_cell_dim(self, block: Block) -> None:
        block.integers(self, "cell_dim")
        block.at_least("cell_dim", self.cell_dim, 1)
        block.at_least("output dimension", self.output_dim, 1)
        block.equal("output dimension modulo directions", self.output_dim % self.directions, 0)
        if self.projects:
            block.at_least("cell_dim", self.cell_dim, self.outputs())
        else:
            block.equal("cell_dim", self.cell_dim, self.outputs())


@layer_type(0x103)
@dataclass(eq=False)
class Lstm(LstmDirection, RowLayer):
    """An LSTM forward, of output_dim cells; output = h."""

    code_type: ClassVar = SymmetricCodes

    def transfer(self, block: Block) -> None:
        block.at_least("output dimension", self.output_dim, 1)
        self.transfer_arrays(block, self.input_dim, self.output_dim)


@layer_type(0x106)
@dataclass(eq=False)
class LstmProjectedNnet3Streams(ProjectedLstmDirection, _RecurrentLayer):
    """A projected LSTM forward, P = output_dim <= cell_dim; output = r."""

    projects: ClassVar[bool] = True

    def transfer(self, block: Block) -> None:
        self.transfer_cell_dim(block)
        self.transfer_arrays(block, self.input_dim, self.cell_dim, self.outputs())


@layer_type(0x10E)
@dataclass(eq=False)
class Blstm(_RecurrentLayer):
    """An LSTM in both directions; output = [h forward, h backward], so output_dim is twice c.

    The parameters are stored as binary16: they come back rounded.
    """

    float_type: ClassVar[str] = "<f2"
    code_type: ClassVar = AsymmetricCodes
    directions: ClassVar[int] = 2

    forward: LstmDirection = field(default_factory=LstmDirection)
    backward: LstmDirection = field(default_factory=LstmDirection)

    def transfer(self, block: Block) -> None:
        self.transfer_cell_dim(block)
        for name in ("forward", "backward"):
            with block.at(name):
                getattr(self, name).transfer_arrays(block, self.input_dim, self.cell_dim)


@layer_type(0x10C)
@dataclass(eq=False)
class BlstmProjectedNnet3Streams(_RecurrentLayer):
    """A projected LSTM in both directions; output = [r forward, r backward], P = output_dim / 2."""

    directions: ClassVar[int] = 2
    projects: ClassVar[bool] = True

    forward: ProjectedLstmDirection = field(default_factory=ProjectedLstmDirection)
    backward: ProjectedLstmDirection = field(default_factory=ProjectedLstmDirection)

    def transfer(self, block: Block) -> None:
        self.transfer_cell_dim(block)
        for name in ("forward", "backward"):
            with block.at(name):
                direction: ProjectedLstmDirection = getattr(self, name)
                direction.transfer_arrays(block, self.input_dim, self.cell_dim, self.outputs())


@layer_type(0x10D)
@dataclass(eq=False)
class Gru(GruDirection, _RecurrentLayer):
    """A GRU forward, of output_dim cells; output = h."""

    def transfer(self, block: Block) -> None:
        self.transfer_cell_dim(block)
        self.transfer_arrays(block, self.input_dim, self.cell_dim)


@layer_type(0x110)
@dataclass(eq=False)
class BGru(_RecurrentLayer):
    """A GRU in both directions; output = [h forward, h backward], so output_dim is twice c."""

    directions: ClassVar[int] = 2

    forward: GruDirection = field(default_factory=GruDirection)
    backward: GruDirection = field(default_factory=GruDirection)

    def transfer(self, block: Block) -> None:
        self.transfer_cell_dim(block)
        for name in ("forward", "backward"):
            with block.at(name):
                getattr(self, name).transfer_arrays(block, self.input_dim, self.cell_dim)
