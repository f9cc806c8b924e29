"""Where the lines of a batch come from."""

from __future__ import annotations

import os
import pickle
from pathlib import Path

import numpy as np
import pytest

from handwriting_forward import InputError
from handwriting_forward.batch.lines import parts_of, sources_of, write_store


def lines(*counts: int) -> list[np.ndarray]:
    rng = np.random.default_rng(1)
    return [rng.random((count, 3), np.float32) for count in counts]


def test_sources_are_read_in_order(tmp_path: Path) -> None:
    given = lines(4, 0, 2, 5, 1)
    write_store(tmp_path / "store.npz", given[:3])
    (tmp_path / "folder/in").mkdir(parents=True)
    np.save(tmp_path / "folder/b.npy", given[3])
    np.save(tmp_path / "folder/in/a.npy", given[4])
    (tmp_path / "list.txt").write_text("folder/in/a.npy\n\nfolder/b.npy\n")
    names = [str(tmp_path / each) for each in ("store.npz", "folder", "list.txt", "folder/b.npy")]
    found = sources_of(names)
    assert [len(each) for each in found] == [3, 2, 2, 1]
    wanted = [*given[:3], given[3], given[4], given[4], given[3], given[3]]
    for first, end in [(0, 8), (2, 5), (3, 3), (7, 100)]:
        parts = pickle.loads(pickle.dumps(parts_of(found, first, end)))
        some = [line for part in parts for line in part.lines()]
        for (_, frames), right in zip(some, wanted[first:end], strict=True):
            assert np.array_equal(frames, right)
    names_of = [name for part in parts_of(found, 1, 5) for name in part.names()]
    assert names_of[0] == {"file": names[0], "line": 1}
    assert names_of[3] == {"file": str(tmp_path / "folder/in/a.npy")}
    os.remove(tmp_path / "folder/b.npy")
    (_, missing), _ = parts_of(found, 3, 5)[0].lines()
    assert isinstance(missing, OSError)


def test_digests_change_with_the_lines(tmp_path: Path) -> None:
    path = tmp_path / "store.npz"
    write_store(path, lines(4, 2))
    before = sources_of([str(path)])[0].digest()
    assert sources_of([str(path)])[0].digest() == before
    write_store(path, lines(3, 3))
    assert sources_of([str(path)])[0].digest() != before


def test_what_is_no_source_is_refused(tmp_path: Path) -> None:
    good = {"values": np.zeros((4, 2), np.float32), "offsets": np.array([0, 1, 4])}
    cases = [
        ({"values": good["values"]}, "offsets"),
        ({**good, "offsets": np.array([0, 3, 1, 4])}, "do not fit"),
        ({**good, "offsets": np.array([0, 5])}, "do not fit"),
        ({**good, "offsets": np.array([0.0, 4.0])}, "do not fit"),
        ({**good, "values": np.zeros(4)}, "do not fit"),
        ({**good, "values": np.asfortranarray(np.ones((4, 2)))}, "C order"),
    ]
    path = tmp_path / "store.npz"
    for arrays, message in cases:
        np.savez(path, **arrays)
        with pytest.raises(InputError, match=message):
            sources_of([str(path)])
    np.savez_compressed(path, **good)
    with pytest.raises(InputError, match="compressed"):
        sources_of([str(path)])
    np.savez(path, **good)
    os.truncate(path, 300)
    with pytest.raises(InputError, match="no store"):
        sources_of([str(path)])
    (tmp_path / "empty").mkdir()
    for name in ("absent.txt", "absent.npz", "empty"):
        with pytest.raises(InputError, match=name):
            sources_of([str(tmp_path / name)])
    with pytest.raises(InputError, match="of one dim"):
        write_store(path, [np.zeros((2, 3)), np.zeros((2, 4))])
