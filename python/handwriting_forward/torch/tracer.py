"""From a module to a graph of its operations, each with the line of the user's source that did it.

torch.fx records what `forward` does with stand-ins for its tensors. Every operation is also carried
out on two examples that differ in lines and frames: so ranks and widths are plain numbers while
tracing, a tuple of results can be taken apart, and what depends on the input is known.
"""

from __future__ import annotations

import contextlib
import linecache
import operator
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import torch
from torch import fx, nn
from torch.fx.node import map_arg

from ..errors import ExportError
from .rules import INSTEAD, name_of

# Lines and frames of the two examples: frames that strides divide, and so far apart that strides leave
# different numbers of them.
EXAMPLES = ((2, 64), (3, 192))

_OWN = (str(Path(torch.__file__).parent), str(Path(__file__).parent))
_PLAIN = (int, float, bool, torch.dtype, torch.device, torch.layout)
_PACKED = "packed sequences: export a forward that runs on whole lines, without padding"


class Refused(ExportError):
    """An operation that cannot be recorded."""


def user_line(frame: Any) -> str:
    """ "FILE:LINE: SOURCE" of the innermost frame of the traced module that is not PyTorch's; empty
    where it has none, as a Sequential."""
    while frame is not None and frame.f_code is not trace.__code__:
        if not frame.f_code.co_filename.startswith(_OWN):
            return _line(frame.f_code.co_filename, frame.f_lineno)
        frame = frame.f_back
    return ""


def path_of(target: str) -> str:
    """The path of a module in the one that is traced, whose own is empty."""
    return target.removeprefix("network").removeprefix(".")


def _line(file: str, number: int) -> str:
    return f"{file}:{number}: {linecache.getline(file, number).strip()}"


class _Proxy(fx.Proxy):
    """A stand-in that says what is wrong where a number is wanted of it."""

    def __getattr__(self, name: str) -> Any:
        if callable(getattr(self.node.meta["values"][0], name, None)):
            return _Method(self, name)
        return self.tracer.create_proxy("call_function", getattr, (self, name), {})

    def __iter__(self) -> Iterator[Any]:  # that of the base asks the byte code
        raise Refused(
            f"{user_line(sys._getframe(1))}\n    a loop over a tensor: write it with whole tensors"
        )

    def __index__(self) -> int:
        raise Refused(
            f"{user_line(sys._getframe(1))}\n    a number of lines or frames is used as a plain number"
            " (a loop over frames, a range, an allocation): write it with whole tensors"
        )

    __int__ = __index__

    def __len__(self) -> int:
        raise Refused(f"{user_line(sys._getframe(1))}\n    len() of the input: use size()")


class _Method:
    """A method of what a stand-in stands for."""

    def __init__(self, proxy: _Proxy, name: str) -> None:
        self._proxy = proxy
        self._name = name

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        return self._proxy.tracer.create_proxy(
            "call_method", self._name, (self._proxy, *args), kwargs
        )


class Root(nn.Module):
    """Around the module, which so is an operation like those in it and gets nothing added."""

    def __init__(self, network: nn.Module) -> None:
        super().__init__()
        self.network = network

    def forward(self, x: torch.Tensor) -> Any:
        return self.network(x)


class Tracer(fx.Tracer):
    """Records one module. `is_leaf(module)` says which modules are recorded as one operation."""

    proxy_buffer_attributes = True

    def __init__(self, is_leaf: Callable[[nn.Module], bool], examples: tuple[Any, ...]) -> None:
        super().__init__()
        self._is_leaf = is_leaf
        self._examples = examples
        self._path: list[str] = []
        self._carries_out = False

    def getattr(self, attr: str, attr_val: Any, parameter_proxy_cache: dict[str, Any]) -> Any:
        if self._carries_out:
            return attr_val
        return super().getattr(attr, attr_val, parameter_proxy_cache)

    def call_module(self, m: nn.Module, forward: Any, args: Any, kwargs: Any) -> Any:
        if self._carries_out:
            return forward(*args, **kwargs)
        self._path.append(path_of(self.path_of_module(m)))
        try:
            return super().call_module(m, forward, args, kwargs)
        finally:
            self._path.pop()

    def proxy(self, node: fx.Node) -> Any:
        return _Proxy(node, self)

    def is_leaf_module(self, module: nn.Module, name: str) -> bool:
        return self._is_leaf(module)

    def create_proxy(
        self, kind: str, target: Any, args: Any, kwargs: Any, *rest: Any, **more: Any
    ) -> Any:
        proxy = super().create_proxy(kind, target, args, kwargs, *rest, **more)
        return self._plain(proxy.node, proxy)

    def create_node(self, *args: Any, **kwargs: Any) -> fx.Node:
        node: fx.Node = super().create_node(*args, **kwargs)
        node.meta["path"] = self._path[-1] if self._path else ""
        node.meta["line"] = user_line(sys._getframe(1))
        self._carries_out = True
        try:
            node.meta["values"] = tuple(
                self._carry_out(node, i) for i in range(len(self._examples))
            )
        except Exception as error:
            if node.op != "call_module":
                raise
            module = self.root.get_submodule(str(node.target))
            raise Refused(_failed(node, module, error)) from error
        finally:
            self._carries_out = False
        node.meta["varies"] = _varies(node)
        return node

    def _carry_out(self, node: fx.Node, example: int) -> Any:
        """What an operation gives for one of the examples."""
        if node.op == "placeholder":
            return self._examples[example]

        def value_of(each: fx.Node) -> Any:
            return each.meta["values"][example]

        args, kwargs = map_arg(node.args, value_of), map_arg(node.kwargs, value_of)
        if node.op == "get_attr":
            return operator.attrgetter(str(node.target))(self.root)
        if node.op == "output":
            return args[0]
        with torch.no_grad():
            if node.op == "call_module":
                return self.root.get_submodule(str(node.target))(*args, **kwargs)
            if node.op == "call_method":
                return getattr(args[0], str(node.target))(*args[1:], **kwargs)
            function: Any = node.target
            return function(*args, **kwargs)

    @staticmethod
    def _plain(node: fx.Node, proxy: Any) -> Any:
        """A width, a rank or a type, which is the same for every input, is no stand-in, and a tuple
        is one of stand-ins."""
        first = node.meta["values"][0]
        if isinstance(first, _PLAIN) and not node.meta["varies"]:
            node.graph.erase_node(node)
            return first
        if node.op.startswith("call") and type(first) in (tuple, list, torch.Size):
            return tuple(proxy[i] for i in range(len(first)))
        return proxy

    def to_bool(self, proxy: fx.Proxy) -> bool:
        raise Refused(
            f"{user_line(sys._getframe(1))}\n    a branch on the input or on its number of lines or"
            " frames: a model file has one way for all inputs; decide in __init__"
        )


