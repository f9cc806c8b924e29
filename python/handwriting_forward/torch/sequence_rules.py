"""Rules for recurrent layers, attention, positions and memory blocks."""

from __future__ import annotations

from typing import Any

import numpy as np
import torch
from torch import nn

from .. import model
from .dense_rules import layer_norm_layer, linear_layer, zeros
from .modules import Fsmn, PositionalEncoding, encoding
from .rules import FRAMES_FIRST, ROWS, Floats, Flow, Step, Unmapped, Varying, array_of, rule

# What a recurrent module gives beside its output; whoever uses it is refused.
STATE = "the state after the last frame"


def _check_states(states: Any) -> None:
    """Initial states are zero in every layer."""
    for value in states.values if isinstance(states, Varying) else [states]:
        if isinstance(value, (tuple, list)):
            for each in value:
                _check_states(each)
        elif isinstance(value, Varying):
            _check_states(value)
        elif value is not None and (not isinstance(value, torch.Tensor) or bool(value.any())):
            raise Unmapped("initial states other than 0", "leave them out, or torch.zeros")


def _sequence_order(step: Step, batch_first: bool) -> Flow:
    return step.rows(ROWS if batch_first else FRAMES_FIRST)


def _named(module: nn.Module, kind: str, suffix: str) -> torch.Tensor | None:
    return getattr(module, kind + suffix, None)


def _bias(module: nn.Module, kind: str, suffix: str, count: int) -> Floats:
    bias = _named(module, f"bias_{kind}", suffix)
    return zeros(count) if bias is None else array_of(bias)


def _gates(module: nn.Module, suffix: str, kind: type[Any]) -> Any:
    """The parameters of one direction; both orders of gates are those of PyTorch."""
    from_input = array_of(_named(module, "weight_ih", suffix))
    from_last = array_of(_named(module, "weight_hh", suffix))
    biases = (_bias(module, each, suffix, len(from_input)) for each in ("ih", "hh"))
    return kind(from_input, from_last, *biases)


def _reordered(rows: Floats) -> Floats:
    """Gates i, f, g, o as g, i, f, o."""
    i, f, g, o = np.split(rows, 4)
    return np.concatenate([g, i, f, o])


def _projected(module: nn.Module, suffix: str, kind: type[Any]) -> Any:
    gates = _gates(module, suffix, model.LstmDirection)
    projection = array_of(_named(module, "weight_hr", suffix))
    outputs, cells = projection.shape
    return kind(
        _reordered(gates.input_weights),
        _reordered(gates.recurrent_weights),
        _reordered(gates.input_bias + gates.recurrent_bias),
        *(zeros(cells) for _ in range(3)),
        projection,
        zeros(outputs),
    )


def _fields(direction: Any) -> dict[str, Any]:
    return dict(vars(direction))


def _lstm_layer(step: Step, module: nn.LSTM, dim: int, suffixes: list[str]) -> model.Layer:
    """The layer of one suffix, or of two for both directions."""
    cells, outputs = module.hidden_size, module.proj_size * len(suffixes)
    if module.proj_size:
        kind = model.ProjectedLstmDirection
        projected = [_projected(module, suffix, kind) for suffix in suffixes]
        if len(projected) == 1:
            fields = _fields(projected[0])
            return model.LstmProjectedNnet3Streams(dim, outputs, **fields, cell_dim=cells)
        return model.BlstmProjectedNnet3Streams(
            dim, outputs, forward=projected[0], backward=projected[1], cell_dim=cells
        )
    directions = [_gates(module, suffix, model.LstmDirection) for suffix in suffixes]
    if len(directions) == 1:
        return model.Lstm(dim, cells, **_fields(directions[0]))
    for name, parameter in module.named_parameters():
        if name.endswith(tuple(suffixes)):
            step.round(parameter)
    return model.Blstm(dim, 2 * cells, forward=directions[0], backward=directions[1])


def _suffixes(module: nn.RNNBase) -> list[list[str]]:
    """For every layer what the names of its parameters end with, by direction."""
    directions = ["", "_reverse"] if module.bidirectional else [""]
    return [[f"_l{i}{each}" for each in directions] for i in range(module.num_layers)]


@rule(nn.LSTM)
def lstm(step: Step, module: nn.LSTM, states: Any = None, hx: Any = None) -> tuple[Any, str]:
    """`Lstm`, both directions `Blstm`; with `proj_size` `LstmProjectedNnet3Streams` or
    `BlstmProjectedNnet3Streams`"""
    _check_states([states, hx])
    flow = _sequence_order(step, module.batch_first)
    for suffixes in _suffixes(module):
        flow = step.add(_lstm_layer(step, module, flow.dim, suffixes), flow.axes)
    return flow, STATE


