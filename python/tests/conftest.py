"""Tests run against the package in a build tree, or the installed one where that is asked for.

environment:
  HANDWRITING_INSTALLED   set: the installed package
  HANDWRITING_PACKAGE     the folder of another package, build/release/python unless set
  HANDWRITING_TOOL        the command-line tool, build/release/handwriting unless set
"""

import os
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]

if not os.environ.get("HANDWRITING_INSTALLED"):
    sys.path.insert(
        0, os.environ.get("HANDWRITING_PACKAGE", str(REPOSITORY / "build/release/python"))
    )


@pytest.fixture(scope="session")
def tool() -> str:
    """The path of the command-line tool."""
    return os.environ.get("HANDWRITING_TOOL", str(REPOSITORY / "build/release/handwriting"))


@pytest.fixture(scope="session")
def digits() -> Path:
    """The digits example, with its models and lines."""
    return REPOSITORY / "examples/digits"
