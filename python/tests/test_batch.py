"""A batch in one process."""

from __future__ import annotations

import json
import resource
import signal
import subprocess
from pathlib import Path

import numpy as np
from batch_support import Start, batch, content, done, made_lines, start, wanted  # noqa: F401
from handwriting_forward.batch import write_store


def test_records_are_those_of_the_tool(
    start: Start, digits: Path, tool: str, tmp_path: Path
) -> None:  # noqa: F811
    labels = digits / "labels.txt"
    np.save(tmp_path / "wrong.npy", np.zeros((3, 5), np.float32))
    (tmp_path / "text.npy").write_text("no array")
    names = [
        *sorted((digits / "lines").glob("*.npy")),
        tmp_path / "wrong.npy",
        tmp_path / "text.npy",
        tmp_path / "absent.npy",
    ]
    (tmp_path / "list.txt").write_text("\n".join(map(str, names)))
    arguments = ("list.txt", "--labels", labels, "--workers", 0, "--shard", 7)
    code, out, err = done(batch(start, digits, *arguments, "--out", "out"))
    assert (code, err) == (0, "")
    assert "out: 4 shards, 23 lines, 3 failed" in out
    files = sorted((tmp_path / "out").glob("part-*.jsonl"))
    records = [json.loads(text) for file in files for text in file.read_text().splitlines()]
    command = [tool, "recognize", digits / "model.bin", *names, "--json", "--labels", labels]
    found = subprocess.run(command, capture_output=True, text=True).stdout.splitlines()
    for record, text in zip(records, found, strict=True):
        right = json.loads(text)
        if "error" in right:
            assert record["file"] == right["file"] and record["error"]
        else:
            assert record.pop("frames") > 0
            assert record == right
    manifest = json.loads((tmp_path / "out/manifest.json").read_text())
    assert [manifest[key] for key in ("lines", "errors", "shards")] == [23, 3, 4]


def test_a_second_run_does_what_is_missing(
    start: Start, digits: Path, tmp_path: Path
) -> None:  # noqa: F811
    write_store(tmp_path / "s.npz", made_lines(40))
    arguments = ("s.npz", "--shard", 6, "--workers", 0)
    before = wanted(start, digits, tmp_path, "s.npz", "--shard", 6)
    assert done(batch(start, digits, *arguments, "--out", "out"))[0] == 0
    kept, gone = (tmp_path / f"out/part-{i:08}.jsonl" for i in (2, 4))
    stamp = kept.stat().st_mtime_ns
    gone.unlink()
    (tmp_path / "out/.part-00000004.jsonl.1.part").write_text("half")
    code, out, _ = done(batch(start, digits, *arguments, "--out", "out"))
    assert code == 0 and " 6 lines" in out
    assert kept.stat().st_mtime_ns == stamp
    assert content(tmp_path / "out") == before
    for changed, message in [
        (("s.npz", "--shard", 7), "shard: 6 there, 7 here"),
        (("s.npz", "--shard", 6, "--nbest", 3), "nbest: 10 there, 3 here"),
        (("s.npz", "s.npz", "--shard", 6), "inputs"),
    ]:
        code, _, err = done(batch(start, digits, *changed, "--out", "out", "--workers", 0))
        assert code == 1 and "made with another" in err and message in err
    fixed = digits / "model-fixed.bin"
    process = start("-m", "handwriting_forward.batch", fixed, *arguments, "--out", "out")
    assert "another model (sha256" in done(process)[2]
    assert content(tmp_path / "out") == before


def test_what_makes_no_batch_is_refused(
    start: Start, digits: Path, tmp_path: Path
) -> None:  # noqa: F811
    (tmp_path / "full").mkdir()
    (tmp_path / "full/part-00000000.jsonl").write_text("")
    for arguments, code, message in [
        (("absent", "--out", "out"), 1, "absent"),
        ((digits / "lines", "--out", "full", "--workers", 0), 1, "another folder"),
        ((digits / "lines", "--out", digits / "labels.txt"), 1, "File exists"),
        ((digits / "lines",), 2, "--out"),
        ((digits / "lines", "--out", "out", "--shard", 0), 2, "a number from 1"),
        ((digits / "lines", "--out", "out", "--labels", "absent"), 1, "absent"),
    ]:
        found, out, err = done(batch(start, digits, *arguments))
        assert (found, out) == (code, "") and message in err and "Traceback" not in err
    assert not (tmp_path / "out").exists()


def test_a_full_disk_loses_nothing(
    start: Start, digits: Path, tmp_path: Path
) -> None:  # noqa: F811
    write_store(tmp_path / "s.npz", made_lines(40))
    before = wanted(start, digits, tmp_path, "s.npz", "--shard", 30)

    def limit() -> None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000))

    arguments = ("s.npz", "--shard", 30, "--out", "out", "--workers", 0)
    code, _, err = done(batch(start, digits, *arguments, preexec_fn=limit))
    assert code == 1 and "File too large" in err
    assert sorted(content(tmp_path / "out")) == ["manifest.json"]
    assert done(batch(start, digits, *arguments))[0] == 0
    assert content(tmp_path / "out") == before
