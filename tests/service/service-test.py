#!/usr/bin/python3
"""Runs `handwriting serve` and talks to it as good and as bad clients do.

usage: service-test.py TOOL REPOSITORY FRAMES [REQUESTS]
  FRAMES     work for some tenths of a second
  REQUESTS   of good clients beside bad ones, 2000 unless given; from 20000 on, memory has to stay
"""

from __future__ import annotations

import collections
import contextlib
import io
import json
import os
import re
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from collections.abc import Iterator
from pathlib import Path

import numpy as np

from running import RunningService

TOOL, REPOSITORY, FRAMES = Path(sys.argv[1]), Path(sys.argv[2]), int(sys.argv[3])
REQUESTS = int(sys.argv[4]) if len(sys.argv) > 4 else 2000
DIGITS = REPOSITORY / "examples/digits"
MODEL = DIGITS / "model.bin"
NPY = "Content-Type: application/octet-stream\r\n"
JSON = "Content-Type: application/json\r\n"


def npy(features: np.ndarray) -> bytes:
    file = io.BytesIO()
    np.save(file, np.ascontiguousarray(features, np.float32))
    return file.getvalue()


LINE = (DIGITS / "lines/line-05.npy").read_bytes()
LONG = npy(np.zeros((FRAMES, 8)))


class Client:
    """A connection that sends bytes as they are and reads answers one by one."""

    def __init__(self, port: int) -> None:
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=30)
        self.file = self.socket.makefile("rb")

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.file.close()
        self.socket.close()

    def send(self, data: bytes) -> Client:
        self.socket.sendall(data)
        return self

    def answer(self, *, has_body: bool = True) -> tuple[int, dict[str, str], bytes]:
        status = self.file.readline().decode()
        fields = {}
        while (line := self.file.readline().decode().strip()) != "":
            name, _, value = line.partition(": ")
            fields[name] = value
        body = self.file.read(int(fields.get("Content-Length", "0"))) if has_body else b""
        return int(status.split()[1]), fields, body


def request(method: str, path: str, fields: str = "", body: bytes | None = None,
            version: str = "1.1") -> bytes:
    if "Host:" not in fields:
        fields += "Host: localhost\r\n"
    if body is not None:
        fields += f"Content-Length: {len(body)}\r\n"
    return f"{method} {path} HTTP/{version}\r\n{fields}\r\n".encode() + (body or b"")


class Service(RunningService):
    def __init__(self, *options: str) -> None:
        super().__init__(TOOL, MODEL, *options)

    def ask(self, data: bytes, **options: bool) -> tuple[int, dict[str, str], bytes]:
        with Client(self.port) as client:
            return client.send(data).answer(**options)

    def metric(self, name: str) -> float:
        text = self.ask(request("GET", "/metrics"))[2].decode()
        return float(re.search("^" + re.escape(name) + r" (\S+)$", text, re.MULTILINE)[1])


def waited_for(condition, seconds: float = 10) -> bool:
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.02)
    return False


