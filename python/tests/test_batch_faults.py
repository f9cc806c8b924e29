"""A batch on Dask, with real schedulers and workers on the loopback interface, and what may happen to
them. Whatever does, the folder ends as that of one process."""

from __future__ import annotations

import os
import signal
import subprocess
import time
from pathlib import Path
from typing import Any

import numpy as np
import pytest

pytest.importorskip("distributed")

from batch_support import Start, batch, content, done, made_lines, start, wanted  # noqa: E402, F401
from handwriting_forward.batch import write_store  # noqa: E402

# A worker with it reads slowly, dies of files that are called so, or does not see what others see.
PRELOAD = """
import os, signal, time
import numpy as np
from handwriting_forward.batch import cluster, work

if not hasattr(work, "load"):  # a worker may load this twice
    work.load = np.load
load, work_on = work.load, work.work_on

def killing(path, *rest, **more):
    if "killer" in str(path):
        os.kill(os.getpid(), signal.SIGKILL)
    return load(path, *rest, **more)

def slow(*arguments):
    time.sleep(float(os.environ.get("SLOW", 0)))
    return work_on(*arguments)

def blind(ticket):
    cluster._SHARED[ticket.job] = "BLIND" not in os.environ
    return cluster._SHARED[ticket.job]

np.load = killing
cluster.work_on = slow
if "BLIND" in os.environ:
    cluster.sees = blind
if "VERSION" in os.environ:
    cluster._core.version = os.environ["VERSION"]
"""


class Cluster:
    """A scheduler, and workers of one thread each."""

    def __init__(self, start: Start, folder: Path) -> None:
        self._start = start
        self._folder = folder
        (folder / "preload.py").write_text(PRELOAD)
        self.file = folder / "scheduler.json"
        self.file.unlink(missing_ok=True)
        self.scheduler = start(
            "-m", "distributed.cli.dask_scheduler", "--host", "127.0.0.1", "--port", 0,
            "--no-dashboard", "--scheduler-file", self.file, stderr=subprocess.DEVNULL,
        )  # fmt: skip
        while not self.file.exists():
            assert self.scheduler.poll() is None
            time.sleep(0.05)

    @property
    def address(self) -> str:
        import json

        found: str = json.loads(self.file.read_text())["address"]
        return found

    def worker(self, **environment: Any) -> subprocess.Popen:
        os.environ.update({name: str(value) for name, value in environment.items()})
        try:
            return self._start(
                "-m", "distributed.cli.dask_worker", self.address, "--nthreads", 1, "--nworkers", 1,
                "--no-dashboard", "--preload", self._folder / "preload.py", "--death-timeout", 20,
                "--local-directory", self._folder, stderr=subprocess.DEVNULL,
            )  # fmt: skip
        finally:
            for name in environment:
                del os.environ[name]


@pytest.fixture
def cluster(start: Start, tmp_path: Path) -> Cluster:  # noqa: F811
    return Cluster(start, tmp_path)


def shards(folder: Path) -> int:
    return len(list(folder.glob("part-*.jsonl")))


def wait_for(condition: Any, seconds: float = 30) -> None:
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.02)


@pytest.fixture
def lines(tmp_path: Path) -> Path:
    write_store(tmp_path / "s.npz", made_lines(60))
    return tmp_path / "s.npz"


def test_a_local_cluster(start, digits, lines, tmp_path) -> None:  # noqa: F811
    before = wanted(start, digits, tmp_path, lines, "--shard", 4)
    code, out, err = done(batch(start, digits, lines, "--shard", 4, "--out", "out", "--workers", 2))
    assert (code, err) == (0, "") and out.count("tcp://127.0.0.1:") == 2
    assert content(tmp_path / "out") == before


