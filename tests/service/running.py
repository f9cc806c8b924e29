"""A service that runs beside a test."""

from __future__ import annotations

import re
import signal
import subprocess
from pathlib import Path


class RunningService:
    """`handwriting serve` on a port of its own choice."""

    def __init__(self, tool: Path, model: Path, *options: str) -> None:
        command = [str(tool), "serve", str(model), "--port", "0", *options]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        self.port = int(re.fullmatch(r"listening on http://127\.0\.0\.1:(\d+)\n", line)[1])

    def __enter__(self) -> RunningService:
        return self

    def __exit__(self, failed: type | None, *_: object) -> None:
        try:
            if failed is None:
                self.end()
        finally:
            self.process.kill()
            self.process.stdout.close()
            self.process.wait()

    def end(self) -> None:
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(timeout=5) == 0, "the service did not end well"
