"""Writes PyTorch modules as a model file, once it has been run beside them."""

from __future__ import annotations

import contextlib
import os
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Any

import numpy as np
import torch
from numpy.typing import ArrayLike
from torch import nn

from .. import _core, model
from ..arrays import floats_of
from ..errors import ExportError, HandwritingError, InputError
from ..network import Network
from ..recognizer import Recognizer
from . import checks
from .graph import Compiled, compile_module
from .rules import Floats

RANDOM_FRAMES = 64
CHUNK = 16  # frames that the second network of a recognizer gets at a time
_OF_A_RECOGNIZER = 2  # networks


@dataclass(frozen=True)
class LayerReport:
    """A layer that was written: its position from 0, its dimensions, its parameters, and the
    operation of the module that it stands for; with check_fixed how far the output of its 8-bit form
    is from that of its float form, relative to the largest value there."""

    position: int
    marker: str
    input_dim: int
    output_dim: int
    parameters: int
    operation: str
    fixed_deviation: float | None = None


@dataclass(frozen=True)
class NetworkReport:
    """A network that was written.

    deviation: the largest difference between library and PyTorch.
    largest: the largest value that PyTorch gave.
    rounding: the largest difference that rounded parameters make in PyTorch; None where none is.
    frames: the lengths of the lines that were compared.
    chunk: frames of the chunks in which they were compared as well; None where the network needs
        whole lines.
    layers: the layers.
    """

    deviation: float
    largest: float
    rounding: float | None
    frames: tuple[int, ...]
    chunk: int | None
    layers: tuple[LayerReport, ...]


@dataclass(frozen=True)
class Report:
    """What `export` wrote: the path and its bytes, the networks, whether the features were random,
    and the path of the 8-bit form, None where it was not asked for."""

    path: Path
    bytes: int
    networks: tuple[NetworkReport, ...]
    random_features: bool
    fixed_path: Path | None = None
    fixed_bytes: int = 0

    def __str__(self) -> str:
        features = "random features" if self.random_features else "the features given"
        lines = [f"{self.path}: {self.bytes} bytes, compared with PyTorch on {features}"]
        if self.fixed_path is not None:
            lines.append(f"{self.fixed_path}: {self.fixed_bytes} bytes")
        for number, network in enumerate(self.networks, 1):
            lines += _text_of(number, network)
        return "\n".join(lines)


def _text_of(number: int, network: NetworkReport) -> Iterator[str]:
    counts = ", ".join(map(str, network.frames))
    chunks = "" if network.chunk is None else f" and in chunks of {network.chunk}"
    yield (
        f"network {number}: differs by {network.deviation:.2g} at most (largest value "
        f"{network.largest:.3g}) on {counts} frames, whole{chunks}"
    )
    if network.rounding is not None:
        yield f"  parameters rounded to binary16 change PyTorch's own result by {network.rounding:.2g}"
    width = max(len(layer.marker) for layer in network.layers)
    for layer in network.layers:
        dims = f"{layer.input_dim:5} -> {layer.output_dim:<5}"
        fixed = "" if layer.fixed_deviation is None else f"  8-bit {layer.fixed_deviation:8.2g}"
        yield (
            f"  {layer.position:3} {layer.marker:{width}} {dims} {layer.parameters:8} parameters"
            f"{fixed}  {layer.operation}"
        )


def export(
    path: str | os.PathLike[str],
    networks: Sequence[nn.Module],
    features: ArrayLike | None = None,
    tolerance: float = 1e-3,
    *,
    input_dim: int | None = None,
    streaming: bool = False,
    check_fixed: bool = False,
) -> Report:
    """Writes modules as the networks of a model file; returns what was written.

    networks: modules that take and give lines x frames x columns, each what the one before it gives.
        A recognizer has two: the first gets whole lines, the second chunks of 16 frames; both give
        as many frames as they get. Modules are taken in evaluation mode and keep their own.
    features: frames x columns to compare with, or random ones in 0 … 1 when None.
    tolerance: largest difference between library and PyTorch, relative to the largest value of a
        line where that is more than 1.
    input_dim: columns of the features, where these are None and the module does not tell.
    streaming: writes convolutions, pooling, padding and joins in their forms for inputs that come in
        chunks.
    check_fixed: also writes the 8-bit form, PATH with "-fixed" before its suffix, and reports how far
        the output of every layer of it is from that of the float form.

    The file takes its name only when library and PyTorch agree, on lines of 1 frame, 2, all and a
    larger prime number of frames, whole, and in chunks where the network can.

    Raises ExportError that names all operations that no layer computes, each with its place and what
    could stand in it, or the first layer that differs. Nothing is written then.
    """
    if not isinstance(networks, (list, tuple, nn.ModuleList)):
        raise ExportError("networks: a list of modules wanted, one for every network")
    modules = list(networks)
    with _evaluation(modules):
        lines = _lines(features, modules, input_dim)
        compiled = _compile(modules, lines[0].shape[1], streaming)
        return _write_checked(Path(path), compiled, lines, tolerance, features is None, check_fixed)


