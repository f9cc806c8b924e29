#!/usr/bin/python3
"""Writes on the page of examples/digits/page in a real browser, headless Chromium.

usage: page-test.py TOOL REPOSITORY [--picture FILE]    FILE gets a picture of the page, a .png
Ends with status 77, skipped, where Chromium, its driver or Selenium are not installed.
"""

from __future__ import annotations

import base64
import contextlib
import io
import math
import os
import random
import shutil
import sys
import unittest
from collections.abc import Iterator, Sequence
from pathlib import Path

import numpy as np

TOOL, REPOSITORY = Path(sys.argv[1]), Path(sys.argv[2])
PICTURE = sys.argv[4] if sys.argv[3:4] == ["--picture"] else None
DIGITS = REPOSITORY / "examples/digits"
sys.path.append(str(DIGITS))

import drawn  # noqa: E402
import strokes  # noqa: E402
from running import RunningService  # noqa: E402

try:
    from selenium import webdriver
    from selenium.webdriver.common.actions.action_builder import ActionBuilder
    from selenium.webdriver.common.actions.pointer_input import PointerInput
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    print("page-test: skipped, python3-selenium is not installed")
    sys.exit(77)

BROWSER, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
if BROWSER is None or DRIVER is None:
    print("page-test: skipped, chromium or chromium-driver is not installed")
    sys.exit(77)

# Before the page's own scripts: what is sent is kept, and can be held back or answered with a failure.
RECORDER = """
window.sent = [];
window.held = null;
const send = window.fetch;
window.fetch = async (path, options) => {
  if (options?.method !== 'POST') return send(path, options);
  window.sent.push(btoa(String.fromCharCode(...options.body)));
  const response = send(path, options);
  if (window.held) await new Promise((resolve) => window.held.push(resolve));
  return response;
};
"""


