"""What the exporter refuses, checks and reports."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path
from typing import Any

import numpy as np
import pytest

torch = pytest.importorskip("torch")
from torch import nn  # noqa: E402

from handwriting_forward import ExportError, InputError, Network, Recognizer  # noqa: E402
from handwriting_forward import torch as exporter  # noqa: E402
from handwriting_forward.model import AddShift, Rescale, read_model  # noqa: E402
from handwriting_forward.torch import Unmapped, array_of, export, rule  # noqa: E402


class Branch(nn.Module):
    def forward(self, x: Any) -> Any:
        if x.size(1) > 10:
            x = x * 2
        return x


class Loop(nn.Module):
    def forward(self, x: Any) -> Any:
        return torch.stack([x[:, t] for t in range(x.shape[1])], 1)


class Iteration(nn.Module):
    def forward(self, x: Any) -> Any:
        return torch.cat([line.sum(0) for line in x])


class Packed(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.lstm = nn.LSTM(4, 4, batch_first=True)

    def forward(self, x: Any) -> Any:
        lengths = torch.full((2,), 29)
        packed = nn.utils.rnn.pack_padded_sequence(x, lengths, batch_first=True)
        return nn.utils.rnn.pad_packed_sequence(self.lstm(packed)[0], batch_first=True)[0]


class Masked(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.encoder = nn.TransformerEncoderLayer(4, 2, 8, batch_first=True, norm_first=True)

    def forward(self, x: Any) -> Any:
        return self.encoder(x, src_key_padding_mask=x.sum(2) == 0)


class States(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.gru = nn.GRU(4, 4, batch_first=True)

    def forward(self, x: Any) -> Any:
        return self.gru(x, torch.ones(1, x.size(0), 4))[0]


class LastState(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.gru = nn.GRU(4, 4, batch_first=True)

    def forward(self, x: Any) -> Any:
        y, h = self.gru(x)
        return y + h.transpose(0, 1)


class Assigned(nn.Module):
    def forward(self, x: Any) -> Any:
        x[:, 0] = 0
        return x


class Turned(nn.Module):
    def __init__(self, module: nn.Module) -> None:
        super().__init__()
        self.module = module

    def forward(self, x: Any) -> Any:
        return self.module(x.transpose(1, 2)).transpose(1, 2)


class Counted(nn.Module):
    def forward(self, x: Any) -> Any:
        return x * (x.size(1) // 1000)


REFUSED = [
    (Counted(), "return x * (x.size(1) // 1000)", "number of lines or frames"),
    (Branch(), "if x.size(1) > 10:", "decide in __init__"),
    (Loop(), "for t in range(x.shape[1])", "whole tensors"),
    (Iteration(), "for line in x", "whole tensors"),
    (Packed(), "pack_padded_sequence(x, lengths", "without padding"),
    (Masked(), "src_key_padding_mask=", "without padding"),
    (States(), "torch.ones(1, x.size(0), 4)", "torch.zeros"),
    (LastState(), "return y + h", "the last frame of the output"),
    (Assigned(), "x[:, 0] = 0", "item assignment"),
    (nn.Embedding(4, 4), "Embedding", "one-hot"),
    (nn.Sequential(nn.Linear(4, 4), nn.GELU()), "nn.GELU", "instead: nn.ReLU"),
    (nn.Sequential(nn.Linear(4, 4), nn.Softmax(dim=1)), "over frames", "dim=-1"),
    (
        nn.TransformerEncoderLayer(4, 2, 8, batch_first=True),
        "normalisation after",
        "norm_first=True",
    ),
    (Turned(nn.PReLU(4)), "every column", "one parameter"),
    (nn.LSTM(4, 4, batch_first=True), "the result of forward: tuple found", "one tensor"),
]


@pytest.mark.parametrize(("module", "place", "instead"), REFUSED)
def test_refuses_with_the_place_and_what_to_write(
    module: nn.Module, place: str, instead: str, tmp_path: Path
) -> None:
    with pytest.raises(ExportError) as caught:
        export(tmp_path / "model.bin", [module], input_dim=4)
    assert place in str(caught.value)
    assert instead in str(caught.value)
    assert module.training
    assert list(tmp_path.iterdir()) == []


def test_names_everything_that_cannot_be_mapped(tmp_path: Path) -> None:
    with pytest.raises(ExportError) as caught:
        export(
            tmp_path / "m.bin",
            [nn.Sequential(nn.Linear(4, 6), nn.ELU(), Two(), nn.Softmax(1)), nn.Sequential(Two())],
        )
    wanted = [
        "network 1: 1 (nn.ELU)",
        "network 1: 2.first (nn.SiLU)",
        "network 1: 2: torch.cumsum",
        "network 1: 3 (nn.Softmax): over frames",
        "network 2: 0.first",
        "network 2: 0: torch.cumsum",
    ]
    assert len(caught.value.problems) == len(wanted)
    for problem, part in zip(caught.value.problems, wanted):
        assert part in problem and "2 x 64 x 6 -> 2 x 64 x 6" in problem


class Two(nn.Module):
    """Two operations without a layer, side by side."""

    def __init__(self) -> None:
        super().__init__()
        self.first = nn.SiLU()

    def forward(self, x: Any) -> Any:
        return self.first(x) + torch.cumsum(x, 1)


def recognizer_modules() -> list[nn.Module]:
    torch.manual_seed(1)
    return [
        nn.Sequential(nn.Linear(8, 12), nn.ReLU()),
        nn.Sequential(nn.Linear(12, 5), nn.LogSoftmax(dim=2)),
    ]


def test_reports_what_it_wrote(tmp_path: Path) -> None:
    features = np.random.default_rng(1).random((40, 8))
    report = export(tmp_path / "m.bin", recognizer_modules(), features, check_fixed=True)
    assert [each.name for each in sorted(tmp_path.iterdir())] == ["m-fixed.bin", "m.bin"]
    assert report.bytes == (tmp_path / "m.bin").stat().st_size
    assert not report.random_features
    first, second = report.networks
    assert first.frames == (1, 2, 40, 41) and second.chunk == 16
    assert [layer.marker for layer in second.layers] == ["<AffineTransform>", "<LogSoftmax>"]
    assert [layer.operation for layer in second.layers] == ["0", "1"]
    assert all(0 < layer.fixed_deviation < 0.1 for layer in first.layers)
    for part in ("<AffineTransform>", "108 parameters", "8-bit", "1, 2, 40, 41 frames"):
        assert part in str(report)
    with Recognizer(tmp_path / "m-fixed.bin") as recognizer:
        assert recognizer.recognize(features).sequences


def test_rounds_what_the_file_rounds_and_says_so(tmp_path: Path) -> None:
    torch.manual_seed(1)
    lstm = nn.LSTM(4, 40, bidirectional=True, batch_first=True)
    before = {name: value.clone() for name, value in lstm.state_dict().items()}
    report = export(tmp_path / "m.bin", [First(lstm)])
    assert 1e-5 < report.networks[0].rounding < 1e-2
    assert report.networks[0].deviation < report.networks[0].rounding
    assert all(torch.equal(value, before[name]) for name, value in lstm.state_dict().items())


class First(nn.Module):
    """The output of a module that also gives a state."""

    def __init__(self, module: nn.Module) -> None:
        super().__init__()
        self.module = module

    def forward(self, x: Any, scale: float = 1.0, mask: Any = None) -> Any:
        y = self.module(x)[0]
        return y if mask is None else y * mask


class Gain(nn.Module):
    """A module of a user's own."""

    def __init__(self, dim: int) -> None:
        super().__init__()
        self.gain = nn.Parameter(torch.full((dim,), 2.0))

    def forward(self, x: Any) -> Any:
        return torch.einsum("ltc,c->ltc", x, self.gain)


