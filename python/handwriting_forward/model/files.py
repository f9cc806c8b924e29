"""Whole models: to bytes and back, to files and back, and compared."""

from __future__ import annotations

import os
from collections.abc import Sequence
from pathlib import Path

import numpy as np

from handwriting_forward.model.block import (
    Block,
    BlockFiller,
    BlockReader,
    BlockWriter,
    ChannelLayer,
    Layer,
    Network,
)


def model_bytes(networks: Sequence[Sequence[Layer]]) -> bytes:
    """The bytes of a model file."""
    block = BlockWriter()
    for position, network in enumerate(networks):
        with block.at(f"network {position + 1}"):
            block.number("number of layers", len(network), "<I")
            for i, layer in enumerate(network):
                with block.at(f"layer {i}"):
                    if i > 0:
                        _check_fit(block, network[i - 1], layer)
                    block.component(layer)
    return bytes(block.written)


def write_model(path: str | os.PathLike[str], networks: Sequence[Sequence[Layer]]) -> None:
    """Writes the networks; the file replaces an older one only when it is complete."""
    written = model_bytes(networks)
    temporary = Path(f"{os.fspath(path)}.{os.getpid()}.tmp")
    try:
        temporary.write_bytes(written)
        os.replace(temporary, path)
    finally:
        temporary.unlink(missing_ok=True)


def read_model(source: str | os.PathLike[str] | bytes | bytearray | memoryview) -> list[Network]:
    """Reads all networks of a file, or of its bytes."""
    if isinstance(source, (bytes, bytearray, memoryview)):
        block = BlockReader(source)
    else:
        block = BlockReader(Path(source).read_bytes(), os.fspath(source))
    networks: list[Network] = []
    while not block.at_end():
        with block.at(f"network {len(networks) + 1}"):
            network: Network = []
            for i in range(block.number("number of layers", 0, "<I")):
                with block.at(f"layer {i}"):
                    network.append(block.component(None))
        networks.append(network)
    return networks


def networks_equal(a: Sequence[Sequence[Layer]], b: Sequence[Sequence[Layer]]) -> bool:
    """Whether two models are stored as the same bytes; a NaN so equals itself."""
    return model_bytes(a) == model_bytes(b)


def random_parameters(layer: Layer, rng: np.random.Generator) -> Layer:
    """Fills all arrays of the layer and of those in it: floats in -1 … 1, or any codes."""
    return BlockFiller(rng).component(layer)


def _check_fit(block: Block, before: Layer, after: Layer) -> None:
    if after.ignores_input():
        return
    block.same("input dimension", after.set_dims()[0], before.given_width())
    if isinstance(before, ChannelLayer) and isinstance(after, ChannelLayer):
        block.equal("input channels", after.input_channels, before.output_channels)
