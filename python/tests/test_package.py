"""The package as users install it: from its wheel, into an environment of its own."""

from __future__ import annotations

import importlib.util
import os
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest

PACKAGE = Path(__file__).resolve().parents[1]

for needed in ("skbuild", "venv", "pip"):
    if importlib.util.find_spec(needed) is None:
        pytest.skip(f"{needed} is not installed", allow_module_level=True)


def run(*command, **options) -> subprocess.CompletedProcess:
    clean = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
    return subprocess.run(
        [str(each) for each in command],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=clean, **options,
    )


@pytest.fixture(scope="module")
def environment(tmp_path_factory) -> Path:
    """A fresh environment, with Debian's packages in sight."""
    folder = tmp_path_factory.mktemp("environment")
    done = run(sys.executable, "-m", "venv", "--system-site-packages", folder)
    assert done.returncode == 0, done.stdout
    return folder / "bin"


def test_the_wheel_works_outside_the_tree(environment, digits, tmp_path):
    options = ["--no-build-isolation", "--no-deps", "--no-index"]
    done = run(environment / "pip", "wheel", *options, "-w", tmp_path, PACKAGE)
    assert done.returncode == 0, done.stdout
    (wheel,) = tmp_path.glob("*.whl")
    names = [Path(name).name for name in zipfile.ZipFile(wheel).namelist()]
    for wanted in ("py.typed", "_core.pyi", "recognizer.py", "dense.py", "export.py", "tracer.py"):
        assert wanted in names

    done = run(environment / "pip", "install", "--no-deps", "--no-index", wheel)
    assert done.returncode == 0, done.stdout
    code = (
        "import sys, numpy, handwriting_forward as hf\n"
        "assert 'site-packages' in hf.__file__, hf.__file__\n"
        "assert 'torch' not in sys.modules\n"
        "print(hf.Recognizer(sys.argv[1], labels=sys.argv[2]).recognize(numpy.load(sys.argv[3])).text)"
    )
    files = [digits / name for name in ("model.bin", "labels.txt", "lines/line-01.npy")]
    done = run(environment / "python", "-c", code, *files, cwd=tmp_path)
    assert (done.returncode, done.stdout) == (0, "5520016\n")


def test_editable_installs_are_refused(environment):
    done = run(environment / "pip", "install", "--no-build-isolation", "--no-deps", "-e", PACKAGE)
    assert done.returncode != 0
    assert "editable installs are not supported" in done.stdout