def test_users_add_and_replace_rules(tmp_path: Path) -> None:
    modules = [nn.Sequential(nn.ReLU(), Gain(4))]

    @rule(Gain)
    def wrong(step: Any, module: Gain) -> Any:
        """`AddShift`"""
        flow = step.rows()
        return step.add(AddShift(flow.dim, flow.dim, shift=array_of(module.gain)))

    try:
        with pytest.raises(ExportError, match="has a rule: replace=True"):
            rule(nn.Linear)(wrong)
        with pytest.raises(ExportError) as caught:
            export(tmp_path / "m.bin", modules, input_dim=4)
        assert "first at layer 1 <AddShift>, which stands for 1: differs" in str(caught.value)

        @rule(Gain, replace=True)
        def right(step: Any, module: Gain) -> Any:
            """`Rescale`"""
            flow = step.rows()
            if module.gain.max() > 5:
                raise Unmapped("a gain above 5")
            return step.add(Rescale(flow.dim, flow.dim, scale=array_of(module.gain)))

        export(tmp_path / "m.bin", modules, input_dim=4)
        assert exporter.table()[Gain].summary == "`Rescale`"
        modules[0][1].gain.data *= 3
        with pytest.raises(ExportError, match=r"1 \(.*Gain\): a gain above 5"):
            export(tmp_path / "m.bin", modules, input_dim=4)
    finally:
        exporter.rules._rules.pop(Gain)


def test_fails_beyond_the_tolerance_and_keeps_the_file(tmp_path: Path) -> None:
    path = tmp_path / "m.bin"
    path.write_bytes(b"before")
    modules = recognizer_modules()
    with pytest.raises(ExportError, match="first at layer 1 <LogSoftmax>"):
        export(path, modules, tolerance=1e-9)
    for values, message in [
        (np.nan, "weights has values that are not finite"),
        (1e38, "not finite"),
    ]:
        modules[0][0].weight.data[:] = values
        with pytest.raises(ExportError, match=message):
            export(path, modules, features=np.full((3, 8), 1e30))
    assert path.read_bytes() == b"before"
    assert list(tmp_path.iterdir()) == [path]


