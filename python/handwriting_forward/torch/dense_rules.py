"""Rules for linear layers, activations and normalisations."""

from __future__ import annotations

import math
from typing import Any

import numpy as np
import torch
from torch import nn
from torch.nn import functional

from .. import model
from .rules import CHANNELS_FIRST, FRAME, Floats, Flow, Step, Unmapped, array_of, rule


def zeros(count: int) -> Floats:
    return np.zeros(count, np.float32)


def linear_layer(weight: Any, bias: Any) -> model.Layer:
    """The layer of a matrix with one row an output, and a bias or none."""
    outputs, inputs = weight.shape
    if bias is None:
        return model.LinearTransform(inputs, outputs, weights=array_of(weight))
    return model.AffineTransform(inputs, outputs, bias=array_of(bias), weights=array_of(weight))


@rule(nn.Linear)
def linear(step: Step, module: nn.Linear) -> Flow:
    """`AffineTransform`, without a bias `LinearTransform`"""
    return functional_linear(step, step.inputs[0], module.weight, module.bias)


@rule(functional.linear)
def functional_linear(step: Step, input: Any, weight: Any, bias: Any = None) -> Flow:
    """`AffineTransform`, without a bias `LinearTransform`"""
    step.columns_last()
    return step.add(linear_layer(weight, bias))


def _activation(
    step: Step, rows: type[model.RowLayer], planes: type[Any] | None = None, **more: Any
) -> Flow:
    flow = step.inputs[0]
    if flow.planes and planes is not None:
        flow = step.plane()
        return step.add(planes(flow.planes, flow.planes, flow.dim, flow.dim, **more))
    flow = step.rows()
    return step.add(rows(flow.dim, flow.dim, **more))


@rule(nn.ReLU, functional.relu, torch.relu, torch.relu_, functional.relu_, "relu", "relu_")
def relu(step: Step, *_: Any, **__: Any) -> Flow:
    """`ReLU`, on planes `ReLU2d`"""
    return _activation(step, model.ReLU, model.ReLU2d)


@rule(nn.Sigmoid, functional.sigmoid, torch.sigmoid, "sigmoid")
def sigmoid(step: Step, *_: Any) -> Flow:
    """`Sigmoid`"""
    return _activation(step, model.Sigmoid)


@rule(nn.PReLU)
def prelu(step: Step, module: nn.PReLU) -> Flow:
    """`PReLU`, on planes `PReLU2d`; one parameter"""
    return functional_prelu(step, step.inputs[0], module.weight)


@rule(functional.prelu, torch.prelu)
def functional_prelu(step: Step, input: Any, weight: torch.Tensor) -> Flow:
    """`PReLU`, on planes `PReLU2d`; one parameter"""
    if weight.numel() != 1:
        raise Unmapped("a parameter for every column", "nn.PReLU() with one parameter")
    return _leaky(step, weight.item())


@rule(nn.LeakyReLU)
def leaky_relu(step: Step, module: nn.LeakyReLU) -> Flow:
    """`PReLU`, on planes `PReLU2d`"""
    return _leaky(step, module.negative_slope)


@rule(functional.leaky_relu)
def functional_leaky_relu(
    step: Step, input: Any, negative_slope: float = 0.01, inplace: bool = False
) -> Flow:
    """`PReLU`, on planes `PReLU2d`"""
    return _leaky(step, negative_slope)


def _leaky(step: Step, slope: float) -> Flow:
    return _activation(step, model.PReLU, model.PReLU2d, alpha=slope)


def scaled(step: Step, flow: Flow, scale: Any) -> Flow:
    """The rows times a number, or times one a column."""
    return step.add(
        model.Rescale(flow.dim, flow.dim, scale=_per_column(scale, flow.dim)), flow.axes
    )


def shifted(step: Step, flow: Flow, shift: Any) -> Flow:
    """The rows and a number, or one a column."""
    return step.add(
        model.AddShift(flow.dim, flow.dim, shift=_per_column(shift, flow.dim)), flow.axes
    )


def _per_column(value: Any, dim: int) -> Floats:
    return np.broadcast_to(np.float32(value), (dim,)).copy()


