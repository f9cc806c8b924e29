"""Handwriting recognition: runs, reads, writes and exports the models of the library.

    from handwriting_forward import Recognizer

    with Recognizer("model.bin", labels="labels.txt") as recognizer:
        result = recognizer.recognize(features)  # float32, frames x dim
        print(result.text, result.best.confidence)

`Recognizer` runs a model, `Network` one of its networks layer by layer, `model` reads and writes
model files, `torch` (with PyTorch) exports to them. Every exception is a `HandwritingError`.
"""

from __future__ import annotations

import importlib
from typing import TYPE_CHECKING, Any

from .errors import (
    ClosedError,
    ExportError,
    ForkedError,
    HandwritingError,
    InputError,
    InUseError,
    ModelError,
    RunError,
)
from .results import Alternative, Result

if TYPE_CHECKING:
    from ._core import version as __version__
    from .network import LayerOutput, Network
    from .recognizer import Recognizer

__all__ = [
    "Alternative",
    "ClosedError",
    "ExportError",
    "ForkedError",
    "HandwritingError",
    "InUseError",
    "InputError",
    "LayerOutput",
    "ModelError",
    "Network",
    "Recognizer",
    "Result",
    "RunError",
    "__version__",
]

# Model files are read and written without the compiled module, which is loaded by what runs them.
_HOMES = {
    "LayerOutput": ("network", "LayerOutput"),
    "Network": ("network", "Network"),
    "Recognizer": ("recognizer", "Recognizer"),
    "__version__": ("_core", "version"),
}


def __getattr__(name: str) -> Any:
    if name not in _HOMES:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    module, attribute = _HOMES[name]
    value = getattr(importlib.import_module(f".{module}", __name__), attribute)
    globals()[name] = value
    return value
