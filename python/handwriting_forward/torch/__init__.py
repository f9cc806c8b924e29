"""Exports PyTorch modules as model files of the library; needs PyTorch 1.13 or later.

    from handwriting_forward.torch import export

    print(export("model.bin", [reader, classes], features))

`rule` registers how a module of one's own becomes layers, `table` and, as Markdown, `table_text` list
what is mapped, and `PositionalEncoding` and `Fsmn` are modules for which the library has a layer.
"""

from . import dense_rules, flow_rules, sequence_rules, window_rules  # noqa: F401  register rules
from .exporting import LayerReport, NetworkReport, Report, export
from .modules import Fsmn, PositionalEncoding
from .rules import Flow, Step, Unmapped, array_of, name_of, rule, table, table_text

__all__ = [
    "Flow",
    "Fsmn",
    "LayerReport",
    "NetworkReport",
    "PositionalEncoding",
    "Report",
    "Step",
    "Unmapped",
    "array_of",
    "export",
    "name_of",
    "rule",
    "table",
    "table_text",
]
