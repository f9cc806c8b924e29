"""Recognizers and networks: what they find, arrays, threads, and how their lives end."""

from __future__ import annotations

import itertools
import json
import os
import pickle
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import numpy as np
import pytest

pytest.importorskip("handwriting_forward._core")

import handwriting_forward as hf
from handwriting_forward.model import (
    AddShift,
    AffineTransform,
    ConstantPad,
    Lstm,
    ReLU2d,
    Sigmoid,
    StreamConv1d,
    write_model,
)


@pytest.fixture(scope="module")
def lines(digits):
    return [np.load(file) for file in sorted((digits / "lines").glob("*.npy"))]


@pytest.fixture()
def recognizer(digits):
    with hf.Recognizer(digits / "model.bin", labels=digits / "labels.txt") as opened:
        yield opened


def written(folder: Path, *networks) -> Path:
    path = folder / "written.bin"
    write_model(path, networks)
    return path


def in_child(code: str, *arguments) -> subprocess.Popen:
    command = [sys.executable, "-B", "-c", code, *map(str, arguments)]
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    pipe = subprocess.PIPE
    # Elsewhere: the folder that it starts in comes first where modules are looked for.
    return subprocess.Popen(
        command, cwd="/", stdout=pipe, stderr=pipe, text=True, env=environment
    )


# ---- What is found -----------------------------------------------------------------------------


@pytest.mark.parametrize("nbest", [1, 10])
@pytest.mark.parametrize("names", [None, "labels.txt"])
def test_results_are_the_records_of_the_tool(digits, tool, lines, nbest, names):
    files = sorted((digits / "lines").glob("*.npy"))
    options = ["--nbest", str(nbest), "--json", "--detail"]
    options += ["--labels", str(digits / names)] if names else []
    command = [tool, "recognize", digits / "model.bin", *files, *options]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True)
    wanted = [json.loads(line) for line in done.stdout.splitlines()]
    for record in wanted:
        del record["file"]
    labels = digits / names if names else None
    with hf.Recognizer(digits / "model.bin", nbest=nbest, labels=labels) as opened:
        results = [opened.recognize(line) for line in lines]
        brief = opened.recognize(lines[0], detail=False)
    assert [result.to_dict() for result in results] == wanted
    del wanted[0]["frames"], wanted[0]["alternatives"]
    assert brief.to_dict() == wanted[0]
    assert (brief.best, results[0].best) == (None, results[0].alternatives[0])
    assert hash(results[0]) == hash(pickle.loads(pickle.dumps(results[0])))


def test_models_come_from_paths_and_from_bytes(digits, lines, tmp_path):
    content = (digits / "model.bin").read_bytes()
    for model in (str(digits / "model.bin"), content, bytearray(content), memoryview(content)):
        with hf.Recognizer(model, max_frames=1) as opened:
            assert opened.recognize(lines[0]).labels == (6, 6, 3, 1, 1, 2, 7)
    for model, message in (
        (b"", "model: the file holds no network"),
        (content[:-1], "network 2: layer 1: fread failed! (header: 4 bytes wanted, 3 left)"),
        (tmp_path / "none", "No such file or directory"),
        (tmp_path, "Is a directory"),
    ):
        with pytest.raises(hf.ModelError) as caught:
            hf.Recognizer(model)
        assert message in str(caught.value)
    for options in ({"nbest": 0}, {"nbest": 1.5}, {"max_frames": 2**31}, {"labels": []}):
        with pytest.raises(hf.InputError):
            hf.Recognizer(content, **options)
    with hf.Recognizer(content, labels=["", "0"]) as opened:
        with pytest.raises(hf.RunError, match="class 7 found, the labels name 2"):
            opened.recognize(lines[0])


# ---- Arrays ------------------------------------------------------------------------------------


def test_arrays_of_other_kinds_are_converted(recognizer, lines):
    line = lines[0]
    wanted = recognizer.recognize(line)
    locked = line.copy()
    locked.setflags(write=False)
    for same in (
        line.astype(np.float64),
        line.astype(">f4"),
        np.asfortranarray(line),
        np.repeat(line, 2, axis=0)[::2],
        line.tolist(),
        locked,
        np.ma.masked_array(line),
    ):
        assert recognizer.recognize(same) == wanted
    zeros = np.zeros((3, 8), np.float32)
    for same in (zeros.astype(bool), zeros.astype(np.uint8), zeros.astype(np.float16)):
        assert recognizer.recognize(same) == recognizer.recognize(zeros)


@pytest.mark.parametrize(
    "features, message",
    [
        (np.zeros(8), "features: 8 found, frames x dim wanted"),
        (np.float32(0), "features: no dimensions found, frames x dim wanted"),
        (np.zeros((2, 3, 8)), "features: 2 x 3 x 8 found, frames x dim wanted"),
        (np.zeros((5, 7)), "features: 7 values a frame found, 8 wanted"),
        (np.zeros((0, 8)), "features: 0 x 8 found, frames x dim wanted, neither of them 0"),
        (np.zeros((5, 8), complex), "features: values of type complex128 found"),
        (np.full((5, 8), "a"), "features: values of type <U1 found"),
        (np.full((5, 8), 1e39), r"features: 1e\+39 at \(0, 0\) is beyond float32"),
        ([[0.0] * 8, [0.0] * 7], "features: .*inhomogeneous.* frames x dim wanted"),
        (None, "features: values of type object found"),
    ],
)
def test_arrays_that_do_not_fit_are_refused(recognizer, features, message):
    with pytest.raises(hf.InputError, match=message):
        recognizer.recognize(features)


