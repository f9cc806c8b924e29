"""Rules for convolutions, pooling and padding along the frames, and convolutions over planes."""

from __future__ import annotations

from typing import Any

import numpy as np
from torch import nn
from torch.nn import functional

from .. import model
from .rules import CHANNELS_FIRST, FRAMES_FIRST, ROWS, Floats, Flow, Step, Unmapped, array_of, rule

# Layers whose output is never below 0, so that a frame of zeros beside it is never the largest.
_NEVER_NEGATIVE = (model.ReLU, model.Sigmoid, model.Softmax)


def _one(value: Any) -> int:
    """A number that PyTorch takes alone or as a tuple of one."""
    return int(value[0] if isinstance(value, (tuple, list)) else value)


def _pad(step: Step, flow: Flow, edges: tuple[int, int], mode: str, value: float = 0.0) -> Flow:
    """Frames before and after the line."""
    if min(edges) < 0:
        raise Unmapped(f"negative padding {edges}", "a slice of frames")
    if not any(edges):
        return flow
    dims = (flow.dim, flow.dim)
    if mode == "reflect":
        mirror = model.StreamReflectionPad if step.streaming else model.ReflectionPad
        return step.add(mirror(*dims, *edges), flow.axes)
    if mode in ("constant", "zeros"):
        fill = model.StreamConstantPad if step.streaming else model.ConstantPad
        return step.add(fill(*dims, *edges, value=value), flow.axes)
    raise Unmapped(f"padding by {mode}", "zeros or reflect")


def _bias(bias: Any, otherwise: int) -> Floats:
    """A bias, or so many zeros in its place."""
    return np.zeros(otherwise, np.float32) if bias is None else array_of(bias)


def _convolve(
    step: Step,
    weight: Any,
    bias: Any,
    stride: Any,
    edges: tuple[int, int],
    dilation: Any,
    groups: int,
) -> Flow:
    outputs, _, taps = weight.shape
    kind: Any = model.StreamConv1d if step.streaming else model.Conv1d
    window = (taps, _one(stride), *edges, _one(dilation), groups)
    layer = kind(step.inputs[0].dim, outputs, *window, array_of(weight), _bias(bias, 0))
    return step.add(layer)


def _edges(padding: Any, taps: int, dilation: int) -> tuple[int, int]:
    """Frames of padding on either side."""
    if padding == "valid":
        return 0, 0
    if padding == "same":
        both = (taps - 1) * dilation
        return both // 2, both - both // 2
    return _one(padding), _one(padding)


@rule(nn.Conv1d)
def conv1d(step: Step, module: nn.Conv1d) -> Flow:
    """`Conv1d`, streaming `StreamConv1d`; padding by zeros or `reflect`"""
    edges = _edges(module.padding, module.kernel_size[0], module.dilation[0])
    flow = step.frames_last()
    if module.padding_mode != "zeros":
        _pad(step, flow, edges, module.padding_mode)
        edges = (0, 0)
    return _convolve(
        step, module.weight, module.bias, module.stride, edges, module.dilation, module.groups
    )


@rule(functional.conv1d)
def functional_conv1d(
    step: Step,
    input: Any,
    weight: Any,
    bias: Any = None,
    stride: Any = 1,
    padding: Any = 0,
    dilation: Any = 1,
    groups: int = 1,
) -> Flow:
    """`Conv1d`, streaming `StreamConv1d`"""
    step.frames_last()
    edges = _edges(padding, weight.shape[2], _one(dilation))
    return _convolve(step, weight, bias, stride, edges, dilation, groups)


@rule(nn.ConvTranspose1d)
def conv_transpose1d(step: Step, module: nn.ConvTranspose1d) -> Flow:
    """`ConvTranspose1d`, streaming `StreamConvTranspose1d`"""
    flow = step.frames_last()
    kind: Any = model.StreamConvTranspose1d if step.streaming else model.ConvTranspose1d
    edge = _one(module.padding)
    window = (
        module.kernel_size[0],
        module.stride[0],
        edge,
        edge,
        module.dilation[0],
        module.groups,
    )
    layer: Any = kind(
        flow.dim,
        module.out_channels,
        *window,
        array_of(module.weight),
        _bias(module.bias, 0),
        output_padding=_one(module.output_padding),
    )
    return step.add(layer)


@rule(nn.MaxPool1d)
def max_pool1d(step: Step, module: nn.MaxPool1d) -> Flow:
    """`MaxPool1d`, streaming `StreamMaxPool1d`; with padding right after `ReLU`, `Sigmoid` or
    `Softmax`"""
    return functional_max_pool1d(
        step,
        step.inputs[0],
        module.kernel_size,
        module.stride,
        module.padding,
        module.dilation,
        module.ceil_mode,
        module.return_indices,
    )


