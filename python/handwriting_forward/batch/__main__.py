"""python3 -m handwriting_forward.batch: recognizes many lines into a folder of JSON lines."""

from __future__ import annotations

import argparse
import logging
import os
import sys
import time
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from .. import _core
from ..errors import HandwritingError
from ..handle import content_of
from ..recognizer import Recognizer, labels_of
from .job import Job, Model, Options, write_whole
from .lines import parts_of, sources_of
from .progress import Progress
from .work import work_on

_EPILOG = """\
INPUT is a folder of .npy files, one line each; a text file that names such files; one .npy file; or a
store of many lines (.npz, see handwriting_forward.batch.write_store). The folder gets shards of JSON
lines in the order of the input, part-NNNNNNNN.jsonl, and manifest.json. The same command again does
what is missing. A line that fails is a record with "error". The exit status is 0 where all shards are
there, 1 where the batch could not go on, 2 for a wrong command line, 130 after an interrupt.
"""


def _options() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python3 -m handwriting_forward.batch",
        description="Recognizes many lines.",
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("model", metavar="MODEL", help="model file of two networks, binary")
    parser.add_argument("inputs", metavar="INPUT", nargs="+")
    parser.add_argument(
        "--out", type=Path, required=True, metavar="FOLDER", help="where results go"
    )
    parser.add_argument("--labels", metavar="FILE", help="names of the classes, one a line")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", metavar="ADDRESS", help="a Dask scheduler, tcp://HOST:PORT")
    where.add_argument(
        "--workers", type=_count(0), metavar="N", default=os.cpu_count() or 1,
        help="processes of a cluster of its own; 0 works in this one (default: one a processor)",
    )  # fmt: skip
    parser.add_argument("--nbest", type=_count(1), default=10, metavar="N", help="default: 10")
    parser.add_argument(
        "--shard",
        type=_count(1),
        default=2000,
        metavar="N",
        help="lines of a shard (default: 2000)",
    )
    return parser


def _count(least: int) -> Any:
    def count(text: str) -> int:
        if not text.isdecimal() or not least <= int(text) < 2**31:
            raise argparse.ArgumentTypeError(f"a number from {least} wanted, {text} found")
        return int(text)

    return count


def _job_of(given: argparse.Namespace) -> Job:
    content, name = content_of(given.model)
    labels = None if given.labels is None else labels_of(given.labels)
    Recognizer(given.model, nbest=given.nbest, labels=labels).close()
    sources = sources_of(given.inputs)
    options = Options(given.nbest, labels)
    return Job(
        Model(name, content), sources, given.out.resolve(), options, given.shard, _core.version
    )


def _work_here(job: Job, progress: Progress) -> None:
    for shard in job.missing():
        begin = time.monotonic()
        parts = parts_of(job.sources, shard.first, shard.end)
        text, counts = work_on(parts, job.model, job.options)
        write_whole(shard.path, text)
        progress.add(counts, "this process", time.monotonic() - begin)


def _work(job: Job, given: argparse.Namespace, progress: Progress) -> None:
    if given.scheduler is None and given.workers == 0:
        _work_here(job, progress)
        return
    try:
        from . import cluster
    except ImportError as error:
        raise HandwritingError(
            f"Dask distributed is missing ({error}): apt install python3-distributed, or --workers 0"
        ) from error
    with cluster.client_of(given.scheduler, given.workers) as client:
        progress.start()
        cluster.Run(
            client, job, lambda each: progress.add(each.counts, each.worker, each.seconds)
        ).work()


def main(arguments: Sequence[str] | None = None) -> int:
    given = _options().parse_args(arguments)
    logging.disable(logging.CRITICAL)  # what Dask has to say of connections that break
    try:
        job = _job_of(given)
        job.open()
        missing = sum(shard.end - shard.first for shard in job.missing())
        progress = Progress(job.line_count, job.line_count - missing)
        try:
            if missing:
                _work(job, given, progress)
        finally:
            progress.close()
        total = job.finish()
    except (HandwritingError, OSError) as error:
        print(f"batch: {' '.join(str(error).split())}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("batch: interrupted; the same command goes on", file=sys.stderr)
        return 130
    print(progress.summary())
    print(f"{given.out}: {job.shard_count} shards, {total.lines} lines, {total.errors} failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
