"""From what users give to the arrays that the library reads: float32 in C order."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .errors import InputError

Floats = NDArray[np.float32]

MOST_FRAMES = 2**31 - 1  # of rows, and of values in a row: the library counts in 32 bits


def text_of(shape: tuple[int, ...]) -> str:
    """A shape as messages show it."""
    return " x ".join(map(str, shape)) if shape else "no dimensions"


def floats_of(values: ArrayLike, what: str, wanted: str, rank: int, copy: bool) -> Floats:
    """`values` as float32 in C order, with that rank.

    An array that already is so is taken as it is unless `copy`. Real numbers, integers and truth
    values of any size, byte order and memory order are converted; complex numbers, texts and objects
    are refused, and so are finite numbers that float32 does not hold. NaN and infinities pass.

    Raises InputError with what was found and `wanted`.
    """
    given = _array_of(values, what, wanted)
    if given.ndim != rank:
        raise InputError(f"{what}: {text_of(given.shape)} found, {wanted} wanted")
    if max(given.shape) > MOST_FRAMES:
        raise InputError(f"{what}: {text_of(given.shape)} found, at most {MOST_FRAMES} of each wanted")
    with np.errstate(over="ignore", invalid="ignore"):
        floats = np.array(given, np.float32, order="C", copy=copy or None) if copy else (
            np.ascontiguousarray(given, np.float32)
        )
    if given.dtype != np.float32 and given.dtype.kind == "f" and given.dtype.itemsize > 4:
        beyond = np.isinf(floats) & np.isfinite(given)
        if beyond.any():
            place = tuple(int(i) for i in np.argwhere(beyond)[0])
            raise InputError(f"{what}: {given[place]} at {place} is beyond float32")
    return floats


def _array_of(values: ArrayLike, what: str, wanted: str) -> NDArray[Any]:
    try:
        given = np.asarray(values)
    except ValueError as error:  # rows of different lengths
        raise InputError(f"{what}: {error}; {wanted} wanted") from None
    if given.dtype.kind not in "fiub":
        raise InputError(f"{what}: values of type {given.dtype} found, real numbers wanted")
    return given
