"""Which rule turns which operation into layers, and what a rule has to work with."""

from __future__ import annotations

import operator
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from typing import Any, TypeVar

import numpy as np
import torch
from torch import nn

from .. import model
from ..errors import ExportError
from .chain import CHANNELS_FIRST, FRAME, FRAMES_FIRST, PLANES, ROWS, Axes, Chain, Flow, Unmapped

Rule = Callable[..., Any]
_Rule = TypeVar("_Rule", bound=Rule)
Floats = np.ndarray[Any, np.dtype[np.float32]]


@dataclass(frozen=True)
class Entry:
    """A row of the table of rules."""

    rule: Rule
    summary: str  # the layers that it gives
    own: bool  # this package's, not a user's


@dataclass(frozen=True)
class Varying:
    """A value that depends on the number of lines or frames: what it was in the two examples."""

    values: tuple[Any, Any]


_rules: dict[Any, Entry] = {}


def rule(*targets: Any, replace: bool = False) -> Callable[[_Rule], _Rule]:
    """Registers a rule for modules of a class (and its subclasses that keep its forward), for a
    function, or, given its name, for a method of tensors.

        @rule(Gain)
        def gain(step: Step, module: Gain) -> Flow:
            '''`Rescale`'''
            flow = step.rows()
            return step.add(model.Rescale(flow.dim, flow.dim, scale=array_of(module.gain)))

    A rule for a module is called with the module, one for a function or a method with its arguments;
    what flows through the network among them are `Flow`s, everything else is as the module gave it.
    A rule for a module takes the further arguments of the module's call where it has parameters for
    them. It adds layers and returns what flows on; where it cannot it raises Unmapped with the
    reason. The first paragraph of its description names the layers in the table of modules.

    Raises ExportError for a target that has a rule, unless `replace`.
    """

    def register(function: _Rule) -> _Rule:
        for target in dict.fromkeys(targets):
            if target in _rules and not replace:
                raise ExportError(
                    f"{name_of(target)} has a rule: replace=True puts another in its place"
                )
            summary = " ".join((function.__doc__ or "").partition("\n\n")[0].split()).rstrip(".")
            own = function.__module__.startswith(__package__ or "")
            _rules[target] = Entry(function, summary, own)
        return function

    return register


def rule_of_module(module: nn.Module) -> Rule | None:
    """The rule of the nearest class of the module that has one and whose forward it keeps."""
    for kind in type(module).__mro__:
        if kind in _rules:
            keeps = type(module).forward is getattr(kind, "forward", None)
            return _rules[kind].rule if keeps else None
    return None


def rule_of_target(target: Any) -> Rule | None:
    """The rule of a function, or of a method by its name."""
    entry = _rules.get(target)
    return entry.rule if entry else None


def table() -> dict[Any, Entry]:
    """All rules."""
    return dict(_rules)


def table_text() -> str:
    """The rules of this package as a table in Markdown: what is mapped, and the layers it becomes."""
    rows: dict[str, list[str]] = {}
    for target, entry in _rules.items():
        if entry.own:
            rows.setdefault(entry.summary, []).append(f"`{name_of(target)}`")
    lines = [f"| {', '.join(dict.fromkeys(names))} | {layers} |" for layers, names in rows.items()]
    return "\n".join(["| PyTorch | layers |", "| --- | --- |", *lines])


_HOMES = (
    ("torch.nn.modules", "nn"),
    ("torch.nn.functional", "functional"),
    ("torch._C._nn", "functional"),
    ("torch._jit_internal", "functional"),
    ("_operator", "operator"),
    (f"{__package__}.modules", __package__),
    ("torch", "torch"),
)


def name_of(target: Any) -> str:
    """What a module class, a function or a method is called."""
    if isinstance(target, str):
        return f"Tensor.{target}"
    module = getattr(target, "__module__", None) or "torch"
    name: str = getattr(target, "__name__", str(target))
    for home, short in _HOMES:
        if module == home or module.startswith(home + "."):
            return f"{short}.{name}"
    return f"{module}.{name}"


# What could stand in the place of some operations that no layer computes.
INSTEAD: dict[Any, str] = {
    nn.GELU: "nn.ReLU",
    nn.SiLU: "nn.ReLU",
    nn.ELU: "nn.LeakyReLU",
    nn.functional.gelu: "relu",
    nn.functional.silu: "relu",
    nn.Embedding: "features that are one-hot, and nn.Linear(..., bias=False)",
    nn.RNN: "nn.GRU or nn.LSTM",
    nn.LSTMCell: "nn.LSTM over whole lines",
    nn.GRUCell: "nn.GRU over whole lines",
    nn.GroupNorm: "nn.LayerNorm or nn.BatchNorm1d",
    nn.InstanceNorm1d: "nn.LayerNorm or nn.BatchNorm1d",
    nn.MultiheadAttention: "nn.TransformerEncoderLayer(norm_first=True, activation='relu')",
    "masked_fill": "whole lines without padding",
    torch.matmul: "nn.Linear, or nn.TransformerEncoderLayer",
    operator.matmul: "nn.Linear, or nn.TransformerEncoderLayer",
}
OWN_RULE = "a rule of your own: handwriting_forward.torch.rule"