def test_workers_that_die_and_join(start, digits, lines, cluster, tmp_path) -> None:  # noqa: F811
    before = wanted(start, digits, tmp_path, lines, "--shard", 2)
    first, second = cluster.worker(SLOW=0.2), cluster.worker(SLOW=0.2)
    out = tmp_path / "out"
    process = batch(
        start, digits, lines, "--shard", 2, "--out", out, "--scheduler", cluster.address
    )
    wait_for(lambda: shards(out) >= 3)
    os.killpg(first.pid, signal.SIGKILL)
    os.killpg(second.pid, signal.SIGKILL)
    cluster.worker()
    assert done(process)[0] == 0
    assert content(out) == before


def test_a_scheduler_that_dies(start, digits, lines, cluster, tmp_path) -> None:  # noqa: F811
    before = wanted(start, digits, tmp_path, lines, "--shard", 2)
    cluster.worker(SLOW=0.3)
    out = tmp_path / "out"
    process = batch(
        start, digits, lines, "--shard", 2, "--out", out, "--scheduler", cluster.address
    )
    wait_for(lambda: shards(out) >= 3)
    os.killpg(cluster.scheduler.pid, signal.SIGKILL)
    code, text, err = done(process, 30)
    assert (code, text, err) == (1, "", "batch: the scheduler is gone\n")
    again = Cluster(start, tmp_path)
    again.worker()
    process = batch(start, digits, lines, "--shard", 2, "--out", out, "--scheduler", again.address)
    assert done(process)[0] == 0
    assert content(out) == before


def test_an_interrupt(start, digits, lines, cluster, tmp_path) -> None:  # noqa: F811
    before = wanted(start, digits, tmp_path, lines, "--shard", 2)
    cluster.worker(SLOW=0.3)
    out = tmp_path / "out"
    arguments = (lines, "--shard", 2, "--out", out, "--scheduler", cluster.address)
    process = batch(start, digits, *arguments)
    wait_for(lambda: shards(out) >= 3)
    process.send_signal(signal.SIGINT)
    code, _, err = done(process, 30)
    assert (code, err) == (130, "batch: interrupted; the same command goes on\n")
    assert shards(out) < 30
    cluster.worker()
    assert done(batch(start, digits, *arguments))[0] == 0
    assert content(out) == before


def test_a_line_that_kills(start, digits, cluster, tmp_path) -> None:  # noqa: F811
    folder = tmp_path / "lines"
    folder.mkdir()
    for i, line in enumerate(made_lines(12)):
        np.save(folder / f"{i:02}{'-killer' if i == 5 else ''}.npy", line)
    before = wanted(start, digits, tmp_path, folder, "--shard", 4)
    for _ in range(2):
        cluster.worker()
    arguments = (folder, "--shard", 4, "--out", "out", "--scheduler", cluster.address)
    code, _, err = done(batch(start, digits, *arguments), 120)
    assert (code, err) == (0, "")
    found = content(tmp_path / "out")
    name = "part-00000001.jsonl"
    assert [k for k in found if found[k] != before[k]] == sorted(["manifest.json", name])
    old, new = before[name].splitlines(), found[name].splitlines()
    assert [a == b for a, b in zip(old, new)] == [True, False, True, True]
    assert b'"error":"the process that read it was killed"' in new[1]


def test_workers_without_the_storage(start, digits, lines, cluster, tmp_path) -> None:  # noqa: F811
    before = wanted(start, digits, tmp_path, lines, "--shard", 4)
    cluster.worker(BLIND=1)
    process = batch(
        start, digits, lines, "--shard", 4, "--out", "out", "--scheduler", cluster.address
    )
    assert done(process)[0] == 0
    assert content(tmp_path / "out") == before


def test_workers_with_another_version(start, digits, lines, cluster) -> None:  # noqa: F811
    cluster.worker(VERSION="0.0")
    process = batch(start, digits, lines, "--out", "out", "--scheduler", cluster.address)
    code, _, err = done(process)
    assert code == 1 and "version 0.0 of handwriting_forward at a worker" in err


def test_no_scheduler(start, digits, lines) -> None:  # noqa: F811
    arguments = (lines, "--out", "out", "--scheduler", "tcp://127.0.0.1:9")
    code, _, err = done(batch(start, digits, *arguments), 40)
    assert code == 1 and "tcp://127.0.0.1:9" in err and err.count("\n") == 1