@contextlib.contextmanager
def _evaluation(modules: Sequence[nn.Module]) -> Iterator[None]:
    """Evaluation mode, and then the mode that every module had."""
    modes = [(each, each.training) for module in modules for each in module.modules()]
    try:
        for module in modules:
            module.eval()
        yield
    finally:
        for each, mode in modes:
            each.training = mode


def _lines(
    features: ArrayLike | None, modules: Sequence[nn.Module], dim: int | None
) -> list[Floats]:
    """Lines of 1 frame, 2, all, and a larger prime number of frames."""
    if features is None:
        dim = dim or _dim_of(modules[0] if modules else nn.Identity())
        frames = np.random.default_rng(1).random((RANDOM_FRAMES, dim), np.float32)
    else:
        frames = floats_of(features, "features", "frames x columns", 2, True)
        if frames.size == 0:
            raise InputError("features: no values")
    repeated = np.concatenate([frames] * (2 + 2 // len(frames)))
    counts = sorted({1, 2, len(frames), _prime_after(len(frames))})
    return [np.ascontiguousarray(repeated[:count]) for count in counts]


def _prime_after(number: int) -> int:
    while True:
        number += 1
        if number > 2 and all(number % each for each in range(2, int(number**0.5) + 1)):
            return number


def _dim_of(module: nn.Module) -> int:
    """The columns that a module takes, as its first layer with parameters says."""
    names = ("in_features", "input_size", "in_channels", "num_features", "embed_dim", "dim")
    for each in module.modules():
        for name in names:
            if isinstance(getattr(each, name, None), int):
                return int(getattr(each, name))
        if isinstance(each, nn.LayerNorm):
            return int(each.normalized_shape[-1])
    raise ExportError("how many columns a frame has is not known: give features, or input_dim")


def _compile(modules: Sequence[nn.Module], dim: int, streaming: bool) -> list[Compiled]:
    compiled: list[Compiled] = []
    problems = [] if modules else ["no network"]
    for number, module in enumerate(modules, 1):
        try:
            compiled.append(compile_module(module, dim, streaming))
            problems += [
                f"network {number}: {each}" for each in _values_not_finite(compiled[-1].layers)
            ]
            dim = compiled[-1].output_dim
        except ExportError as error:
            problems += [f"network {number}: {each}" for each in error.problems]
            dim = _dim_behind(module, dim)
        if dim == 0:
            break
    if problems:
        raise ExportError(*problems)
    return compiled


def _dim_behind(module: nn.Module, dim: int) -> int:
    """The columns that a module gives; 0 where it does not run."""
    with torch.no_grad(), contextlib.suppress(Exception):
        given = module(torch.zeros(1, RANDOM_FRAMES, dim))
        return int(given.shape[-1]) if isinstance(given, torch.Tensor) else 0
    return 0


def _arrays(value: Any, name: str) -> Iterator[tuple[str, Floats]]:
    """The arrays of a layer and of what is in it, by their names."""
    if isinstance(value, np.ndarray):
        yield name, value
    elif isinstance(value, list):
        for i, each in enumerate(value):
            yield from _arrays(each, f"{name}[{i}]")
    elif hasattr(value, "__dict__"):
        for part, each in vars(value).items():
            yield from _arrays(each, f"{name}.{part}" if name else part)


def _values_not_finite(layers: Sequence[model.Layer]) -> Iterator[str]:
    for position, layer in enumerate(layers):
        for name, values in _arrays(layer, ""):
            if not np.isfinite(values).all():
                yield f"layer {position} {layer.marker}: {name} has values that are not finite"


def _write_checked(
    path: Path,
    networks: Sequence[Compiled],
    lines: Sequence[Floats],
    tolerance: float,
    is_random: bool,
    check_fixed: bool,
) -> Report:
    fixed_path, fixed = None, b""
    try:
        content = model.model_bytes([each.layers for each in networks])
        with contextlib.ExitStack() as files:
            stored = files.enter_context(_named_at_the_end(path, content))
            reports = _check(stored, networks, lines, tolerance)
            if check_fixed:
                fixed_path = path.with_name(f"{path.stem}-fixed{path.suffix}")
                content = _core.convert(stored, path.name, True)[0]
                fixed = files.enter_context(_named_at_the_end(fixed_path, content))
                reports = _with_fixed(reports, stored, fixed, networks, lines[-1])
    except ExportError:
        raise
    except HandwritingError as error:
        raise ExportError(str(error)) from error
    return Report(path, len(stored), tuple(reports), is_random, fixed_path, len(fixed))


@contextlib.contextmanager
def _named_at_the_end(path: Path, content: bytes) -> Iterator[bytes]:
    """Writes a file beside its target and gives what is read back; it takes its name when all that is
    done with it has gone well."""
    temporary = path.with_name(f"{path.name}.{os.getpid()}.tmp")
    try:
        temporary.write_bytes(content)
        yield temporary.read_bytes()
        os.replace(temporary, path)
    finally:
        temporary.unlink(missing_ok=True)


def _check(
    stored: bytes, networks: Sequence[Compiled], lines: Sequence[Floats], tolerance: float
) -> list[NetworkReport]:
    """Compares every network with its module, on what the modules before it give."""
    if len(networks) == _OF_A_RECOGNIZER:
        Recognizer(stored).close()
    reports = []
    for index in range(len(networks)):
        try:
            report, lines = _check_network(stored, index, networks, lines, tolerance)
        except ExportError as error:
            raise ExportError(f"network {index + 1}: {error}") from error
        reports.append(report)
    return reports


def _check_network(
    stored: bytes,
    index: int,
    networks: Sequence[Compiled],
    lines: Sequence[Floats],
    tolerance: float,
) -> tuple[NetworkReport, list[Floats]]:
    """The report of one network, and what its module gives for the lines."""
    network = networks[index]
    of_recognizer = len(networks) == _OF_A_RECOGNIZER
    blocker = checks.first_without_stream(network.layers)
    chunk = CHUNK if blocker is None or (of_recognizer and index == 1) else None
    with checks.as_stored(networks):
        try:
            apart, counts, outputs = checks.check_network(
                stored, index, network, lines, chunk, tolerance
            )
        except ExportError as error:
            if chunk is None or blocker is None or "in chunks" not in str(error):
                raise
            raise ExportError(
                f"{error}\n    a recognizer gives its second network {CHUNK} frames at a time, and "
                f"layer {blocker} {network.layers[blocker].marker} needs whole lines: move it into "
                "the first network"
            ) from error
    given = [len(each) for each in outputs]
    if of_recognizer and given != counts:
        raise ExportError(
            f"{counts} frames give {given}: a recognizer's networks give as many frames as they get"
        )
    rounding = None
    if network.rounded.parameters:
        exact = [checks.run_torch(network, each) for each in lines if len(each) in counts]
        rounding = max(checks.deviation(a, b).absolute for a, b in zip(exact, outputs))
    return _report(network, apart, rounding, counts, chunk), outputs


def _report(
    network: Compiled,
    apart: checks.Deviation,
    rounding: float | None,
    counts: Sequence[int],
    chunk: int | None,
) -> NetworkReport:
    layers = tuple(
        LayerReport(
            i,
            layer.marker,
            int(layer.input_dim or 0),
            int(layer.output_dim or 0),
            sum(values.size for _, values in _arrays(layer, "")),
            network.paths.get(owner, ""),
        )
        for i, (layer, owner) in enumerate(zip(network.layers, network.owners))
    )
    return NetworkReport(apart.absolute, apart.largest, rounding, tuple(counts), chunk, layers)


def _with_fixed(
    reports: Sequence[NetworkReport],
    stored: bytes,
    fixed: bytes,
    networks: Sequence[Compiled],
    frames: Floats,
) -> list[NetworkReport]:
    """The reports, with how far every layer of the 8-bit form is from that of the float form."""
    found = []
    for index, report in enumerate(reports):
        with Network(stored, index) as exact, Network(fixed, index) as rounded:
            pairs = zip(exact.trace(frames, last=True), rounded.trace(frames, last=True))
            layers = [
                replace(layer, fixed_deviation=checks.deviation(b.output, a.output).relative)
                for layer, (a, b) in zip(report.layers, pairs)
            ]
        found.append(replace(report, layers=tuple(layers)))
        frames = checks.run_torch(networks[index], frames)
    return found
