"""What the tests of batches share: commands that run, lines, and folders of results."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import handwriting_forward
import numpy as np
import pytest

PACKAGE = str(Path(handwriting_forward.__file__).parents[1])

Start = Callable[..., subprocess.Popen]


@pytest.fixture
def start(tmp_path: Path) -> Iterator[Start]:
    """Starts Python programs; those that still run at the end of a test are killed."""
    started = []

    def run(*arguments: Any, preload: str = "", **options: Any) -> subprocess.Popen:
        environment = {**os.environ, "PYTHONPATH": f"{PACKAGE}:{tmp_path}", "HOME": str(tmp_path)}
        command = [sys.executable, "-B", *map(str, arguments)]
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True} | options
        started.append(
            subprocess.Popen(
                command, cwd=tmp_path, env=environment, start_new_session=True, **options
            )
        )
        return started[-1]

    yield run
    for process in started:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.communicate()


def made_lines(count: int) -> list[np.ndarray]:
    rng = np.random.default_rng(count)
    return [rng.random((int(rng.integers(5, 60)), 8), np.float32) for _ in range(count)]


def batch(start: Start, digits: Path, *arguments: Any, **options: Any) -> subprocess.Popen:
    command = ["-m", "handwriting_forward.batch", digits / "model.bin", *arguments]
    return start(*command, **options)


def done(process: subprocess.Popen, seconds: float = 60) -> tuple[int, str, str]:
    out, err = process.communicate(timeout=seconds)
    return process.returncode, out, err


def content(folder: Path) -> dict[str, bytes]:
    return {each.name: each.read_bytes() for each in folder.iterdir()}


def wanted(start: Start, digits: Path, tmp_path: Path, *arguments: Any) -> dict[str, bytes]:
    """What one process makes of it."""
    assert done(batch(start, digits, *arguments, "--out", "wanted", "--workers", 0))[0] == 0
    return content(tmp_path / "wanted")
