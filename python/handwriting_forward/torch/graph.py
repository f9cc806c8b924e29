"""From the graph of a module to the layers of a network, or to all reasons why there are none."""

from __future__ import annotations

import inspect
import operator
from dataclasses import dataclass
from typing import Any

import numpy as np
import torch
from torch import fx, nn
from torch.fx.node import map_arg

from .. import model
from ..errors import ExportError
from . import tracer
from .chain import FRAME, ROWS, Axes, Chain, Data, Flow
from .rules import (
    INSTEAD,
    OWN_RULE,
    Rounded,
    Step,
    Unmapped,
    Varying,
    array_of,
    name_of,
    rule_of_module,
    rule_of_target,
)
from .sequence_rules import STATE

# Operations that give numbers or new tensors of a size, whatever the values in what they are given.
_ABOUT_SHAPES = (
    *("size", "dim", "ndimension", "numel", "new_zeros", "new_ones", "new_full"),
    *(torch.zeros_like, torch.ones_like),
)


@dataclass
class Compiled:
    """A module as layers: the graph it was recorded as, and what of it belongs to which layer."""

    module: nn.Module
    graph: fx.Graph
    layers: list[model.Layer]
    owners: list[str]  # for each layer the operation in the graph, by its name
    axes: dict[str, Axes]  # of the results of operations
    paths: dict[str, str]  # what a person calls an operation: its module's path, or its function
    rounded: Rounded
    dim: int  # columns in
    axes_out: Axes

    @property
    def output_dim(self) -> int:
        return int(self.layers[-1].output_dim or 0)

    def positions(self) -> dict[str, int]:
        """For each operation the position of its last layer."""
        return {owner: position for position, owner in enumerate(self.owners) if owner}


def compile_module(module: nn.Module, dim: int, streaming: bool) -> Compiled:
    """The layers of a module that takes lines x frames x dim. Raises ExportError that names every
    operation that no layer computes."""
    parameter = next(module.parameters(), torch.zeros(0))
    generator = torch.Generator().manual_seed(1)
    examples = tuple(
        torch.rand(*size, dim, generator=generator).to(parameter) for size in tracer.EXAMPLES
    )
    root, graph = tracer.trace(module, _is_leaf, examples)
    compiler = _Compiler(root, graph, dim, streaming)
    compiler.visit_all()
    if compiler.problems:
        raise ExportError(*compiler.problems)
    chain = compiler.chain
    _fold_column_scalings(chain)
    firsts = {k: v[0] if isinstance(v, tuple) else v for k, v in compiler.flows.items()}
    axes = {name: flow.axes for name, flow in firsts.items() if isinstance(flow, Flow)}
    return Compiled(
        root,
        graph,
        chain.layers,
        chain.owners,
        axes,
        compiler.paths,
        compiler.rounded,
        dim,
        compiler.axes_out,
    )


def _is_leaf(module: nn.Module) -> bool:
    if rule_of_module(module) is not None:
        return True
    own = type(module).__module__.startswith("torch.nn")
    return own and not isinstance(module, (nn.Sequential, nn.ModuleList))