def test_the_arrays_of_the_caller_never_change(tmp_path):
    networks = [[AddShift(2, 2, shift=[1.0, 2.0])], [AffineTransform(2, 2, bias=[0, 0], weights=np.eye(2))]]
    path = written(tmp_path, *networks)
    frames = np.arange(8, dtype=np.float32).reshape(4, 2)
    frames.setflags(write=False)
    with hf.Network(path) as network, hf.Recognizer(path) as opened:
        np.testing.assert_array_equal(network.forward(frames), frames + [1, 2])
        opened.recognize(frames)
        list(opened.recognize_many([frames, frames]))
    np.testing.assert_array_equal(frames.ravel(), np.arange(8))


# ---- Many lines and threads --------------------------------------------------------------------


@pytest.mark.parametrize("threads", [0, 1, 3])
def test_many_lines_come_back_in_their_order(recognizer, lines, threads):
    wanted = [recognizer.recognize(line) for line in lines]
    assert list(recognizer.recognize_many(lines, threads=threads)) == wanted
    # The array of a line may be used again for the next one.
    shared = np.empty((max(map(len, lines)), 8), np.float32)

    def refilled():
        for line in lines:
            shared[: len(line)] = line
            yield shared[: len(line)]

    assert list(recognizer.recognize_many(refilled(), threads=threads)) == wanted


def test_few_lines_are_taken_ahead(recognizer, lines):
    taken = itertools.count()

    def endless():
        while True:
            next(taken)
            yield lines[0]

    results = recognizer.recognize_many(endless(), threads=2)
    for _ in range(10):
        next(results)
    results.close()
    assert next(taken) <= 10 + 2 * 2
    assert recognizer.recognize(lines[0]).text == "5520016"


def test_a_line_that_fails_stands_in_its_place(recognizer, lines):
    bad = np.zeros((5, 7), np.float32)
    mixed = [lines[0], bad, lines[1]]
    found = list(recognizer.recognize_many(mixed, errors="return"))
    assert [type(each) for each in found] == [hf.Result, hf.InputError, hf.Result]
    results = recognizer.recognize_many(mixed)
    assert next(results).text == "5520016"
    with pytest.raises(hf.InputError, match="7 values a frame found"):
        next(results)
    for options in ({"errors": "ignore"}, {"threads": -1}, {"threads": 1.5}):
        with pytest.raises(hf.InputError):
            recognizer.recognize_many([], **options)


def test_one_recognizer_in_two_threads_is_refused(recognizer, lines):
    long = np.tile(lines[0], (4000, 1))
    wanted = recognizer.recognize(lines[0])
    found = []
    thread = threading.Thread(target=lambda: found.append(recognizer.recognize(long, detail=False)))
    thread.start()
    refused = 0
    # This thread runs meanwhile: the interpreter lock is released.
    while thread.is_alive():
        try:
            assert recognizer.recognize(lines[0]) == wanted
        except hf.InUseError as error:
            refused += 1
            assert "this recognizer is in use by another thread" in str(error)
            time.sleep(0.001)
    thread.join()
    # Either of the two may have been the one that was refused.
    assert refused > 0 or not found
    assert recognizer.recognize(lines[0]) == wanted


# ---- Networks ----------------------------------------------------------------------------------


def test_networks_run_as_the_tool_runs_them(digits, tool, lines, tmp_path):
    features = digits / "lines/line-01.npy"
    described = json.loads(
        subprocess.check_output([tool, "inspect", digits / "model.bin", "--json"])
    )
    for index in (0, 1):
        out = tmp_path / f"{index}.npy"
        command = [tool, "forward", digits / "model.bin", features, out, "--network", str(index + 1)]
        subprocess.run(command, check=True)
        frames, features = np.load(features), out
        with hf.Network(digits / "model.bin", index) as network:
            assert network.layers == described["networks"][index]["layers"]
            whole = network.forward(frames)
            np.testing.assert_array_equal(whole, np.load(out))
            network.reset()
            steps = network.trace(frames)
            assert [step.marker for step in steps] == [row["marker"] for row in network.layers]
            np.testing.assert_array_equal(steps[-1].output, whole)
    with pytest.raises(hf.ModelError, match="there is no network 3, the file holds 2"):
        hf.Network(digits / "model.bin", 2)
    for index in (-1, "0"):
        with pytest.raises(hf.InputError):
            hf.Network(digits / "model.bin", index)


