"""Makes the Python package of the library importable: the installed one, or that of the last build."""

import importlib.util
import sys
from pathlib import Path

if importlib.util.find_spec("handwriting_forward") is None:
    sys.path.append(str(Path(__file__).resolve().parents[2] / "build/release/python"))
