"""Rules for operations without parameters: arithmetic, axes, slices, joining and splitting."""

from __future__ import annotations

import operator
from collections.abc import Sequence
from typing import Any

import numpy as np
import torch
from torch import nn

from .. import model
from .dense_rules import scaled, shifted
from .rules import FRAMES_FIRST, PLANES, ROWS, Axes, Flow, Step, Unmapped, Varying, rule
from .sequence_rules import STATE, is_positional_encoding
from .tracer import EXAMPLES

# --- arithmetic


def _constant(flow: Flow, value: Any) -> Any:
    """A number, or one a column, that the module has."""
    if isinstance(value, Varying):
        raise Unmapped("a value that depends on the number of lines or frames")
    if not isinstance(value, torch.Tensor):
        return value
    if value.numel() == 1:
        return value.item()
    axes = flow.axes[len(flow.axes) - value.dim() :]
    sizes = {axis: size for axis, size in zip(axes, value.shape) if size != 1}
    if value.dim() > len(flow.axes) or sizes != {"columns": flow.dim}:
        raise Unmapped(f"a constant of shape {tuple(value.shape)}", "a number, or one a column")
    return value.detach().cpu().float().reshape(-1).numpy()


def _sum(step: Step, parts: Sequence[Flow], weights: Sequence[float]) -> Flow:
    """Weighted sum of rows."""
    dim = parts[0].dim
    if any(part.dim != dim for part in parts):
        raise Unmapped("parts of several widths", "parts of one width")
    joined = step.join(parts)
    total = model.AddComponent(
        joined.dim, dim, input_num=len(parts), weights=np.array(weights, np.float32)
    )
    return step.add(total, joined.axes)


def _add(step: Step, a: Any, b: Any, weights: tuple[float, float]) -> Flow:
    """weights[0] a + weights[1] b."""
    if isinstance(a, Flow) and isinstance(b, Flow):
        return _sum(step, (a, b), weights)
    flow, value, (weight, other) = (a, b, weights) if isinstance(a, Flow) else (b, a, weights[::-1])
    rows = step.rows(flow=flow)
    if weight != 1:
        rows = scaled(step, rows, weight)
    if isinstance(value, Varying) and other == 1 and is_positional_encoding(rows, value):
        return step.add(model.PositionalEncoding(rows.dim, rows.dim), rows.axes)
    if isinstance(value, Varying) and isinstance(value.values[0], torch.Tensor):
        raise Unmapped(
            "a value for every frame, other than sinusoidal positional encoding",
            "handwriting_forward.torch.PositionalEncoding",
        )
    return shifted(step, rows, _constant(rows, value) * other)


@rule(operator.add, operator.iadd, torch.add, "add", "add_")
def add(step: Step, a: Any, b: Any, *, alpha: float = 1) -> Flow:
    """`AddShift`; of two tensors `RegisterComponent`, `ConcatenateComponent`, `AddComponent`;
    sinusoids `PositionalEncoding`"""
    return _add(step, a, b, (1, alpha))


@rule(operator.sub, operator.isub, torch.sub, "sub", "sub_")
def subtract(step: Step, a: Any, b: Any, *, alpha: float = 1) -> Flow:
    """`AddShift`, `Rescale`; of two tensors `RegisterComponent`, `ConcatenateComponent`,
    `AddComponent`"""
    return _add(step, a, b, (1, -alpha))


def _times(step: Step, a: Any, b: Any, inverse: bool = False) -> Flow:
    if isinstance(a, Flow) and isinstance(b, Flow):
        raise Unmapped("no layer multiplies two tensors", "a gate in a recurrent layer")
    flow, value = (a, b) if isinstance(a, Flow) else (b, a)
    rows = step.rows(flow=flow)
    factor = _constant(rows, value)
    return scaled(step, rows, 1 / factor if inverse else factor)


@rule(operator.mul, operator.imul, torch.mul, "mul", "mul_")
def multiply(step: Step, a: Any, b: Any) -> Flow:
    """`Rescale`, by a constant"""
    return _times(step, a, b)


@rule(operator.truediv, operator.itruediv, torch.div, "div", "div_")
def divide(step: Step, a: Any, b: Any) -> Flow:
    """`Rescale`, by a constant"""
    if not isinstance(a, Flow):
        raise Unmapped("no layer divides by a tensor")
    return _times(step, a, b, inverse=True)


@rule(operator.neg, torch.neg, "neg")
def negate(step: Step, a: Flow) -> Flow:
    """`Rescale`"""
    return scaled(step, step.rows(), -1)


# --- axes


@rule("contiguous", "clone", "detach", "float", "to", torch.clone, torch.detach)
def unchanged(step: Step, a: Flow, *_: Any, **__: Any) -> Flow:
    """nothing"""
    return a