class Page:
    """The page in a browser of its own."""

    def __init__(self, service: RunningService, ratio: float) -> None:
        self.service = service
        self.expected: set[str] = set()  # complaints of the browser that a test provokes
        options = webdriver.ChromeOptions()
        options.binary_location = BROWSER
        for argument in (
            "headless=new", "window-size=900,900", f"force-device-scale-factor={ratio}",
            "disable-background-networking", "disable-component-update", "disable-dev-shm-usage",
            "disable-gpu", "host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
            *(["no-sandbox"] if os.geteuid() == 0 else []),
        ):
            options.add_argument(f"--{argument}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.chrome.service.Service(executable_path=DRIVER)
        self.driver = webdriver.Chrome(service=driver, options=options)
        self.driver.set_script_timeout(60)
        self.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": RECORDER})
        self.driver.get(f"http://127.0.0.1:{service.port}/")
        self.until("return document.querySelectorAll('#samples button').length > 0")

    def run(self, script: str, *arguments: object) -> object:
        return self.driver.execute_script(script, *arguments)

    def until(self, script: str, seconds: float = 10) -> None:
        WebDriverWait(self.driver, seconds, 0.02).until(lambda _: self.run(script), script)

    def text(self, id_: str) -> str:
        return self.run("return document.getElementById(arguments[0]).textContent", id_)

    def click(self, id_: str) -> None:
        self.run("document.getElementById(arguments[0]).click()", id_)

    def sent(self) -> list[np.ndarray]:
        return [np.load(io.BytesIO(base64.b64decode(body))) for body in self.run("return sent")]

    def write(self, drawing: Sequence[strokes.Stroke], kind: str = "mouse") -> None:
        """Strokes through the browser's own input, points in CSS pixels of the surface."""
        left, top = self.run(
            "const box = document.getElementById('pad').getBoundingClientRect();"
            "return [box.left, box.top]"
        )
        builder = ActionBuilder(self.driver, mouse=PointerInput(kind, f"{kind} of the test"), duration=0)
        pointer = builder.pointer_action
        for stroke in drawing:
            pointer.move_to_location(int(left + stroke[0][0]), int(top + stroke[0][1]))
            pointer.pointer_down()
            for x, y in stroke[1:]:
                pointer.move_to_location(int(left + x), int(top + y))
            pointer.pointer_up()
        builder.perform()

    def event(self, name: str, **fields: object) -> None:
        """A pointer event as a browser sends it, for what no driver can do."""
        fields = {"bubbles": True, "cancelable": True, "pointerId": 77, "clientX": 0, "clientY": 0,
                  "isPrimary": True, "button": 0, **fields}
        self.run(
            "const pad = document.getElementById('pad'); const box = pad.getBoundingClientRect();"
            "const f = arguments[1]; f.clientX += box.left; f.clientY += box.top;"
            "pad.dispatchEvent(new PointerEvent(arguments[0], f))", name, fields)

    def answer(self) -> str:
        self.until("return document.querySelectorAll('#sequences li').length > 0")
        return self.run("return document.querySelector('#sequences b').textContent")

    def ink(self) -> int:
        """Pixels of the surface that are not paper."""
        return self.run(
            "await new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)));"
            "const pad = document.getElementById('pad');"
            "const data = pad.getContext('2d').getImageData(0, 0, pad.width, pad.height).data;"
            "let count = 0; for (let i = 3; i < data.length; i += 4) count += data[i] > 127;"
            "return count")


def whole(drawing: Sequence[strokes.Stroke]) -> list[list[tuple[int, int]]]:
    """The points at whole pixels, where the driver puts pointers, 4 pixels apart: each takes it a
    frame of the screen."""
    kept = []
    for stroke in drawing:
        *inner, last = [(int(x), int(y)) for x, y in stroke]
        points: list[tuple[int, int]] = []
        for point in inner:
            if (not points or math.dist(points[-1], point) >= 4) and point != last:
                points.append(point)
        kept.append([*points, last])
    return kept


def fixtures() -> list[list[list[tuple[float, float]]]]:
    """Drawings on which the page and Python are compared: digits of all kinds, at thirds of pixels
    as three device pixels a CSS pixel give them, and what is no digit."""
    rng = random.Random(3)
    made: list[list[list[tuple[float, float]]]] = [
        [], [[]], [[(5, 5)]], [[(5, 5)], [(5, 5), (5, 5)]], [[(10, 10), (60, 10)]],
        [[(10, 10), (10, 90)]], [[(0, 0), (300, 200), (0, 200), (300, 0)]],
        [[(10, 10), (10, 50)], [(18, 10), (18, 50)], [(27, 10), (27, 50)], [(10, 60), (11, 61)]],
        [[(10, 0), (60, 50)], [(60, 0), (10, 50)], [(90, 20), (90, 20)]],
    ]
    made += [drawn.digit(name, drawn.Hand(90), shape)
             for name, shapes in drawn.SHAPES.items() for shape in range(len(shapes))]
    for _ in range(20):
        text = "".join(rng.choices("0123456789", k=rng.randint(1, 6)))
        made.append([[(round(x * 3) / 3, round(y * 3) / 3) for x, y in stroke]
                     for stroke in drawn.line_of_a_hand(text, rng)])
    for _ in range(20):
        made.append([[(rng.uniform(-9, 400), rng.uniform(-9, 200)) for _ in range(rng.randint(1, 9))]
                     for _ in range(rng.randint(1, 6))])
    return made


@contextlib.contextmanager
def page(ratio: float = 1) -> Iterator[Page]:
    with RunningService(TOOL, DIGITS / "model.bin", "--labels", str(DIGITS / "labels.txt"),
                        "--page", str(DIGITS / "page")) as running:
        shown = Page(running, ratio)
        try:
            yield shown
            faults = [entry for entry in shown.driver.get_log("browser")
                      if entry["level"] == "SEVERE" and entry["message"] not in shown.expected]
            assert not faults, faults
        finally:
            shown.driver.quit()


class Writing(unittest.TestCase):
    def test_gives_the_frames_of_the_example(self) -> None:
        drawings = fixtures()
        for ratio in (1, 3):
            with self.subTest(ratio=ratio), page(ratio) as shown:
                made = shown.driver.execute_async_script(
                    "const [drawings, done] = arguments;"
                    "import('/frames.js').then(({ prepare, npyOf }) => done(drawings.map((drawing) =>"
                    " btoa(String.fromCharCode(...npyOf(prepare(drawing)))))))", drawings)
                for drawing, body in zip(drawings, made, strict=True):
                    frames = np.load(io.BytesIO(base64.b64decode(body)))
                    wanted = strokes.prepare(drawing)
                    self.assertEqual((frames.shape, frames.dtype), (wanted.shape, wanted.dtype), drawing)
                    self.assertEqual(frames.tobytes(), wanted.tobytes(), drawing)

    def test_of_digits_is_read(self) -> None:
        right = {1: 0, 3: 0}
        for ratio, kind, texts in ((1, "mouse", "0123456789"),
                                   (3, "pen", ("407", "1984", "2718", "365", "90210"))):
            with page(ratio) as shown:
                self.assertEqual(shown.run("return devicePixelRatio"), ratio)
                for text in texts:
                    shown.click("clear")
                    drawing = whole(drawn.line(text))
                    shown.write(drawing, kind)
                    right[ratio] += shown.answer() == text
                    sent = shown.sent()[-1]
                    self.assertEqual(sent.tobytes(), strokes.prepare(drawing).tobytes(), text)
                    brackets = shown.run(
                        "return [...document.querySelectorAll('#brackets text')].map(t => t.textContent)")
                    self.assertEqual("".join(brackets), shown.answer())
                if PICTURE is not None and ratio == 3:
                    shown.driver.save_screenshot(PICTURE)
        self.assertGreaterEqual(right[1], 9, "of ten digits")
        self.assertGreaterEqual(right[3], 4, "of five lines")


class Surface(unittest.TestCase):
    def test_takes_strokes_one_pointer_at_a_time(self) -> None:
        with page() as shown:
            shown.event("pointerdown", pointerType="touch", clientX=20, clientY=20)
            shown.event("pointerdown", pointerType="touch", pointerId=78, clientX=200, clientY=20)
            shown.event("pointermove", pointerType="touch", pointerId=78, clientX=220, clientY=90)
            shown.event("pointermove", pointerType="touch", clientX=20, clientY=90)
            # A pen takes the hand's place that lay there first, and no hand draws after it.
            shown.event("pointerdown", pointerType="pen", pointerId=79, clientX=40, clientY=20)
            shown.event("pointermove", pointerType="pen", pointerId=79, clientX=40, clientY=100)
            # Taken away by the system: the stroke stays as far as it came.
            shown.event("pointercancel", pointerType="pen", pointerId=79)
            shown.event("pointerdown", pointerType="touch", clientX=90, clientY=20)
            shown.event("pointerup", pointerType="touch", clientX=90, clientY=20)
            shown.answer()
            self.assertEqual(shown.sent()[-1].tobytes(),
                             strokes.prepare([[(40, 20), (40, 100)]]).tobytes())
            # With the switch fingers draw again; a tap is a dot, whatever its pressure.
            self.assertFalse(shown.run("return document.getElementById('fingers-choice').hidden"))
            shown.click("fingers")
            shown.event("pointerdown", pointerType="touch", clientX=90, clientY=20, pressure=0.9)
            shown.event("lostpointercapture", pointerType="touch", clientX=90, clientY=20)
            shown.until("return sent.length === 2")
            self.assertEqual(shown.sent()[-1].tobytes(),
                             strokes.prepare([[(40, 20), (40, 100)], [(90, 20)]]).tobytes())
            # Another button than the first draws nothing.
            shown.event("pointerdown", pointerType="mouse", button=2, clientX=150, clientY=20)
            shown.event("pointerup", pointerType="mouse", button=2, clientX=150, clientY=20)
            self.assertEqual(shown.ink(), shown.ink())

    def test_keeps_the_drawing_whatever_its_size(self) -> None:
        with page() as shown:
            shown.run("document.querySelector('#samples button').click()")
            self.assertEqual(shown.answer(), "0123456789")
            sent, ink = shown.sent()[-1].tobytes(), shown.ink()
            for width, height, ratio in ((360, 740, 3), (740, 360, 2), (900, 900, 1)):
                shown.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                    "width": width, "height": height, "deviceScaleFactor": ratio, "mobile": True})
                shown.until(f"return devicePixelRatio === {ratio}")
                self.assertGreater(shown.ink(), ink / 4)
                self.assertLessEqual(shown.run("return document.documentElement.scrollWidth"), width)
                last = shown.run("const box = [...document.querySelectorAll('#brackets path')].at(-1)"
                                 ".getBoundingClientRect(); return box.right")
                self.assertLess(last, width)
            self.assertEqual(shown.ink(), ink)
            shown.click("read")
            shown.until("return sent.length === 2")
            self.assertEqual(shown.sent()[-1].tobytes(), sent)

    def test_follows_light_and_dark(self) -> None:
        with page() as shown:
            shown.write([[(30, 20), (30, 100)]])
            colors = []
            for scheme in ("light", "dark"):
                shown.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                    "features": [{"name": "prefers-color-scheme", "value": scheme}]})
                self.assertGreater(shown.ink(), 0)
                colors.append(shown.run(
                    "const pad = document.getElementById('pad'); return [pad.getContext('2d')"
                    ".getImageData(30, 60, 1, 1).data[0], getComputedStyle(pad).backgroundColor]"))
            self.assertLess(colors[0][0], 100)
            self.assertGreater(colors[1][0], 150)
            self.assertNotEqual(colors[0][1], colors[1][1])