def array_of(tensor: Any) -> Floats:
    """A copy of the values of a parameter as float32."""
    if isinstance(tensor, torch.Tensor):
        tensor = tensor.detach().cpu().float().numpy()
    return np.array(tensor, np.float32)


@dataclass
class Rounded:
    """Parameters that the file holds less exactly than the module: each with what is stored."""

    parameters: list[tuple[torch.Tensor, torch.Tensor]] = field(default_factory=list)


class Step:
    """One operation that a rule maps: what flows in, and the chain that its layers go to.

    inputs: what flows in.
    shapes: the shape of the result in two examples that differ in lines and frames.
    input_shapes: the same of the first input.
    streaming: whether layers are to carry frames from call to call.
    """

    def __init__(
        self,
        chain: Chain,
        name: str,
        inputs: Sequence[Flow],
        shapes: Sequence[tuple[int, ...]],
        input_shapes: Sequence[tuple[int, ...]],
        streaming: bool,
        rounded: Rounded,
    ) -> None:
        self._chain = chain
        self._name = name
        self.inputs = inputs
        self.shapes = shapes
        self.input_shapes = input_shapes
        self.streaming = streaming
        self._rounded = rounded

    def rows(self, *axes: Axes, flow: Flow | None = None) -> Flow:
        """What flows in, as rows that the next layer takes; in one of these orders of axes, or in
        any."""
        flow = flow or self.inputs[0]
        if flow.planes:
            raise Unmapped("planes found, frames x columns wanted", "flatten the planes first")
        if axes and flow.axes not in axes:
            wanted = " or ".join(map(_text, axes))
            raise Unmapped(f"{_text(flow.axes)} found, {wanted} wanted", "turn the axes before it")
        self._chain.fetch(flow.data, self._name)
        return flow

    def columns_last(self) -> Flow:
        """What flows in, as rows whose last axis are the columns."""
        flow = self.rows()
        if flow.axes[-1] != "columns":
            raise Unmapped(
                f"{_text(flow.axes)} found, columns wanted last", "turn the axes before it"
            )
        return flow

    def frames_last(self) -> Flow:
        """What flows in, as lines x columns x frames."""
        return self.rows(CHANNELS_FIRST)

    def plane(self) -> Flow:
        """What flows in, as planes that the next layer takes."""
        flow = self.inputs[0]
        if flow.axes != PLANES or not flow.planes:
            raise Unmapped(f"{_text(flow.axes)} found, {_text(PLANES)} wanted")
        if not self.is_current(flow):
            raise Unmapped("planes that are needed twice", "keep planes in one chain")
        return flow

    def is_current(self, flow: Flow) -> bool:
        """Whether it is what the last layer gave."""
        return flow.data is self._chain.current

    def axis(self, flow: Flow, dim: int) -> str:
        """The name of an axis that the module gives by its number."""
        if not -len(flow.axes) <= dim < len(flow.axes):
            raise Unmapped(f"axis {dim} of {_text(flow.axes)}")
        return flow.axes[dim]

    def join(self, flows: Sequence[Flow]) -> Flow:
        """Rows side by side."""
        axes = flows[0].axes
        for flow in flows:
            if flow.planes or flow.axes != axes:
                raise Unmapped("parts with one order of axes wanted, lines x frames x columns")
        return Flow(self._chain.join([flow.data for flow in flows], self._name), axes)

    def add(self, layer: model.Layer, axes: Axes | None = None) -> Flow:
        """Appends a layer to what flows in (or to the layer before it); returns what it gives, with
        the axes of the input unless others are named."""
        planes = 0
        if isinstance(layer, (model.ChannelLayer, model.DeflattenComponent)):
            planes = layer.output_channels
        data = self._chain.add(layer, self._name, int(layer.output_dim or 0), planes)
        return Flow(data, axes or self.inputs[0].axes)

    def round(self, parameter: torch.Tensor) -> None:
        """Says that the file holds the parameter as binary16."""
        self._rounded.parameters.append((parameter, parameter.detach().half().to(parameter.dtype)))


def _text(axes: Axes) -> str:
    return " x ".join(axes)


__all__ = [
    "CHANNELS_FIRST",
    "FRAME",
    "FRAMES_FIRST",
    "PLANES",
    "ROWS",
    "Axes",
    "Chain",
    "Entry",
    "Flow",
    "Floats",
    "Rounded",
    "Rule",
    "Step",
    "Unmapped",
    "Varying",
    "array_of",
    "name_of",
    "rule",
    "rule_of_module",
    "rule_of_target",
    "table",
    "table_text",
]