def _turned(step: Step, flow: Flow, order: Sequence[int]) -> Flow:
    return Flow(flow.data, tuple(step.axis(flow, each) for each in order))


@rule(torch.transpose, torch.swapaxes, "transpose", "swapaxes")
def transpose(step: Step, input: Flow, dim0: int, dim1: int) -> Flow:
    """nothing: the order of axes is followed"""
    order = list(range(len(input.axes)))
    order[dim0], order[dim1] = order[dim1], order[dim0]
    return _turned(step, input, order)


@rule(torch.permute, "permute")
def permute(step: Step, input: Flow, *dims: Any) -> Flow:
    """nothing: the order of axes is followed"""
    return _turned(step, input, dims[0] if isinstance(dims[0], (tuple, list)) else dims)


def _sizes(step: Step, flow: Flow, example: int) -> dict[str, int]:
    return dict(zip(flow.axes, step.input_shapes[example]))


def _gives(step: Step, flow: Flow, axes: Sequence[str | tuple[str, ...] | int]) -> bool:
    """Whether the result has these axes, each an axis of the input, several, or a size."""

    def size_of(each: Any, sizes: dict[str, int]) -> int:
        if isinstance(each, tuple):
            return int(np.prod([sizes[axis] for axis in each]))
        return int(sizes[each] if isinstance(each, str) else each)

    return all(
        tuple(size_of(each, _sizes(step, flow, i)) for each in axes) == step.shapes[i]
        for i in range(len(step.shapes))
    )


# Lines and frames as one axis.
_MERGED = {ROWS: ("lines and frames", "columns"), FRAMES_FIRST: ("frames and lines", "columns")}


