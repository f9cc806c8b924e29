"""Arrays of 8-bit codes, as fixed-point layers store them."""

from __future__ import annotations

import abc
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, TypeAlias

import numpy as np
import numpy.typing as npt

if TYPE_CHECKING:
    from handwriting_forward.model.block import Block

Array: TypeAlias = npt.NDArray[Any]


@dataclass(eq=False)
class CodeArray(abc.ABC):
    """An array of 8-bit codes, as fixed-point layers store it.

    `values` are the floats that the codes stand for; NumPy takes the codes for these floats.
    """

    codes: Array = field(default_factory=lambda: np.zeros(0, np.uint8), repr=False)
    scale: float = 1.0

    @property
    @abc.abstractmethod
    def values(self) -> Array:
        """The decoded values, float32, of the shape of the codes."""

    @property
    def shape(self) -> tuple[int, ...]:
        """The shape of the array."""
        return self.codes.shape

    @abc.abstractmethod
    def transfer(self, block: Block, shape: tuple[int, ...]) -> None:
        """Transfers what the file has of an array of the shape."""

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> Array:
        return self.values if dtype is None else self.values.astype(dtype)


@dataclass(eq=False)
class SymmetricCodes(CodeArray):
    """int8 codes; code q stands for q / scale."""

    @property
    def values(self) -> Array:
        with np.errstate(divide="ignore", invalid="ignore"):
            return np.divide(self.codes, np.float32(self.scale), dtype=np.float32)

    def transfer(self, block: Block, shape: tuple[int, ...]) -> None:
        block.reals(self, "scale")
        self.codes = block.values("codes", self.codes, shape, "<i1")


@dataclass(eq=False)
class AsymmetricCodes(CodeArray):
    """uint8 codes; code q stands for (q + zero_point) / scale."""

    zero_point: int = 0
    # (rows,), the sum of the codes of each row, of matrices only; stored, not used.
    row_sums: Array = field(default_factory=lambda: np.zeros(0, np.float32), repr=False)

    @property
    def values(self) -> Array:
        shifted = (self.codes.astype(np.int64) + self.zero_point).astype(np.float32)
        with np.errstate(divide="ignore", invalid="ignore"):
            return np.divide(shifted, np.float32(self.scale), dtype=np.float32)

    def transfer(self, block: Block, shape: tuple[int, ...]) -> None:
        block.reals(self, "scale")
        block.integers(self, "zero_point")
        if len(shape) == 2:
            self.row_sums = block.values("row_sums", self.row_sums, shape[:1], "<f4")
        self.codes = block.values("codes", self.codes, shape, "<u1")


Parameter: TypeAlias = Array | CodeArray
