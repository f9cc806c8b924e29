"""Tests run against the package of this source tree, or the installed one where that is asked for."""

import os
import sys
from pathlib import Path

if not os.environ.get("HANDWRITING_INSTALLED"):
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