class Answers(unittest.TestCase):
    def test_are_those_of_the_tool(self) -> None:
        labels = str(DIGITS / "labels.txt")
        files = sorted((DIGITS / "lines").glob("*.npy"))
        command = [TOOL, "recognize", MODEL, *files, "--json", "--detail", "--labels", labels]
        lines = subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout.splitlines()
        with Service("--labels", labels, "--threads", "2") as running, Client(running.port) as client:
            for file, line in zip(files, lines, strict=True):
                wanted = json.loads(line)
                del wanted["file"]
                client.send(request("POST", "/recognize?detail=1", NPY, file.read_bytes()))
                self.assertEqual(json.loads(client.answer()[2]), wanted)
                features = json.dumps({"features": np.load(file).tolist()}).encode()
                client.send(request("POST", "/recognize", JSON, features))
                plain = json.loads(client.answer()[2])
                self.assertEqual(plain, {key: wanted[key] for key in ("sequences", "text")})

    def test_of_the_other_routes(self) -> None:
        inspected = subprocess.run([TOOL, "inspect", "--json", MODEL], stdout=subprocess.PIPE)
        with Service() as running:
            self.assertEqual(running.ask(request("GET", "/health"))[0], 200)
            self.assertEqual(running.ask(request("GET", "/ready"))[0], 200)
            model = running.ask(request("GET", "/model"))[2]
            self.assertEqual(json.loads(model), json.loads(inspected.stdout))
            status, fields, _ = running.ask(request("HEAD", "/model"), has_body=False)
            self.assertEqual((status, int(fields["Content-Length"])), (200, len(model)))
            self.assertEqual(running.ask(request("POST", "/recognize", NPY, LINE))[0], 200)
            self.assertEqual(running.metric('handwriting_requests_total{outcome="answered"}'), 1)
            self.assertEqual(running.metric("handwriting_frames_total"), 28)
            self.assertEqual(running.metric("handwriting_queue_duration_seconds_count"), 1)

    def test_come_in_the_order_of_the_requests(self) -> None:
        with Service("--threads", "2") as running, Client(running.port) as client:
            sequence = [LONG, LINE, None, LINE, None]
            client.send(b"".join(
                request("GET", "/health") if body is None else request("POST", "/recognize", NPY, body)
                for body in sequence))
            for body in sequence:
                status, _, answer = client.answer()
                self.assertEqual(status, 200)
                self.assertEqual(answer.startswith(b"ok"), body is None)
            # Byte by byte; in chunks; with the header first; of the older protocol, which closes.
            for byte in request("POST", "/recognize", NPY, LINE):
                client.send(bytes([byte]))
            self.assertEqual(client.answer()[0], 200)
            client.send(request("POST", "/recognize", NPY + "Transfer-Encoding: chunked\r\n"))
            client.send(b"100\r\n" + LINE[:256] + b"\r\n")
            client.send(f"{len(LINE) - 256:x}\r\n".encode() + LINE[256:] + b"\r\n0\r\n\r\n")
            self.assertEqual(client.answer()[0], 200)
            expecting = request("POST", "/recognize", NPY + "Expect: 100-continue\r\n", LINE)
            client.send(expecting[:-len(LINE)])
            self.assertEqual(client.answer()[0], 100)
            self.assertEqual(client.send(LINE).answer()[0], 200)
            client.send(request("POST", "/recognize", NPY, LINE, version="1.0"))
            self.assertEqual(client.answer()[1]["Connection"], "close")
            self.assertEqual(client.file.read(), b"")


