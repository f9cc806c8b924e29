"""A batch on Dask distributed: shards to workers, and what may happen to them on the way."""

from __future__ import annotations

import asyncio
import concurrent.futures
import contextlib
import logging
import os
import time
import uuid
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import distributed
from distributed.comm.core import CommClosedError

from .. import _core
from ..errors import HandwritingError
from .job import Counts, Job, Model, Options, Shard, write_whole
from .lines import Part, parts_of
from .work import recognizer_of, records_of, text_of, work_on

IN_FLIGHT = 4  # shards a thread
_LOOK = 1.0  # seconds between looks at the scheduler
_LOST_AFTER = 15.0  # seconds without it
_CANCELLED = (asyncio.CancelledError, concurrent.futures.CancelledError)
_GONE = "the scheduler is gone"


class BatchError(HandwritingError):
    """A batch that cannot go on."""


class NotShared(Exception):
    """A worker does not see the files that the client sees."""


class VersionsDiffer(Exception):
    """A worker has another version of this package."""


@dataclass(frozen=True)
class Ticket:
    """What a worker knows a job by: its id, the version that it needs, and files by which it finds
    out whether it sees the storage of the client."""

    job: str
    version: str
    probe: str
    inputs: tuple[tuple[str, int], ...]


@dataclass(frozen=True)
class Outcome:
    """What became of a shard: its counts, who did it and how long it took, and its records where the
    client is to write them."""

    counts: Counts
    worker: str
    seconds: float
    text: bytes | None = None


_JOBS: dict[str, tuple[Model, Options]] = {}
_SHARED: dict[str, bool] = {}


class Prepare(distributed.WorkerPlugin):
    """Brings the model to every worker, also to those that join later."""

    def __init__(self, job: str, model: Model, options: Options) -> None:
        self.name = f"handwriting-{job}"
        self._job = job
        self._what = (model, options)

    def setup(self, worker: Any) -> None:
        """At a worker, before its first task."""
        _JOBS[self._job] = self._what
        _use_one_thread()

    def teardown(self, worker: Any) -> None:
        """At a worker, when the job has ended."""
        _JOBS.pop(self._job, None)
        _SHARED.pop(self._job, None)


def _use_one_thread() -> None:
    """Numeric libraries of this process start no threads: the workers are as many as there are cores."""
    try:
        import threadpoolctl
    except ImportError:
        return
    threadpoolctl.threadpool_limits(1)


def sees(ticket: Ticket) -> bool:
    """Whether this process sees the client's storage. Raises VersionsDiffer."""
    if _core.version != ticket.version:
        raise VersionsDiffer(
            f"version {_core.version} of handwriting_forward at a worker, " f"{ticket.version} here"
        )
    if ticket.job not in _SHARED:
        try:
            same = all(os.stat(path).st_size == size for path, size in ticket.inputs)
            _SHARED[ticket.job] = same and Path(ticket.probe).read_text() == ticket.job
        except OSError:
            _SHARED[ticket.job] = False
    return _SHARED[ticket.job]


def work_at_worker(ticket: Ticket, parts: Sequence[Part], file: str | None) -> Outcome:
    """A shard at a worker that sees the storage; without a file, its records go to the client."""
    begin = time.monotonic()
    if not sees(ticket):
        raise NotShared
    model, options = _JOBS[ticket.job]
    text, counts = work_on(parts, model, options)
    if file is not None:
        write_whole(Path(file), text)
    return Outcome(counts, _here(), time.monotonic() - begin, None if file else text)


def work_on_frames(ticket: Ticket, lines: Sequence[tuple[dict[str, Any], Any]]) -> Outcome:
    """A shard whose frames came with it."""
    begin = time.monotonic()
    sees(ticket)
    model, options = _JOBS[ticket.job]
    text, counts = text_of(records_of(lines, recognizer_of(model, options)))
    return Outcome(counts, _here(), time.monotonic() - begin, text)


def _here() -> str:
    address: str = distributed.get_worker().address
    return address