class Answers(unittest.TestCase):
    def test_come_by_keyboard_alone(self) -> None:
        with page() as shown:
            focused = "return document.activeElement.textContent"
            for _ in range(30):
                if shown.run(focused) == "1984":
                    break
                shown.driver.switch_to.active_element.send_keys(Keys.TAB)
            self.assertEqual(shown.run(focused), "1984")
            shown.driver.switch_to.active_element.send_keys(Keys.ENTER)
            self.assertEqual(shown.answer(), "1984")
            self.assertRegex(shown.text("status"), r"^Read 1984, confidence [\d.]+ %, in [\d.]+ ms\.$")
            self.assertEqual(shown.run("return document.getElementById('answer').ariaLive"), "polite")
            self.assertTrue(shown.run(
                "return document.getElementById('answer').contains(document.getElementById('status'))"))
            small = shown.run(
                "return [...document.querySelectorAll('button, label')].filter((each) => !each.hidden)"
                ".map((each) => each.getBoundingClientRect())"
                ".filter((box) => box.width < 44 || box.height < 44).length")
            self.assertEqual(small, 0)
            shown.driver.switch_to.active_element.send_keys(Keys.CONTROL, "z")
            self.assertEqual((shown.ink(), shown.text("status")), (0, "Nothing drawn yet."))

    def test_are_to_the_drawing_as_it_stands(self) -> None:
        with page() as shown:
            # Nothing is sent of nothing.
            for button in ("read", "clear", "undo"):
                shown.click(button)
            one, seven = whole(drawn.line("1")), whole(drawn.line("7"))
            shown.run("window.held = []")
            shown.write(one)
            shown.until("return held.length === 1")
            self.assertEqual(len(shown.sent()), 1)
            shown.click("clear")
            shown.write(seven)
            shown.until("return held.length === 2")
            shown.run("held[1](); window.late = held[0]; window.held = null")
            self.assertEqual(shown.answer(), "7")
            shown.run("late(); await new Promise((done) => setTimeout(done, 100))")
            self.assertEqual(shown.answer(), "7")
            # Undo takes back strokes, clearing and all, to nothing.
            shown.click("undo")
            shown.click("undo")
            self.assertEqual(shown.answer(), "1")
            shown.click("undo")
            self.assertEqual(shown.ink(), 0)

    def test_that_fail_say_why(self) -> None:
        with page() as shown:
            shown.service.end()
            shown.write(whole(drawn.line("5")))
            shown.until("return document.getElementById('status').classList.contains('failure')")
            self.assertEqual(shown.text("status"), "The service cannot be reached.")
            self.assertEqual(shown.run("return document.querySelectorAll('#sequences li').length"), 0)
            shown.expected = {entry["message"] for entry in shown.driver.get_log("browser")}


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