class _Compiler:
    """Visits the operations in the order in which they were recorded."""

    def __init__(self, module: nn.Module, graph: fx.Graph, dim: int, streaming: bool) -> None:
        self.module = module
        self.graph = graph
        self.streaming = streaming
        self.chain = Chain(current=Data(dim))
        self.flows: dict[str, Any] = {}
        self.paths: dict[str, str] = {}
        self.problems: list[str] = []
        self.rounded = Rounded()
        self.axes_out = ROWS
        self._lost: set[str] = set()  # what comes of an operation that could not be mapped

    def visit_all(self) -> None:
        needed: set[fx.Node] = set()
        for node in reversed(self.graph.nodes):
            if node.op == "output" or node in needed or self._is_in_place(node):
                needed |= {node, *node.all_input_nodes}
        for node in self.graph.nodes:
            if node in needed or node.op == "placeholder":
                self._visit(node)

    def _visit(self, node: fx.Node) -> None:
        inputs = [each for each in node.all_input_nodes if each.name in self.flows]
        if node.op == "placeholder":
            self.flows[node.name] = Flow(self.chain.current, ROWS)
        elif any(each.name in self._lost for each in node.all_input_nodes):
            self._lost.add(node.name)
            if node.op == "call_module" and inputs and inputs[0] is node.args[0]:
                self._map(node, inputs)  # which may refuse what it is given beside its input
        elif node.op == "output":
            self._end(node)
        elif inputs and not self._is_about_shapes(node):
            self._map(node, inputs)

    @staticmethod
    def _is_about_shapes(node: fx.Node) -> bool:
        shapes = node.target is getattr and not isinstance(node.meta["values"][0], torch.Tensor)
        return shapes or node.target in _ABOUT_SHAPES

    def _map(self, node: fx.Node, inputs: list[fx.Node]) -> None:
        module = self.module.get_submodule(str(node.target)) if node.op == "call_module" else None
        rule = rule_of_module(module) if module is not None else rule_of_target(node.target)
        self.paths[node.name] = self._path(node)
        if rule is None:
            kind = node.target if module is None else type(module)
            instead = INSTEAD.get(kind, OWN_RULE)
            self._refuse(node, "no layer of the library computes it", instead)
            self._assume(node, inputs[0])
            return
        flows = [self.flows[each.name] for each in inputs]
        step = Step(
            self.chain,
            node.name,
            flows,
            _shapes(node),
            _shapes(inputs[0]),
            self.streaming,
            self.rounded,
        )
        try:
            if STATE in flows and node.target is not operator.getitem:
                raise Unmapped(f"{STATE}, which no layer gives", "the last frame of the output")
            result = self._call(rule, step, node, module)
            self._check(result, _shapes(node)[0])
        except Unmapped as unmapped:
            self._refuse(node, str(unmapped), unmapped.instead)
            self._assume(node, inputs[0])
            return
        self.flows[node.name] = result
        if self._is_in_place(node):
            self.flows[inputs[0].name] = result

    def _assume(self, node: fx.Node, first: fx.Node) -> None:
        """Goes on behind what could not be mapped, where it keeps the axes of its input, so that
        what follows is looked at as well."""
        before, after, flow = _shapes(first)[0], _shapes(node)[0], self.flows[first.name]
        if len(before) != len(after) or not isinstance(flow, Flow) or "columns" not in flow.axes:
            return
        sizes = dict(zip(flow.axes, after))
        if all(sizes[axis] == size for axis, size in zip(flow.axes, before) if axis != "columns"):
            self._lost.discard(node.name)
            self.chain.current = Data(sizes["columns"], flow.planes)
            self.flows[node.name] = Flow(self.chain.current, flow.axes)

    def _call(self, rule: Any, step: Step, node: fx.Node, module: nn.Module | None) -> Any:
        args = [self._plain(each) for each in node.args]
        kwargs = {name: self._plain(each) for name, each in node.kwargs.items()}
        if module is not None:
            parameters = inspect.signature(rule).parameters
            args = [module, *(args[1:] if len(parameters) > 2 else [])]
            given = [*node.args[1:], *node.kwargs.values()]
            if len(parameters) <= 2:
                kwargs = {}
                if any(each is not None for each in given):
                    raise Unmapped("arguments beside the input", "the input alone")
        try:
            inspect.signature(rule).bind(step, *args, **kwargs)
        except TypeError as error:
            raise Unmapped(f"arguments: {error}") from None
        return rule(step, *args, **kwargs)

    def _plain(self, argument: Any) -> Any:
        """An argument with flows in the place of nodes, and with what else a node gives."""

        def value_of(node: fx.Node) -> Any:
            return self.flows[node.name] if node.name in self.flows else _Given(node)

        def plain(each: Any) -> Any:
            if isinstance(each, _Given):
                return each.value
            if isinstance(each, (tuple, list)):
                return tuple(plain(part) for part in each)
            if isinstance(each, slice):
                return slice(plain(each.start), plain(each.stop), plain(each.step))
            return each

        return plain(map_arg(argument, value_of))

    @staticmethod
    def _check(result: Any, shape: tuple[int, ...]) -> None:
        if not isinstance(result, Flow):
            return
        sizes = dict(zip(result.axes, shape))
        columns, planes = sizes.get("columns"), sizes.get("planes", 0)
        if len(shape) != len(result.axes) or (columns, planes) != (result.dim, result.planes):
            raise Unmapped(
                f"its rule gives {' x '.join(result.axes)} of {result.dim} columns for {shape}"
            )

    def _end(self, node: fx.Node) -> None:
        result = node.args[0]
        flow = self.flows.get(result.name) if isinstance(result, fx.Node) else None
        if not isinstance(flow, Flow) or flow.axes not in (ROWS, FRAME) or flow.planes:
            found = " x ".join(flow.axes) if isinstance(flow, Flow) else type(result).__name__
            found += " found"
            self._refuse(node, found, "one tensor, lines x frames x columns")
            return
        self.chain.fetch(flow.data, node.name)
        self.axes_out = flow.axes
        if not self.chain.layers:
            keep = model.RegisterComponent(flow.dim, flow.dim, register_name="input")
            self.chain.add(keep, node.name, flow.dim)

    def _is_in_place(self, node: fx.Node) -> bool:
        """Whether an operation changes what it is given."""
        if node.op == "call_module":
            module = self.module.get_submodule(str(node.target))
            return bool(getattr(module, "inplace", False))
        name = str(node.target)
        if node.op == "call_function":
            name = getattr(node.target, "__name__", "")
        return bool(node.kwargs.get("inplace")) or (name.endswith("_") and not name.endswith("__"))

    def _path(self, node: fx.Node) -> str:
        if node.op == "call_module":
            return tracer.path_of(str(node.target)) or type(self.module.network).__name__
        within = node.meta.get("path", "")
        return f"{within}: {name_of(node.target)}" if within else name_of(node.target)

    def _refuse(self, node: fx.Node, reason: str, instead: str) -> None:
        self._lost.add(node.name)
        what = self._path(node)
        if node.op == "call_module":
            what += f" ({name_of(type(self.module.get_submodule(str(node.target))))})"
        if node.op == "output":
            what = "the result of forward"
        inputs = [
            " x ".join(map(str, each)) for n in node.all_input_nodes for each in _shapes(n)[:1]
        ]
        output = "".join(" x ".join(map(str, each)) for each in _shapes(node)[:1])
        lines = [f"{what}: {reason}"]
        if node.meta.get("line"):
            lines.append(f"at {node.meta['line']}")
        if any(inputs):
            lines.append(
                f"shapes {', '.join(filter(None, inputs))}" + (f" -> {output}" if output else "")
            )
        if instead:
            lines.append(f"instead: {instead}")
        self.problems.append("\n    ".join(lines))