@rule(nn.GRU)
def gru(step: Step, module: nn.GRU, states: Any = None, hx: Any = None) -> tuple[Any, str]:
    """`Gru`, both directions `BGru`"""
    _check_states([states, hx])
    flow = _sequence_order(step, module.batch_first)
    cells = module.hidden_size
    for suffixes in _suffixes(module):
        directions = [_gates(module, suffix, model.GruDirection) for suffix in suffixes]
        layer: model.Layer
        if module.bidirectional:
            forward, backward = directions
            layer = model.BGru(flow.dim, 2 * cells, forward=forward, backward=backward)
        else:
            layer = model.Gru(flow.dim, cells, **_fields(directions[0]))
        flow = step.add(layer, flow.axes)
    return flow, STATE


def _encoder_layer(module: nn.TransformerEncoderLayer) -> model.Encoder:
    attention: Any = module.self_attn
    if not module.norm_first:
        raise Unmapped("normalisation after the sums", "norm_first=True")
    if not (module.activation_relu_or_gelu == 1 or isinstance(module.activation, nn.ReLU)):
        raise Unmapped("an activation other than ReLU", "activation='relu'")
    if attention.bias_k is not None or attention.add_zero_attn:
        raise Unmapped("attention to frames that are added to the line")
    dim = attention.embed_dim
    hidden: Any = module.linear1
    if hidden.out_features < dim:
        raise Unmapped(f"dim_feedforward {hidden.out_features}", f"{dim} or more")
    weights = attention.in_proj_weight.chunk(3)
    biases = (None,) * 3 if attention.in_proj_bias is None else attention.in_proj_bias.chunk(3)
    projections = [*zip(weights, biases), (attention.out_proj.weight, attention.out_proj.bias)]
    norms: list[Any] = [module.norm1, module.norm2]
    return model.Encoder(
        dim,
        dim,
        head_num=attention.num_heads,
        self_atten_layers=[linear_layer(*each) for each in projections],
        ff_layers=[linear_layer(each.weight, each.bias) for each in (hidden, module.linear2)],
        sub_layers=[layer_norm_layer(dim, each.weight, each.bias, each.eps) for each in norms],
    )


def _refuse_masks(masks: tuple[Any, ...], named: dict[str, Any]) -> None:
    if any(each is not None and each is not False for each in [*masks, *named.values()]):
        raise Unmapped("a mask", "whole lines without padding; attention sees all frames of a line")


@rule(nn.TransformerEncoderLayer)
def encoder_layer(
    step: Step, module: nn.TransformerEncoderLayer, *masks: Any, **named: Any
) -> Flow:
    """`Encoder`; `norm_first`, ReLU, no masks"""
    _refuse_masks(masks, named)
    batch_first: bool = module.self_attn.batch_first
    _sequence_order(step, batch_first)
    return step.add(_encoder_layer(module))


@rule(nn.TransformerEncoder)
def encoder(step: Step, module: nn.TransformerEncoder, *masks: Any, **named: Any) -> Flow:
    """`Encoder` for every layer, and `LayerNorm`"""
    _refuse_masks(masks, named)
    layers: list[Any] = list(module.layers)
    flow = _sequence_order(step, layers[0].self_attn.batch_first)
    for layer in layers:
        flow = step.add(_encoder_layer(layer))
    norm: Any = module.norm
    if norm is not None:
        flow = step.add(layer_norm_layer(flow.dim, norm.weight, norm.bias, norm.eps))
    return flow


@rule(PositionalEncoding)
def positional_encoding(step: Step, module: PositionalEncoding) -> Flow:
    """`PositionalEncoding`"""
    flow = step.rows(ROWS)
    return step.add(model.PositionalEncoding(flow.dim, flow.dim))


def is_positional_encoding(flow: Flow, added: Varying) -> bool:
    """Whether what is added to the rows is that of positional encoding, for any number of frames."""
    return flow.axes == ROWS and all(
        isinstance(value, torch.Tensor)
        and value.dim() in (2, 3)
        and value.shape[-1] == flow.dim
        and value.numel() == value.shape[-2] * flow.dim
        and torch.allclose(
            value.detach().cpu().float().reshape(-1, flow.dim),
            encoding(value.shape[-2], flow.dim),
            atol=1e-4,
        )
        for value in added.values
    )


@rule(Fsmn)
def fsmn(step: Step, module: Fsmn) -> Flow:
    """`ConstantPad`, `Fsmn`; streaming `StreamConv1d`"""
    flow = step.rows(ROWS)
    edges = [each * module.stride for each in (module.before, module.after)]
    weights = array_of(module.weight)
    if step.streaming:
        weights[module.before] += 1
        kernel = weights.T[:, None].copy()
        return step.add(
            model.StreamConv1d(
                flow.dim,
                flow.dim,
                len(weights),
                1,
                edges[0],
                edges[1],
                module.stride,
                flow.dim,
                kernel,
            )
        )
    if any(edges):
        step.add(model.ConstantPad(flow.dim, flow.dim, *edges))
    orders = (module.before, module.after, module.stride)
    return step.add(model.Fsmn(flow.dim, flow.dim, *orders, filter=weights))