def _split_columns(step: Step, flow: Flow, axes: Axes, planes: int) -> Flow:
    """Columns as planes of columns."""
    rows = step.rows(flow=flow)
    layer = model.DeflattenComponent(rows.dim, rows.dim // planes, output_channels=planes)
    return step.add(layer, axes)


def _merge_planes(step: Step, flow: Flow, axes: Axes) -> Flow:
    """Planes of columns as columns."""
    if not step.is_current(flow):
        raise Unmapped("planes that are needed twice", "keep planes in one chain")
    layer = model.FlattenComponent(flow.dim, flow.planes * flow.dim, input_channels=flow.planes)
    return step.add(layer, axes)


def _without(axes: Axes, axis: str) -> Axes:
    return tuple(each for each in axes if each != axis)


def _is_batch(step: Step, flow: Flow, axes: Axes) -> bool:
    """Whether the result, of lines and frames as one axis, has them apart."""
    lines = axes.index("lines")
    return all(
        len(shape) == 3 and (shape[lines], shape[2]) == (example[0], flow.dim)
        for shape, example in zip(step.shapes, EXAMPLES)
    )


@rule(
    torch.reshape,
    torch.flatten,
    torch.squeeze,
    torch.unsqueeze,
    "reshape",
    "view",
    "flatten",
    "unflatten",
    "squeeze",
    "unsqueeze",
    nn.Flatten,
    nn.Unflatten,
)
def reshape(step: Step, *_: Any, **__: Any) -> Flow:
    """nothing, `FlattenComponent` (planes to columns) or `DeflattenComponent` (columns to planes)"""
    flow = step.inputs[0]
    axes, shape = flow.axes, step.shapes[0]
    if _gives(step, flow, axes):
        return flow
    if axes in _MERGED and _gives(step, flow, [axes[:2], axes[2]]):
        return Flow(flow.data, _MERGED[axes])
    for before, merged in _MERGED.items():
        if axes == merged and _is_batch(step, flow, before):
            return Flow(flow.data, before)
    if flow.planes and axes[-2:] == ("planes", "columns"):
        if _gives(step, flow, [*axes[:-2], axes[-2:]]):
            return _merge_planes(step, flow, (*axes[:-2], "columns"))
    if flow.planes == 1 and _gives(step, flow, _without(axes, "planes")):
        return _merge_planes(step, flow, _without(axes, "planes"))
    if not flow.planes and axes in (ROWS, FRAMES_FIRST):
        if _gives(step, flow, [axes[0], 1, *axes[1:]]) and axes == ROWS:
            return _split_columns(step, flow, PLANES, 1)
        if len(shape) == 4 and _gives(step, flow, [*axes[:2], *shape[2:]]):
            return _split_columns(step, flow, (*axes[:2], "planes", "columns"), shape[2])
    raise Unmapped("a change of shape that is none of the layers'", "columns to planes, or back")


# --- slices and parts


def _columns(step: Step, flow: Flow, chosen: Sequence[int]) -> Flow:
    """Some of the columns."""
    rows = step.rows(flow=flow)
    weights = np.zeros((len(chosen), rows.dim), np.float32)
    weights[np.arange(len(chosen)), chosen] = 1
    return step.add(model.LinearTransform(rows.dim, len(chosen), weights=weights), flow.axes)


def _frames(step: Step, flow: Flow, part: slice) -> Flow:
    """Some of the frames: without some at either end, every so many."""
    start, stop, every = part.start or 0, part.stop, 1 if part.step is None else part.step
    end = 0 if stop is None else -stop
    numbers = all(isinstance(each, int) for each in (start, end, every))
    if not numbers or start < 0 or end < 0 or every < 1:
        raise Unmapped(f"frames {part.start}:{part.stop}:{part.step}", "x[:, a:-b] or x[:, a:]")
    dim = flow.dim
    rows = step.rows(flow=flow)
    if step.streaming and start and not end:
        rows = step.add(model.StreamSliceComponent(dim, dim, index_text=str(start)), rows.axes)
    elif start or end:
        if step.streaming:
            raise Unmapped("frames off the end of a stream", "streaming=False")
        offsets = sorted({-start, 0, end})
        rows = step.add(model.Splice(dim, dim * len(offsets), offsets), rows.axes)
        weights = np.array([each == 0 for each in offsets], np.float32)
        chosen = model.AddComponent(rows.dim, dim, input_num=len(offsets), weights=weights)
        rows = step.add(chosen, rows.axes)
    if every > 1:
        kind = model.StreamMaxPool1d if step.streaming else model.MaxPool1d
        rows = step.add(kind(dim, dim, 1, every), rows.axes)
    return rows


def _frame(step: Step, flow: Flow, index: int) -> Flow:
    if step.streaming:
        raise Unmapped("one frame of a stream", "streaming=False")
    rows = step.rows(flow=flow)
    layer = model.SliceComponent(rows.dim, rows.dim, index_text=str(index))
    return step.add(layer, _without(rows.axes, "frames"))


@rule(operator.getitem)
def get_item(step: Step, input: Any, index: Any) -> Any:
    """frames `x[:, a:-b]` `Splice`, `AddComponent`; `x[:, ::k]` `MaxPool1d`; one frame
    `SliceComponent`; columns `LinearTransform`"""
    if input == STATE:
        return STATE
    if isinstance(input, tuple):
        return input[index]
    flow: Flow = input
    items = list(index) if isinstance(index, tuple) else [index]
    if Ellipsis in items:
        place = items.index(Ellipsis)
        items[place : place + 1] = [slice(None)] * (len(flow.axes) - len(items) + 1)
    for axis, item in zip(flow.axes, items):
        flow = _part(step, flow, axis, item)
    return flow


def _part(step: Step, flow: Flow, axis: str, item: Any) -> Flow:
    if isinstance(item, slice) and (item.start or 0, item.stop, item.step or 1) == (0, None, 1):
        return flow
    if flow.planes:
        raise Unmapped(f"a part of {axis} of planes")
    if axis == "columns" and isinstance(item, slice):
        return _columns(step, flow, range(flow.dim)[item])
    if axis == "frames" and isinstance(item, slice):
        return _frames(step, flow, item)
    if axis == "frames" and isinstance(item, int):
        return _frame(step, flow, item)
    raise Unmapped(f"a part of {axis} by {item!r}", "slices of frames or columns, or one frame")


def _parts(step: Step, flow: Flow, dim: int, edges: Sequence[int]) -> tuple[Flow, ...]:
    axis = step.axis(flow, dim)
    if axis != "columns" or flow.planes:
        raise Unmapped(f"parts of {axis}", "parts of columns")
    return tuple(_columns(step, flow, range(a, b)) for a, b in zip(edges, edges[1:]))


@rule(torch.chunk, "chunk")
def chunk(step: Step, input: Flow, chunks: int, dim: int = 0) -> tuple[Flow, ...]:
    """`LinearTransform`, of columns"""
    return split(step, input, -(-input.dim // chunks), dim)


@rule(torch.split, "split")
def split(step: Step, tensor: Flow, split_size: Any, dim: int = 0) -> tuple[Flow, ...]:
    """`LinearTransform`, of columns"""
    if isinstance(split_size, int):
        return _parts(step, tensor, dim, [*range(0, tensor.dim, split_size), tensor.dim])
    return _parts(step, tensor, dim, [0, *np.cumsum(split_size).tolist()])


@rule(torch.cat, torch.concat)
def cat(step: Step, tensors: Sequence[Any], dim: int = 0) -> Flow:
    """`RegisterComponent`, `ConcatenateComponent`, streaming `StreamRegisterComponent`,
    `StreamConcatenateComponent`"""
    flows = [each for each in tensors if isinstance(each, Flow)]
    if len(flows) < len(tensors):
        raise Unmapped("a constant among the parts", "padding, or a bias")
    axis = step.axis(flows[0], dim)
    if axis != "columns":
        raise Unmapped(f"joined along {axis}", "parts joined along the columns")
    return step.join(flows)