class Run:
    """One run of a job on the workers of a scheduler."""

    def __init__(
        self, client: distributed.Client, job: Job, report: Callable[[Outcome], None]
    ) -> None:
        self._client = client
        self._job = job
        self._report = report
        self._id = uuid.uuid4().hex
        self._probe = job.folder / f".batch-{self._id}.part"
        self._ticket = Ticket(self._id, _core.version, str(self._probe), self._inputs())
        self._is_shared = True
        self._futures: dict[distributed.Future, Shard] = {}
        self._suspects: list[Shard] = []

    def _inputs(self) -> tuple[tuple[str, int], ...]:
        paths = []
        for source in self._job.sources:
            paths.append(source.path)
            paths += [name["file"] for name in source.part(0, min(len(source), 1)).names()]
        return tuple((p, os.stat(p).st_size) for p in paths if os.path.isfile(p))

    def work(self) -> None:
        """Does the shards that are missing. Raises BatchError where that is not possible."""
        prepare = Prepare(self._id, self._job.model, self._job.options)
        try:
            self._probe.write_text(self._id)
            self._client.register_worker_plugin(prepare)
            self._is_shared = all(self._client.run(sees, self._ticket).values())
            self._work(self._job.missing())
            for shard in self._suspects:
                self._write(shard, self._isolated(shard.first, shard.end))
        except VersionsDiffer as error:
            raise BatchError(str(error)) from error
        except _CANCELLED as error:
            lost = self._is_lost()
            raise BatchError(_GONE if lost else "cancelled at the scheduler") from error
        except (CommClosedError, OSError) as error:
            if self._is_lost():
                raise BatchError(_GONE) from error
            raise
        finally:
            self._probe.unlink(missing_ok=True)
            if not self._is_lost():
                self._client.cancel(list(self._futures))
                self._client.unregister_worker_plugin(prepare.name)

    def _work(self, shards: Iterator[Shard]) -> None:
        more = True
        while more or self._futures:
            room = IN_FLIGHT * max(sum(self._client.nthreads().values()), 1) - len(self._futures)
            for _ in range(room if more else 0):
                shard = next(shards, None)
                more = shard is not None
                if shard is None:
                    break
                self._submit(shard)
            self._collect()

    def _submit(self, shard: Shard) -> None:
        self._futures[self._future(shard.first, shard.end, shard.file)] = shard

    def _future(self, first: int, end: int, file: str | None) -> Any:
        parts = parts_of(self._job.sources, first, end)
        if self._is_shared:
            return self._client.submit(work_at_worker, self._ticket, parts, file, pure=False)
        lines = [line for part in parts for line in part.lines()]
        return self._client.submit(work_on_frames, self._ticket, lines, pure=False)

    def _collect(self) -> None:
        """Waits for a shard, a moment at most, and takes what has ended."""
        self._wait(list(self._futures))
        for future in [each for each in self._futures if each.done()]:
            shard = self._futures.pop(future)
            try:
                outcome = future.result()
            except NotShared:
                self._is_shared = False
                self._submit(shard)
            except distributed.KilledWorker:
                self._suspects.append(shard)
            except (VersionsDiffer, OSError, *_CANCELLED):
                raise
            except Exception as error:
                raise BatchError(f"{shard.file}: {type(error).__name__}: {error}") from error
            else:
                self._write(shard, outcome)
            future.release()

    def _wait(self, futures: list[distributed.Future]) -> None:
        if not futures:
            return
        try:
            distributed.wait(futures, timeout=_LOOK, return_when="FIRST_COMPLETED")
        except (TimeoutError, distributed.TimeoutError):
            if self._is_lost():
                raise BatchError(_GONE) from None

    def _is_lost(self) -> bool:
        return self._client.status != "running"

    def _write(self, shard: Shard, outcome: Outcome) -> None:
        if outcome.text is not None:
            write_whole(shard.path, outcome.text)
        self._report(outcome)

    def _isolated(self, first: int, end: int) -> Outcome:
        """Lines that were at a worker when it died, with nothing else at work: halved until the line
        that ends the process stands alone."""
        future = self._future(first, end, None)
        while not future.done():
            self._wait([future])
        try:
            outcome: Outcome = future.result()
            return outcome
        except distributed.KilledWorker:
            pass
        if end - first > 1:
            middle = (first + end) // 2
            a, b = self._isolated(first, middle), self._isolated(middle, end)
            text = (a.text or b"") + (b.text or b"")
            return Outcome(a.counts + b.counts, b.worker, a.seconds + b.seconds, text)
        (name,) = [
            name for part in parts_of(self._job.sources, first, end) for name in part.names()
        ]
        text, counts = text_of([{**name, "error": "the process that read it was killed"}])
        return Outcome(counts, "", 0.0, text)


@contextlib.contextmanager
def client_of(scheduler: str | None, workers: int) -> Iterator[distributed.Client]:
    """A client of a scheduler that runs, or of a cluster of its own on the loopback interface."""
    try:
        with contextlib.ExitStack() as stack:
            if scheduler is None:
                cluster = stack.enter_context(
                    distributed.LocalCluster(
                        n_workers=workers, threads_per_worker=1, host="127.0.0.1",
                        dashboard_address="127.0.0.1:0",
                        silence_logs=logging.CRITICAL,
                    )  # fmt: skip
                )
                client = distributed.Client(cluster)
            else:
                client = distributed.Client(scheduler, timeout=_LOST_AFTER)
            stack.callback(client.close, timeout=2)
            yield client
    except (TimeoutError, distributed.TimeoutError) as error:
        raise BatchError(f"no answer from {scheduler or 'the local cluster'}") from error
