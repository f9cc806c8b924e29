"""Builds the package: its Python, and the compiled module by the CMake of the repository above."""

import re
import sys
from pathlib import Path

from setuptools import find_packages
from skbuild import setup

HERE = Path(__file__).resolve().parent

if {"develop", "editable_wheel"} & set(sys.argv):
    sys.exit(
        "handwriting_forward: editable installs are not supported, they would lack the compiled"
        " module; build the repository and set PYTHONPATH=build/release/python instead"
    )

version = re.search(
    r"project\(handwriting_forward VERSION ([0-9.]+)", (HERE.parent / "CMakeLists.txt").read_text()
)
assert version is not None

setup(
    version=version[1],
    packages=find_packages(include=["handwriting_forward", "handwriting_forward.*"]),
    package_data={"handwriting_forward": ["py.typed", "*.pyi"]},
    cmake_source_dir="..",
    cmake_install_target="install_python",
    cmake_args=[
        f"-DPython_EXECUTABLE={sys.executable}",
        "-DHANDWRITING_BUILD_PYTHON=ON",
        *(
            f"-DHANDWRITING_BUILD_{part}=OFF"
            for part in ("TOOL", "EXAMPLES", "TESTS", "BENCHMARKS")
        ),
    ],
)