@rule(nn.Tanh, functional.tanh, torch.tanh, "tanh")
def tanh(step: Step, *_: Any) -> Flow:
    """`Rescale`, `Sigmoid`, `Rescale`, `AddShift`: 2 sigmoid(2 x) - 1"""
    flow = scaled(step, step.rows(), 2)
    flow = step.add(model.Sigmoid(flow.dim, flow.dim), flow.axes)
    return shifted(step, scaled(step, flow, 2), -1)


def _at_least(step: Step, flow: Flow, low: float) -> Flow:
    if low == 0:
        return step.add(model.ReLU(flow.dim, flow.dim), flow.axes)
    return shifted(step, _at_least(step, shifted(step, flow, -low), 0), low)


def _clamped(step: Step, flow: Flow, low: float, high: float) -> Flow:
    """At least low by max(x - low, 0) + low, then at most high by high - max(high - x, 0)."""
    if not low <= high:
        raise Unmapped(f"limits {low} and {high}")
    if math.isfinite(low):
        flow = _at_least(step, flow, low)
    if math.isfinite(high):
        beyond = _at_least(step, shifted(step, scaled(step, flow, -1), high), 0)
        flow = shifted(step, scaled(step, beyond, -1), high)
    return flow


@rule(nn.Hardtanh, nn.ReLU6)
def hardtanh(step: Step, module: nn.Hardtanh) -> Flow:
    """`AddShift`, `ReLU` and `Rescale`"""
    return _clamped(step, step.rows(), module.min_val, module.max_val)


@rule(functional.hardtanh)
def functional_hardtanh(
    step: Step, input: Any, min_val: float = -1.0, max_val: float = 1.0, inplace: bool = False
) -> Flow:
    """`AddShift`, `ReLU` and `Rescale`"""
    return _clamped(step, step.rows(), min_val, max_val)


@rule(functional.relu6)
def functional_relu6(step: Step, input: Any, inplace: bool = False) -> Flow:
    """`AddShift`, `ReLU` and `Rescale`"""
    return _clamped(step, step.rows(), 0.0, 6.0)


@rule(torch.clamp, torch.clip, "clamp", "clip")
def clamp(step: Step, input: Any, min: Any = None, max: Any = None) -> Flow:
    """`AddShift`, `ReLU` and `Rescale`"""
    low, high = -math.inf if min is None else min, math.inf if max is None else max
    return _clamped(step, step.rows(), float(low), float(high))


@rule(nn.Hardsigmoid, functional.hardsigmoid)
def hardsigmoid(step: Step, *_: Any, **__: Any) -> Flow:
    """`AddShift`, `ReLU` and `Rescale`"""
    flow = shifted(step, step.rows(), 3)
    return scaled(step, _clamped(step, flow, 0.0, 6.0), 1 / 6)


def _over_columns(step: Step, dim: Any) -> Flow:
    flow = step.rows()
    if dim is None:
        raise Unmapped("no axis given", "dim=-1")
    if step.axis(flow, dim) != "columns":
        raise Unmapped(f"over {step.axis(flow, dim)}, where a layer goes over columns", "dim=-1")
    return flow


@rule(nn.Softmax)
def softmax(step: Step, module: nn.Softmax) -> Flow:
    """`Softmax`, over columns"""
    return functional_softmax(step, step.inputs[0], module.dim)


@rule(functional.softmax, torch.softmax, "softmax")
def functional_softmax(step: Step, input: Any, dim: Any = None, *_: Any, **__: Any) -> Flow:
    """`Softmax`, over columns"""
    flow = _over_columns(step, dim)
    return step.add(model.Softmax(flow.dim, flow.dim))


@rule(nn.LogSoftmax)
def log_softmax(step: Step, module: nn.LogSoftmax) -> Flow:
    """`LogSoftmax`, over columns"""
    return functional_log_softmax(step, step.inputs[0], module.dim)


@rule(functional.log_softmax, torch.log_softmax, "log_softmax")
def functional_log_softmax(step: Step, input: Any, dim: Any = None, *_: Any, **__: Any) -> Flow:
    """`LogSoftmax`, over columns"""
    flow = _over_columns(step, dim)
    return step.add(model.LogSoftmax(flow.dim, flow.dim))