def _shapes(node: fx.Node) -> tuple[tuple[int, ...], ...]:
    """The shapes of what an operation gives, empty where that is no tensor."""
    return tuple(
        tuple(value.shape) if isinstance(value, torch.Tensor) else ()
        for value in node.meta.get("values", ((), ()))
    )


class _Given:
    """What does not flow through the network."""

    def __init__(self, node: fx.Node) -> None:
        first, second = node.meta["values"]
        self.value = Varying((first, second)) if node.meta["varies"] else first


def _fold_column_scalings(chain: Chain) -> None:
    """A normalisation, a factor or a shift of every column right after a layer with weights goes into
    these weights."""
    i = 1
    while i < len(chain.layers):
        scaling = _scaling(chain.layers[i])
        folded = None if scaling is None else _folded(chain.layers[i - 1], *scaling)
        if folded is None:
            i += 1
        else:
            chain.layers[i - 1 : i + 1] = [folded]
            del chain.owners[i - 1]


def _scaling(layer: model.Layer) -> tuple[Any, Any] | None:
    """Scale and shift of a layer that has them for every column."""
    if isinstance(layer, model.BatchNorm1d):
        scale = np.float64(layer.gamma) / np.sqrt(np.float64(layer.variance) + layer.epsilon)
        return scale, layer.beta - layer.mean * scale
    if isinstance(layer, model.Rescale):
        return np.float64(layer.scale), np.zeros(layer.output_dim)
    if isinstance(layer, model.AddShift):
        return np.ones(layer.output_dim), np.float64(layer.shift)
    return None


def _folded(layer: model.Layer, scale: Any, shift: Any) -> model.Layer | None:
    if isinstance(layer, (model.AffineTransform, model.LinearTransform)):
        weights = array_of(np.asarray(layer.weights) * scale[:, None])
        dims = (layer.input_dim, layer.output_dim)
        if isinstance(layer, model.LinearTransform) and not shift.any():
            return model.LinearTransform(*dims, weights=weights)
        bias = getattr(layer, "bias", np.zeros(len(scale))) * scale + shift
        return model.AffineTransform(*dims, bias=array_of(bias), weights=weights)
    if isinstance(layer, model.Conv1d):
        bias = layer.bias_vector if layer.has_bias else np.zeros(len(scale))
        layer.kernel = array_of(layer.kernel * scale[:, None, None])
        layer.bias_vector = array_of(bias * scale + shift)
        layer.has_bias = 1
        return layer
    return None