@rule(functional.max_pool1d)
def functional_max_pool1d(
    step: Step,
    input: Any,
    kernel_size: Any,
    stride: Any = None,
    padding: Any = 0,
    dilation: Any = 1,
    ceil_mode: bool = False,
    return_indices: bool = False,
) -> Flow:
    """`MaxPool1d`, streaming `StreamMaxPool1d`; with padding right after `ReLU`, `Sigmoid` or
    `Softmax`"""
    flow = step.frames_last()
    if ceil_mode or return_indices:
        raise Unmapped("ceil_mode or return_indices", "pooling without them")
    edge = _one(padding)
    if edge and not isinstance(flow.data.layer, _NEVER_NEGATIVE):
        raise Unmapped(
            "padding, which the layer takes as 0, of what may be negative",
            "pooling right after a ReLU",
        )
    kind = model.StreamMaxPool1d if step.streaming else model.MaxPool1d
    taps = _one(kernel_size)
    window = (taps, _one(stride or taps), edge, edge, _one(dilation))
    return step.add(kind(flow.dim, flow.dim, *window))


@rule(nn.AvgPool1d)
def avg_pool1d(step: Step, module: nn.AvgPool1d) -> Flow:
    """`Conv1d`, streaming `StreamConv1d`"""
    flow = step.frames_last()
    edge = _one(module.padding)
    if module.ceil_mode or (edge and not module.count_include_pad):
        raise Unmapped("ceil_mode, or padding that is not counted", "pooling without them")
    taps = _one(module.kernel_size)
    weight = np.full((flow.dim, 1, taps), 1 / taps, np.float32)
    return _convolve(step, weight, None, module.stride, (edge, edge), 1, flow.dim)


@rule(nn.ConstantPad1d, nn.ReflectionPad1d)
def pad1d(step: Step, module: Any) -> Flow:
    """`ConstantPad` or `ReflectionPad`, streaming `StreamConstantPad` or `StreamReflectionPad`"""
    mode = "reflect" if isinstance(module, nn.ReflectionPad1d) else "constant"
    return _pad(step, step.frames_last(), module.padding, mode, getattr(module, "value", 0.0))


@rule(functional.pad)
def functional_pad(
    step: Step, input: Any, pad: Any, mode: str = "constant", value: Any = None
) -> Flow:
    """`ConstantPad` or `ReflectionPad`, streaming `StreamConstantPad` or `StreamReflectionPad`"""
    flow = step.rows(ROWS, FRAMES_FIRST, CHANNELS_FIRST)
    edges = (0, 0)
    for i, each in enumerate(zip(pad[::2], pad[1::2])):
        if step.axis(flow, -1 - i) == "frames":
            edges = each
        elif any(each):
            raise Unmapped(f"padding of {step.axis(flow, -1 - i)}", "padding of frames")
    return _pad(step, flow, edges, mode, value or 0.0)


_PLANES_FORM = "the form that a layer computes: kernel (1, 3), stride (1, 2), padding (0, 1)"


def _is_simple(module: Any) -> bool:
    window = (module.kernel_size, module.stride, module.padding, module.dilation, module.groups)
    return window == ((1, 3), (1, 2), (0, 1), (1, 1), 1) and module.padding_mode == "zeros"


@rule(nn.Conv2d)
def conv2d(step: Step, module: nn.Conv2d) -> Flow:
    """`SimpleConv2d1x3s2`, on lines x planes x frames x columns; kernel (1, 3), stride (1, 2),
    padding (0, 1)"""
    flow = step.plane()
    if not _is_simple(module):
        raise Unmapped("another form of Conv2d", _PLANES_FORM)
    dims = (flow.planes, module.out_channels, flow.dim, (flow.dim + 1) // 2)
    kernel = array_of(module.weight)[:, :, 0]
    return step.add(
        model.SimpleConv2d1x3s2(
            *dims, kernel=kernel, bias_vector=_bias(module.bias, module.out_channels)
        )
    )


@rule(nn.ConvTranspose2d)
def conv_transpose2d(step: Step, module: nn.ConvTranspose2d) -> Flow:
    """`SimpleDeconv2d1x3s2`, on lines x planes x frames x columns; that and output_padding (0, 1)"""
    flow = step.plane()
    if not _is_simple(module) or module.output_padding != (0, 1):
        raise Unmapped("another form of ConvTranspose2d", f"{_PLANES_FORM}, output_padding (0, 1)")
    dims = (flow.planes, module.out_channels, flow.dim, 2 * flow.dim)
    kernel = array_of(module.weight)[:, :, 0].transpose(1, 0, 2).copy()
    return step.add(
        model.SimpleDeconv2d1x3s2(
            *dims, kernel=kernel, bias_vector=_bias(module.bias, module.out_channels)
        )
    )