@rule(nn.Identity)
def identity(step: Step, module: nn.Module) -> Flow:
    """nothing"""
    return step.inputs[0]


@rule(nn.Dropout, nn.Dropout2d, nn.AlphaDropout)
def dropout(step: Step, module: nn.Module) -> Flow:
    """nothing"""
    return step.inputs[0]


@rule(functional.dropout, functional.dropout2d, torch.dropout)
def functional_dropout(
    step: Step, input: Any, p: float = 0.5, training: bool = True, inplace: bool = False
) -> Flow:
    """nothing"""
    if training and p > 0:
        raise Unmapped("dropout also in evaluation mode", "training=self.training, or nn.Dropout")
    return step.inputs[0]


def _or(value: Any, otherwise: float, count: int) -> Floats:
    return np.full(count, otherwise, np.float32) if value is None else array_of(value)


@rule(nn.BatchNorm1d, nn.BatchNorm2d)
def batch_norm(step: Step, module: Any) -> Flow:
    """`BatchNorm1d`, on planes `BatchNorm2d`; goes into a linear layer or convolution before it"""
    statistics = (module.running_mean, module.running_var)
    return functional_batch_norm(
        step, step.inputs[0], *statistics, module.weight, module.bias, eps=module.eps
    )


@rule(functional.batch_norm)
def functional_batch_norm(
    step: Step,
    input: Any,
    running_mean: Any,
    running_var: Any,
    weight: Any = None,
    bias: Any = None,
    training: bool = False,
    momentum: float = 0.1,
    eps: float = 1e-5,
) -> Flow:
    """`BatchNorm1d`, on planes `BatchNorm2d`; goes into a linear layer or convolution before it"""
    if training or running_mean is None:
        raise Unmapped("statistics of the batch", "track_running_stats=True")
    count = len(running_mean)
    values: dict[str, Any] = {
        "epsilon": eps,
        "mean": array_of(running_mean),
        "variance": array_of(running_var),
        "gamma": _or(weight, 1, count),
        "beta": _or(bias, 0, count),
    }
    if step.inputs[0].planes:
        flow = step.plane()
        dims = (flow.planes, flow.planes, flow.dim, flow.dim)
        return step.add(model.BatchNorm2d(*dims, **values))
    flow = step.rows(CHANNELS_FIRST, FRAME)
    return step.add(model.BatchNorm1d(flow.dim, flow.dim, **values))


def layer_norm_layer(dim: int, weight: Any, bias: Any, eps: float) -> model.LayerNorm:
    """Ours divides by epsilon + the unbiased deviation, PyTorch by sqrt(variance + eps) with the
    biased one: the factor between the deviations goes into gamma, and epsilon is the one that gives
    the same where the deviation is 1."""
    unbiased = math.sqrt(dim / (dim - 1)) if dim > 1 else 1.0
    return model.LayerNorm(
        dim,
        dim,
        epsilon=eps / 2 * unbiased,
        gamma=(_or(weight, 1, dim) * np.float32(unbiased)).astype(np.float32),
        beta=_or(bias, 0, dim),
    )


@rule(nn.LayerNorm)
def layer_norm(step: Step, module: nn.LayerNorm) -> Flow:
    """`LayerNorm`, over columns"""
    return functional_layer_norm(
        step, step.inputs[0], module.normalized_shape, module.weight, module.bias, module.eps
    )


@rule(functional.layer_norm, torch.layer_norm)
def functional_layer_norm(
    step: Step,
    input: Any,
    normalized_shape: Any,
    weight: Any = None,
    bias: Any = None,
    eps: float = 1e-5,
    *_: Any,
) -> Flow:
    """`LayerNorm`, over columns"""
    flow = step.columns_last()
    if tuple(normalized_shape) != (flow.dim,):
        raise Unmapped(f"over {tuple(normalized_shape)}", "nn.LayerNorm over the columns")
    return step.add(layer_norm_layer(flow.dim, weight, bias, eps))