class Refusals(unittest.TestCase):
    def assert_error(self, running: Service, data: bytes, status: int, message: str) -> None:
        found, fields, body = running.ask(data)
        error = json.loads(body)["error"]
        self.assertEqual((found, error["code"]), (status, status), message)
        self.assertRegex(error["message"], message)
        if status == 503:
            self.assertIn("Retry-After", fields)

    def test_say_what_is_wrong(self) -> None:
        def post(fields: str, body: bytes) -> bytes:
            return request("POST", "/recognize", fields, body)

        cases = [
            (b"rubbish\r\n\r\n", 400, "no HTTP request"),
            (post(NPY, LINE[:-4]), 400, "bytes of values found"),
            (post(NPY, npy(np.zeros((3, 7)))), 400, "7 values a frame found, 8 wanted"),
            (post(NPY, npy(np.zeros((1, 3, 8)))), 400, "3 dimensions found"),
            (post(NPY, npy(np.zeros((0, 8)))), 400, "0 frames found"),
            (post(NPY, npy(np.zeros((41, 8)))), 413, "41 frames found, at most 40"),
            (post(NPY, b""), 400, "empty"),
            (post(JSON, b'{"features": [[0, 1], [2]]}'), 400, "row 1: 1 values"),
            (post(JSON, b'{"features": [[0, 1e300]]}'), 400, "row 0: value 1 is no float"),
            (post(JSON, b'{"features": [[[0]]]}'), 400, "an array found"),
            (post(JSON, b'{"rows": []}'), 400, 'unknown key "rows"'),
            (post(JSON, b"[" * 100_000), 400, "an array found"),
            (post(JSON, b"{}"), 400, "is missing"),
            (post("Content-Type: text/plain\r\n", LINE), 415, "wanted"),
            (request("POST", "/recognize?nbest=3", NPY, LINE), 400, "unknown query"),
            (request("GET", "/recognize"), 405, "POST"),
            (request("DELETE", "/model"), 405, "GET, HEAD"),
            (request("GET", "/elsewhere"), 404, "nothing"),
            (request("GET", "/health", "Host: evil.example\r\n"), 403, "host"),
            (request("GET", "/health", "Origin: http://evil.example\r\n"), 403, "origin"),
            (request("GET", "/health", "Origin: null\r\n"), 403, "origin"),
            (request("GET", "/health", "Host: a\r\nHost: localhost\r\n"), 400, "twice"),
            (b"GET /health HTTP/1.1\r\n\r\n", 400, "Host is missing"),
            (request("GET", "/" + "x" * 20_000), 431, "header"),
            (request("GET", "/", "X: y\r\n" * 65), 431, "fields"),
            # Before any of it has come.
            (request("POST", "/recognize", NPY + "Content-Length: 2000000\r\n"), 413, "body"),
            (request("POST", "/recognize", NPY + "Transfer-Encoding: chunked\r\n")
             + b"f4240\r\n" + bytes(1_000_000) + b"\r\n80000\r\n" + bytes(100_000), 413, "body"),
        ]
        with Service("--max-frames", "40", "--max-body", "1") as running:
            for data, status, message in cases:
                with self.subTest(message):
                    self.assert_error(running, data, status, message)
            good = [request("GET", "/health", f"Host: 127.0.0.1:{running.port}\r\n"
                            f"Origin: http://127.0.0.1:{running.port}\r\n")]
            for data in good:
                self.assertEqual(running.ask(data)[0], 200)
        with Service("--allow-host", "digits.example") as running:
            self.assertEqual(running.ask(request("GET", "/health", "Host: Digits.Example:80\r\n"))[0], 200)

    def test_of_slow_and_silent_clients(self) -> None:
        with Service("--receive-seconds", "1", "--idle-seconds", "1") as running:
            with Client(running.port) as slow, Client(running.port) as silent:
                begin = time.monotonic()
                slow.send(request("POST", "/recognize", NPY, LINE)[:-5])
                for _ in range(4):  # a byte now and then does not help
                    time.sleep(0.2)
                    slow.send(b"x")
                self.assertEqual(slow.answer()[0], 408)
                self.assertLess(time.monotonic() - begin, 5)
                self.assertEqual(silent.file.read(), b"")
            self.assertEqual(running.ask(request("POST", "/recognize", NPY, LINE))[0], 200)

    def test_of_what_is_too_much_at_once(self) -> None:
        with Service("--queue", "1", "--max-connections", "8") as running:
            post = request("POST", "/recognize", NPY, LONG)
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(Client(running.port)) for _ in range(5)]
                for client in clients:
                    client.send(post)
                answers = [client.answer() for client in clients]
            statuses = [status for status, _, _ in answers]
            self.assertEqual(set(statuses), {200, 503})
            self.assertTrue(all("Retry-After" in fields for status, fields, _ in answers if status == 503))
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(Client(running.port)) for _ in range(8)]
                for client in clients:
                    self.assertEqual(client.send(request("GET", "/health")).answer()[0], 200)
                self.assertEqual(running.ask(b"")[0], 503)
            self.assertTrue(waited_for(lambda: running.ask(request("GET", "/ready"))[0] == 200))

    def test_while_an_input_takes_too_long(self) -> None:
        with Service("--work-seconds", "1", "--max-frames", "1000000") as running:
            with Client(running.port) as busy:
                busy.send(request("POST", "/recognize", NPY, npy(np.zeros((5 * FRAMES, 8)))))
                is_ready = lambda: running.ask(request("GET", "/ready"))[0] == 200
                self.assertTrue(waited_for(lambda: not is_ready(), 30))
                self.assertEqual(running.ask(request("POST", "/recognize", NPY, LINE))[0], 503)
                self.assertEqual(running.ask(request("GET", "/health"))[0], 200)
                self.assertEqual(busy.answer()[0], 200)
                self.assertTrue(waited_for(is_ready))

    def test_do_not_keep_the_service_from_others(self) -> None:
        # Who goes on sending after a refusal has no more time than others.
        with Service() as running, Client(running.port) as endless:
            endless.send(request("POST", "/recognize", NPY + "Content-Length: 99999999\r\n"))
            self.assertEqual(endless.answer()[0], 413)
            endless.socket.settimeout(0.5)
            begin = time.monotonic()
            with contextlib.suppress(OSError):
                while time.monotonic() - begin < 20:
                    endless.socket.send(bytes(1 << 20))
            self.assertLess(time.monotonic() - begin, 10)
            self.assertEqual(running.ask(request("POST", "/recognize", NPY, LINE))[0], 200)

    def test_of_clients_that_have_gone(self) -> None:
        with Service() as running, Client(running.port) as first:
            first.send(request("POST", "/recognize", NPY, LONG))
            for _ in range(3):
                with Client(running.port) as client:
                    client.send(request("POST", "/recognize", NPY, LONG))
            self.assertEqual(first.answer()[0], 200)
            gone = 'handwriting_requests_total{outcome="gone"}'
            self.assertTrue(waited_for(lambda: running.metric(gone) == 3))

    def test_of_models_and_addresses_that_cannot_be_used(self) -> None:
        with Service() as running:
            for arguments, message in [
                ([str(DIGITS / "labels.txt"), "--port", "0"], "labels.txt: "),
                (["/absent", "--port", "0"], "/absent: No such file or directory"),
                ([str(MODEL), "--port", str(running.port)], "Address already in use"),
                ([str(MODEL), "--host", "example"], "example: no IP address"),
                ([str(MODEL), "--page", "/absent"], "/absent: No such file or directory"),
            ]:
                done = subprocess.run([TOOL, "serve", *arguments], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn(message, done.stderr)


class Pages(unittest.TestCase):
    def test_are_regular_files_beneath_the_folder(self) -> None:
        with tempfile.TemporaryDirectory() as name:
            folder = Path(name)
            page = folder / "page"
            (page / "more").mkdir(parents=True)
            (page / "index.html").write_text("<p>front")
            (page / "more/a b.js").write_text("1;")
            (page / "inside").symlink_to("more/a b.js")
            (folder / "secret").write_text("secret")
            (page / "outside").symlink_to("../secret")
            (folder / "page-too").mkdir()
            (folder / "page-too/x").write_text("secret")
            os.mkfifo(page / "pipe")
            with Service("--page", str(page)) as running:
                for path, body in [("/", b"<p>front"), ("/index.html?x", b"<p>front"),
                                   ("/more/a%20b.js", b"1;"), ("/inside", b"1;")]:
                    status, fields, found = running.ask(request("GET", path))
                    self.assertEqual((status, found), (200, body))
                    self.assertEqual(fields["X-Content-Type-Options"], "nosniff")
                    self.assertIn("default-src 'none'", fields["Content-Security-Policy"])
                for path in ["/outside", "/pipe", "/more", "/more/", "/../secret", "/%2e%2e/secret",
                             "/..%2fsecret", "/../page-too/x", "//etc/passwd", "/index.html%00", "/%zz"]:
                    self.assertEqual(running.ask(request("GET", path))[0], 404, path)


class Ends(unittest.TestCase):
    def test_within_five_seconds_with_what_runs_answered(self) -> None:
        with Service() as running, Client(running.port) as busy, Client(running.port) as other:
            self.assertEqual(other.send(request("GET", "/ready")).answer()[0], 200)
            busy.send(request("POST", "/recognize", NPY, LONG))
            time.sleep(0.1)
            begin = time.monotonic()
            running.process.send_signal(signal.SIGTERM)
            time.sleep(0.05)
            self.assertEqual(running.ask(request("GET", "/ready"))[0], 503)
            other.send(request("POST", "/recognize", NPY, LINE))
            status, fields, _ = other.answer()
            self.assertEqual((status, fields["Connection"]), (503, "close"))
            self.assertEqual(busy.answer()[0], 200)
            self.assertEqual(running.process.wait(timeout=5), 0)
            self.assertLess(time.monotonic() - begin, 5)


def free_port() -> int:
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Loading(unittest.TestCase):
    def test_is_not_being_ready(self) -> None:
        port = free_port()

        def statuses() -> list[int]:
            with Client(port) as client:
                return [client.send(path).answer()[0]
                        for path in [request("GET", "/health"), request("GET", "/ready"),
                                     request("GET", "/model"),
                                     request("POST", "/recognize", NPY, LINE)]]

        with tempfile.TemporaryDirectory() as name:
            pipe = Path(name, "model")
            os.mkfifo(pipe)
            command = [TOOL, "serve", pipe, "--port", str(port), "--threads", "3"]
            with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
                found = None
                while found is None:
                    self.assertIsNone(process.poll())
                    with contextlib.suppress(ConnectionError):
                        found = statuses()
                self.assertEqual(found, [200, 503, 503, 503])
                pipe.write_bytes(MODEL.read_bytes())
                self.assertIn(b"listening on", process.stdout.readline())
                self.assertEqual(statuses(), [200] * 4)
                process.terminate()
        self.assertEqual(process.returncode, 0)


class Load(unittest.TestCase):
    """Good clients beside a thousand that say nothing and some that behave badly without end."""

    def setUp(self) -> None:
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, 4096), hard))
        self.stopped = threading.Event()
        self.post = request("POST", "/recognize?detail=1", NPY, LINE)

    def be_slow(self, port: int) -> None:
        while not self.stopped.is_set():
            with contextlib.suppress(OSError), Client(port) as client:
                for byte in self.post:
                    client.send(bytes([byte]))
                    if self.stopped.wait(0.01):
                        return

    def leave_at_once(self, port: int) -> None:
        while not self.stopped.wait(0.005):
            with contextlib.suppress(OSError), Client(port) as client:
                client.send(self.post)

    def be_cut_short(self, port: int) -> None:
        while not self.stopped.wait(0.005):
            for end in range(1, len(self.post), 97):
                with contextlib.suppress(OSError), Client(port) as client:
                    client.send(self.post[:end])

    def work(self, port: int, wanted: bytes, asked: Iterator[int]) -> None:
        with Client(port) as client:
            for _ in asked:
                status, _, body = client.send(self.post).answer()
                self.answers[status, body == wanted] += 1

    def test_loses_no_request_and_keeps_no_memory(self) -> None:
        with Service("--threads", "2") as running, contextlib.ExitStack() as idle:
            port = running.port
            wanted = running.ask(self.post)[2]
            for _ in range(1000):
                idle.enter_context(Client(port))
            self.answers = collections.Counter()
            bad = [threading.Thread(target=target, args=(port,))
                   for target in (self.be_slow, self.leave_at_once, self.be_cut_short)]
            resident = []
            for thread in bad:
                thread.start()
            try:
                for count in (REQUESTS // 5, REQUESTS - REQUESTS // 5):
                    asked = iter(range(count))
                    good = [threading.Thread(target=self.work, args=(port, wanted, asked))
                            for _ in range(4)]
                    for thread in good:
                        thread.start()
                    for thread in good:
                        thread.join()
                    status = Path(f"/proc/{running.process.pid}/status").read_text()
                    resident.append(int(re.search(r"VmRSS:\s*(\d+) kB", status)[1]))
            finally:
                self.stopped.set()
                for thread in bad:
                    thread.join()
        self.assertEqual(self.answers, {(200, True): REQUESTS})
        if REQUESTS >= 20_000:
            print(f"resident after a fifth and at the end: {resident} KiB", file=sys.stderr)
            self.assertLess(resident[1] - resident[0], 1024)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