def test_checks_networks_as_a_recognizer_runs_them(tmp_path: Path) -> None:
    first, second = recognizer_modules()
    whole = nn.Sequential(First(nn.GRU(12, 6, batch_first=True, bidirectional=True)), second)
    with pytest.raises(
        ExportError, match="layer 0 <BGru> needs whole lines: move it into the first"
    ):
        export(tmp_path / "m.bin", [first, whole])
    carried = nn.Sequential(First(nn.GRU(12, 12, batch_first=True)), second)
    assert export(tmp_path / "m.bin", [first, carried]).networks[1].chunk == 16
    shorter = nn.Sequential(first, Shorter())
    with pytest.raises(ExportError, match="as many frames as they get"):
        export(tmp_path / "m.bin", [shorter, second])
    assert export(tmp_path / "m.bin", [shorter]).networks[0].frames == (2, 64, 67)


class Shorter(nn.Module):
    def forward(self, x: Any) -> Any:
        return x[:, 1:]


def test_takes_features_as_they_come(tmp_path: Path) -> None:
    with pytest.raises(ExportError, match="give features, or input_dim"):
        export(tmp_path / "m.bin", [nn.ReLU()])
    with pytest.raises(InputError, match="features"):
        export(tmp_path / "m.bin", [nn.ReLU()], features=np.zeros(3))
    with pytest.raises(ExportError, match="list of modules"):
        export(tmp_path / "m.bin", nn.Linear(4, 4))
    module = nn.Linear(4, 4).double()
    report = export(tmp_path / "m.bin", [module], features=[[1, 2, 3, 4]])
    assert report.networks[0].frames == (1, 2, 3)
    with Network(report.path) as network:
        assert network.forward([[1, 2, 3, 4]]).shape == (1, 4)
    assert read_model(report.path)[0][0].weights.dtype == np.float32


def test_runs_from_the_shell(tmp_path: Path) -> None:
    (tmp_path / "checkpoint.py").write_text(
        "from __future__ import annotations\n"
        "from dataclasses import dataclass\n"
        "from torch import nn\n"
        "@dataclass\nclass Settings:\n    dim: int\n"
        "def build():\n    return [nn.Sequential(nn.Linear(8, 6), nn.ReLU()), nn.Linear(6, 4)]\n"
        "def wrong():\n    return [nn.GELU()]\n"
    )
    np.save(tmp_path / "features.npy", np.zeros((5, 8), np.float32))

    def run(*arguments: str) -> Any:
        command = [sys.executable, "-B", "-m", "handwriting_forward.export", *arguments]
        package = str(Path(exporter.__file__).parents[2])
        return subprocess.run(
            command, cwd=tmp_path, capture_output=True, text=True, env={"PYTHONPATH": package}
        )

    done = run("checkpoint.py:build", "out.bin", "--features", "features.npy", "--check-fixed")
    assert (done.returncode, done.stderr) == (0, "")
    assert "out-fixed.bin" in done.stdout and "1, 2, 5, 7 frames" in done.stdout
    done = run("checkpoint.py:wrong", "wrong.bin", "--input-dim", "3")
    assert done.returncode == 1 and "nn.GELU" in done.stderr and "Traceback" not in done.stderr
    for place, message in [
        ("checkpoint.py", "FILE:FUNCTION"),
        ("checkpoint.py:no", "no"),
        ("none.py:build", "none.py"),
    ]:
        done = run(place, "wrong.bin")
        assert done.returncode == 2 and message in done.stderr
    assert not (tmp_path / "wrong.bin").exists()


README = (Path(__file__).parents[1] / "README.md").read_text("utf-8")


def test_the_readme_shows_all_rules() -> None:
    shown = README.partition("<!-- rules -->\n")[2].partition("\n<!-- /rules -->")[0]
    assert shown == exporter.table_text()


def test_the_readme_runs(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: Any) -> None:
    monkeypatch.chdir(tmp_path)
    (tmp_path / "examples").symlink_to(Path(__file__).parents[2] / "examples")
    first, second, third = (each.partition("\n```")[0] for each in README.split("```python\n")[1:])
    output = README.partition("example.py\n")[2].partition("\n```")[0]
    try:
        for block in (first, second, third):
            exec(compile(block, "README.md", "exec"), {"__name__": "readme"})
            if block is first:
                shown = capsys.readouterr().out.splitlines()
                wanted = output.splitlines()
                assert [each.split()[:2] for each in shown] == [each.split()[:2] for each in wanted]
                labels, found = shown[-1].partition("] (")[::2]
                assert labels.strip("[") == found.partition(")")[0]
    finally:
        for target in [each for each in exporter.table() if "Gain" in str(each)]:
            exporter.rules._rules.pop(target)