# What asks for a size or a type: the same for every input where it is for the two examples.
_ASK = ("size", "dim", "ndimension", "is_floating_point", getattr)


def _varies(node: fx.Node) -> bool:
    """Whether what an operation gives depends on the input, or on its number of lines or frames."""
    if node.op in ("get_attr", "placeholder"):
        return node.op == "placeholder"
    first, second = node.meta["values"]
    part_of_size = node.target is operator.getitem and isinstance(first, int)
    if node.target in _ASK or part_of_size:
        return bool(not isinstance(first, torch.Tensor) and first != second)
    return any(each.meta["varies"] for each in node.all_input_nodes)


def _failed(node: fx.Node, module: nn.Module, error: Exception) -> str:
    """What is to be said of a module that PyTorch cannot run on an example."""
    lines = [f"{path_of(str(node.target))} ({name_of(type(module))}): {error}".strip()]
    lines += [f"at {node.meta['line']}"] if node.meta["line"] else []
    lines += [f"instead: {INSTEAD[type(module)]}"] if type(module) in INSTEAD else []
    return "\n    ".join(lines)


def trace(
    module: nn.Module, is_leaf: Callable[[nn.Module], bool], examples: tuple[Any, ...]
) -> tuple[Root, fx.Graph]:
    """The graph of a module in evaluation mode, and what it is the graph of. Raises ExportError with the line of the user's
    source that cannot be recorded."""
    tracer, root = Tracer(is_leaf, examples), Root(module)
    try:
        with _sizes_recorded():
            graph = tracer.trace(root)
            return root, graph
    except Refused:
        raise
    except Exception as error:
        lines = _lines_of(error)
        reason = (
            _PACKED
            if any("utils/rnn.py" in line for line in lines)
            else f"{type(error).__name__}: {error}"
        )
        users = [line for line in lines if not line.startswith(_OWN)]
        place = users[-1] if users else type(module).__name__
        raise Refused(f"{place}\n    {reason}") from error


def _lines_of(error: BaseException) -> list[str]:
    lines = []
    trail = error.__traceback__
    while trail is not None:
        lines.append(_line(trail.tb_frame.f_code.co_filename, trail.tb_lineno))
        trail = trail.tb_next
    return lines


@contextlib.contextmanager
def _sizes_recorded() -> Iterator[None]:
    """New tensors of a recorded size are recorded."""
    real = {name: getattr(torch, name) for name in ("zeros", "ones", "full", "arange")}

    def recorded(make: Callable[..., Any]) -> Callable[..., Any]:
        def wrapper(*args: Any, **kwargs: Any) -> Any:
            proxies: list[fx.Proxy] = []
            fx.node.map_aggregate((args, kwargs), lambda each: _collect(each, proxies))
            if proxies:
                return proxies[0].tracer.create_proxy("call_function", make, args, kwargs)
            return make(*args, **kwargs)

        return wrapper

    for name, make in real.items():
        setattr(torch, name, recorded(make))
    try:
        yield
    finally:
        for name, make in real.items():
            setattr(torch, name, make)


def _collect(value: Any, proxies: list[fx.Proxy]) -> Any:
    if isinstance(value, fx.Proxy):
        proxies.append(value)
    return value