def test_a_network_carries_its_state_until_it_is_reset(tmp_path):
    rng = np.random.default_rng(1)
    lstm = Lstm(2, 3, **{
        name: rng.standard_normal(shape)
        for name, shape in (
            ("input_weights", (12, 2)), ("recurrent_weights", (12, 3)),
            ("input_bias", 12), ("recurrent_bias", 12),
        )
    })
    convolution = StreamConv1d(
        3, 1, kernel_size=3, padding_left=1, padding_right=1, has_bias=0,
        kernel=rng.standard_normal((1, 3, 3)),
    )
    frames = rng.standard_normal((20, 2)).astype(np.float32)
    with hf.Network(written(tmp_path, [lstm, convolution])) as network:
        whole = network.forward(frames, last=True)
        assert whole.shape == (20, 1)
        with pytest.raises(hf.RunError, match="the input has ended: reset"):
            network.forward(frames)
        network.reset()
        parts = [network.forward(frames[:7]), network.forward(frames[7:8])]
        copied = pickle.loads(pickle.dumps(network))
        parts.append(network.forward(frames[8:], last=True))
        np.testing.assert_allclose(np.concatenate(parts), whole, rtol=1e-6)
        # A copy begins anew.
        np.testing.assert_array_equal(copied.forward(frames, last=True), whole)


def test_planes_have_three_dimensions(tmp_path):
    frames = np.array([[[1, -2, 3]], [[-4, 5, -6]]], np.float32)
    with hf.Network(written(tmp_path, [ReLU2d(2, 2)])) as network:
        np.testing.assert_array_equal(network.forward(frames), np.maximum(frames, 0))
        assert network.trace(frames)[0].output.shape == (2, 1, 3)
        for wrong in (frames[:1], frames[0]):
            with pytest.raises(hf.InputError, match="2 x frames x dim wanted"):
                network.forward(wrong)


def test_a_call_that_fails_wants_a_reset(tmp_path):
    # The padding asks for more than a call may make.
    path = written(tmp_path, [Sigmoid(1, 1), ConstantPad(1, 1, padding_left=2**30, padding_right=0, value=0.0)])
    with hf.Network(path) as network:
        with pytest.raises(hf.InputError, match="3 x 2 found, frames x 1 wanted"):
            network.forward(np.zeros((3, 2)))
        with pytest.raises(hf.RunError, match="too many frames! layer"):
            network.forward(np.zeros((3, 1)))
        with pytest.raises(hf.RunError, match="a call failed: reset"):
            network.forward(np.zeros((3, 1)))


# ---- The ends of lives -------------------------------------------------------------------------


def test_closing(digits, lines):
    for opened in (hf.Recognizer(digits / "model.bin"), hf.Network(digits / "model.bin")):
        with opened as entered:
            assert entered is opened and not opened.closed
        opened.close()
        assert opened.closed and "closed" in repr(opened)
        use = opened.recognize if isinstance(opened, hf.Recognizer) else opened.forward
        for call in (lambda: use(lines[0]), opened.__enter__, lambda: pickle.dumps(opened)):
            with pytest.raises(hf.ClosedError, match="has been closed"):
                call()


def test_pickles_carry_the_model_and_the_options(digits, lines, tmp_path):
    path = tmp_path / "model.bin"
    path.write_bytes((digits / "model.bin").read_bytes())
    with hf.Recognizer(path, nbest=3, labels=digits / "labels.txt") as opened:
        path.unlink()
        with pickle.loads(pickle.dumps(opened)) as copied:
            assert copied.recognize(lines[0]) == opened.recognize(lines[0])
            assert len(copied.recognize(lines[0]).sequences) <= 3
        assert len(list(opened.recognize_many(lines, threads=2))) == len(lines)


def test_use_after_a_fork_raises(recognizer, lines):
    list(recognizer.recognize_many(lines, threads=2))
    child = os.fork()
    if child == 0:
        status = 1
        try:
            recognizer.recognize(lines[0])
        except hf.ForkedError:
            status = 0
        finally:
            os._exit(status)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0


def test_the_interpreter_ends_silently(digits):
    code = """
import sys, threading, numpy as np, handwriting_forward as hf
opened = hf.Recognizer(sys.argv[1])
network = hf.Network(sys.argv[1])
line = np.zeros((3000, 8), np.float32)
results = opened.recognize_many((line for _ in iter(int, 1)), threads=2)
next(results)
threading.Thread(target=network.forward, args=(line,)).start()
print("end")
"""
    child = in_child(code, digits / "model.bin")
    assert child.communicate(timeout=60) == ("end\n", "")
    assert child.returncode == 0


def test_an_interrupt_ends_many_lines(digits):
    code = """
import sys, numpy as np, handwriting_forward as hf
line = np.zeros((3000, 8), np.float32)
results = hf.Recognizer(sys.argv[1]).recognize_many((line for _ in iter(int, 1)), threads=2)
next(results)
print("running", flush=True)
try:
    for _ in results: pass
except KeyboardInterrupt:
    print("interrupted")
"""
    child = in_child(code, digits / "model.bin")
    assert child.stdout.readline() == "running\n"
    child.send_signal(signal.SIGINT)
    assert child.communicate(timeout=60) == ("interrupted\n", "")
