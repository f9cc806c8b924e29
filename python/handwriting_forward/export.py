"""Exports PyTorch modules from the shell: python3 -m handwriting_forward.export FILE:FUNCTION OUT

FUNCTION of the Python file FILE is called without arguments and returns a list of torch.nn.Module,
one for every network. The exit status is 1 where the modules cannot be exported, 2 for a wrong
command line.
"""

from __future__ import annotations

import argparse
import importlib.util
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np

from .errors import HandwritingError


def _function(place: str) -> Any:
    """The function that FILE:FUNCTION names."""
    file, colon, name = place.rpartition(":")
    if not (file and colon and name):
        raise argparse.ArgumentTypeError(f"{place}: FILE:FUNCTION wanted")
    if not Path(file).is_file():
        raise argparse.ArgumentTypeError(f"{file}: no such file")
    specification = importlib.util.spec_from_file_location(Path(file).stem, file)
    if specification is None or specification.loader is None:
        raise argparse.ArgumentTypeError(f"{file}: a Python file wanted")
    module = importlib.util.module_from_spec(specification)
    sys.path.insert(0, str(Path(file).resolve().parent))
    sys.modules[specification.name] = module  # where its dataclasses look for it
    specification.loader.exec_module(module)
    if not callable(getattr(module, name, None)):
        raise argparse.ArgumentTypeError(f"{file}: no function {name}")
    return getattr(module, name)


def _features(path: str) -> Any:
    try:
        return np.load(path)
    except (OSError, ValueError) as error:
        raise argparse.ArgumentTypeError(f"{path}: {error}") from error


def main(arguments: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(
        prog="python3 -m handwriting_forward.export",
        description=(__doc__ or "").partition("\n\n")[2],
    )
    parser.add_argument("build", type=_function, metavar="FILE:FUNCTION")
    parser.add_argument("out", type=Path, metavar="OUT", help="model file to write")
    parser.add_argument(
        "--features",
        type=_features,
        metavar="NPY",
        help="frames x columns to compare with (default: random ones)",
    )
    parser.add_argument("--input-dim", type=int, metavar="N", help="columns of random features")
    parser.add_argument(
        "--tolerance",
        type=float,
        default=1e-3,
        metavar="X",
        help="largest difference from PyTorch, relative to the largest value (default: %(default)s)",
    )
    parser.add_argument(
        "--streaming", action="store_true", help="layers for inputs that come in chunks"
    )
    parser.add_argument("--check-fixed", action="store_true", help="also write the 8-bit form")
    given = parser.parse_args(arguments)

    from .torch import export

    try:
        report = export(
            given.out,
            given.build(),
            given.features,
            given.tolerance,
            input_dim=given.input_dim,
            streaming=given.streaming,
            check_fixed=given.check_fixed,
        )
    except (HandwritingError, OSError) as error:
        print(f"export: {error}", file=sys.stderr)
        return 1
    print(report)
    return 0


if __name__ == "__main__":
    sys.exit(main())
