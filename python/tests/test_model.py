"""Tests of model files: what Python writes and the library reads, the other way, and refusals.

HANDWRITING_TOOL names the library's tool where it is not that of the release build.
"""

from __future__ import annotations

import copy
import dataclasses
import os
import struct
import subprocess
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from handwriting_forward.model import *  # noqa: F403

ROOT = Path(__file__).resolve().parents[2]
TOOL = os.environ.get("HANDWRITING_TOOL", str(ROOT / "build/release/handwriting"))

WINDOW = {"kernel_size": 3, "stride": 2, "padding_left": 1, "padding_right": 4, "dilation": 5}
PARTS = {"register_names": ["x", "größe"], "input_positions": [2, 0]}


def dense(input_dim: int, output_dim: int) -> Layer:
    return AffineTransform(input_dim, output_dim)


def attention(groups: dict[str, int], inner: Layer | None = None) -> dict[str, Any]:
    """Components around width 4 and hidden width 6; `inner` takes the place of the first one."""
    layers: dict[str, Any] = {name: [dense(4, 4) for _ in range(n)] for name, n in groups.items()}
    layers["ff_layers"] = [dense(4, 6), dense(6, 4)]
    if inner is not None:
        layers["self_atten_layers"][0] = inner
    return layers


def encoder(inner: Layer | None = None) -> Layer:
    groups = {"self_atten_layers": 4, "sub_layers": 2}
    return Encoder(4, 4, head_num=2, **attention(groups, inner))


def plane_convolution() -> Layer:
    sizes = (2, 3, 1, 2, 3, 4, 5, 6, 7, 8, 2)
    return Conv2d(2, 4, 9, None, *sizes, has_bias=1)


def composite(kind: type, parts: str) -> Layer:
    """`parts` names a convolution, normalisation or rectifier by its first letter."""
    make = {
        "c": plane_convolution,
        "n": lambda: BatchNorm2d(2, 2, epsilon=0.5),
        "r": lambda: PReLU2d(2, 2, alpha=0.25),
    }
    return kind(2, 2, components=[make[part]() for part in parts])


# Every class at least once, with dimensions that tell rows from columns.
SAMPLES: list[Layer] = [
    AffineTransform(2, 3),
    LinearTransform(2, 3),
    Embedding(2, 3, scale=2.5),
    *(kind(2, 2) for kind in (Softmax, Sigmoid, ReLU, LogSoftmax)),
    ReLU(0, -1),
    PReLU(2, 2, alpha=0.25),
    ReLU2d(2, 2, 3),
    ReLU2d(2, 2, -1, 7, output_dim_set=False),
    PReLU2d(2, 2, alpha=-0.25),
    Highway(3, 3),
    NormalizeComponent(2, 2, target_rms=0.5),
    BatchNormComponent(3, 3),
    LayerNorm(3, 3, epsilon=0.5),
    BatchNorm2d(2, 2, 5, 5, epsilon=0.5),
    BatchNorm1d(3, 3, epsilon=0.25),
    Splice(2, 6, offsets=[-2, 0, 1]),
    AddShift(3, 3),
    Rescale(3, 3),
    AddComponent(6, 2, input_num=3),
    Prior(3, 3),
    Lstm(3, 2),
    LstmProjectedNnet3Streams(3, 1, cell_dim=2),
    Blstm(3, 4),
    BlstmProjectedNnet3Streams(3, 2, cell_dim=2),
    Gru(1, 2),
    BGru(1, 4),
    Conv1d(6, 4, **WINDOW, groups=2, has_bias=1),
    Conv1d(3, 2, kernel_size=2),
    ConvTranspose1d(6, 4, **WINDOW, groups=2, has_bias=1, output_padding=7),
    MaxPool1d(2, 2, **WINDOW),
    plane_convolution(),
    composite(ConvBN2d, "cnr"),
    composite(ConvDW2d, "cnrcnr"),
    composite(SeperableConv2d, "crc"),
    SimpleConv2d1x3s2(2, 3, 4),
    SimpleDeconv2d1x3s2(2, 3),
    PositionalEncoding(4, 4),
    encoder(),
    encoder(encoder(LinearTransform(4, 4))),
    Decoder(
        4, 4, **attention({"self_atten_layers": 4, "cross_atten_layers": 4, "sub_layers": 3})
    ),
    Fsmn(3, 3, l_order=1, r_order=2, stride=2, depend=-1),
    RegisterComponent(2, 2, register_name="left"),
    RegisterComponent(2, 2, register_name="left", slice_index="-1"),
    Register2dComponent(2, 2, 3, 3, register_name="p"),
    ConcatenateComponent(2, 8, **PARTS),
    Concatenate2dComponent(2, 8, 3, 3, **PARTS),
    FlattenComponent(2, 6, input_channels=3),
    DeflattenComponent(6, 2, output_channels=3),
    SliceComponent(2, 2, index_text="-3"),
    ReflectionPad(2, 2, padding_left=3, padding_right=4),
    ConstantPad(2, 2, padding_left=3, padding_right=4, value=0.5),
    ViewComponent(2, 4),
    TransposeComponent(2, 0),
    StatisticsExtractionComponent(3, 4, 2, 6, include_variance=False),
    StatisticsPoolingComponent(5, 6, 3, num_log_count_features=2),
    SlidingWindowComponent(2, 2, window_size=7, hop_size=3, sliding_mode=1),
    StreamConv1d(6, 4, **WINDOW, groups=2, has_bias=1),
    StreamConvTranspose1d(6, 4, **WINDOW, has_bias=1, output_padding=7),
    StreamMaxPool1d(2, 2, **WINDOW),
    StreamRegisterComponent(2, 2, register_name="name"),
    StreamConcatenateComponent(2, 8, **PARTS),
    StreamReflectionPad(2, 2, padding_left=3, padding_right=4),
    StreamConstantPad(2, 2, padding_left=3, padding_right=4, value=0.5),
    StreamSliceComponent(2, 2, index_text="2:5,7"),
]
WITH_CODES = [copy.deepcopy(layer) for layer in SAMPLES if layer.code_type is not None]
for _layer in WITH_CODES:
    _layer.fixed = True
for _layer in SAMPLES + WITH_CODES:
    random_parameters(_layer, np.random.default_rng(1))
# What has no form under its fixed-point code is written under the float one.
STAYS_FLOAT = (Highway, MaxPool1d)
FIRST = 4  # the number of layers, before the first layer of a file


def convert(networks: list[Network], folder: Path, *options: str) -> bytes:
    """What the library writes of the networks that it reads."""
    given, written = folder / "given.bin", folder / "written.bin"
    write_model(given, networks)
    subprocess.run([TOOL, "convert", *options, given, written], check=True, timeout=60)
    return written.read_bytes()


def arrays(owner: Any) -> Iterator[Any]:
    """All arrays of a layer, of its directions and of the layers in it."""
    for each in dataclasses.fields(owner):
        value = getattr(owner, each.name)
        for item in value if isinstance(value, list) else [value]:
            if isinstance(item, (np.ndarray, CodeArray)):
                yield item
            elif dataclasses.is_dataclass(item):
                yield from arrays(item)


def test_every_class_of_the_library_has_a_twin() -> None:
    core = pytest.importorskip("handwriting_forward._core")
    fixed = {code for code, kind in layer_types.items() if code == kind.fixed_type_code}
    twins = {
        code: f"<{'Fixed' if code in fixed else ''}{kind.__name__}>"
        for code, kind in layer_types.items()
    }
    assert twins == core.component_types()
    assert {type(layer) for layer in SAMPLES} == set(layer_types.values())


def test_float_layers_go_through_the_library_unchanged(tmp_path: Path) -> None:
    networks = [[layer] for layer in SAMPLES]
    written = read_model(convert(networks, tmp_path))
    for given, (back,) in zip(SAMPLES, written, strict=True):
        assert model_bytes([[back]]) == model_bytes([[given]]), given
        assert [a.shape for a in arrays(back)] == [a.shape for a in arrays(given)]
    assert networks_equal(networks, written)


def test_layers_of_codes_go_through_the_library_unchanged(tmp_path: Path) -> None:
    networks = [[layer] for layer in WITH_CODES]
    assert len(networks) == 9
    assert convert(networks, tmp_path) == model_bytes(networks)


def test_codes_of_the_library_stand_for_the_floats(tmp_path: Path) -> None:
    file = convert([[layer] for layer in SAMPLES], tmp_path, "--fixed")
    written = read_model(file)
    assert model_bytes(written) == file
    for given, (back,) in zip(SAMPLES, written, strict=True):
        assert back.code == (given.code if type(given) in STAYS_FLOAT else back.fixed_type_code)
        for floats, decoded in zip(arrays(given), arrays(back), strict=True):
            if isinstance(decoded, CodeArray):
                assert np.abs(decoded.values - floats).max() <= 0.5001 / decoded.scale, given
            else:
                assert decoded.tobytes() == floats.tobytes(), given


def test_codes_decode_as_defined() -> None:
    symmetric = SymmetricCodes(np.array([[-127, 0, 100]], np.int8), scale=4)
    np.testing.assert_array_equal(symmetric.values, [[-31.75, 0, 25]])
    asymmetric = AsymmetricCodes(np.array([0, 255], np.uint8), scale=2, zero_point=-100)
    np.testing.assert_array_equal(asymmetric.values, np.array([-50, 77.5], np.float32))
    fixed = AffineTransform(3, 2, bias=asymmetric, weights=np.zeros((2, 3)))  # in float form
    ((back,),) = read_model(model_bytes([[fixed]]))
    np.testing.assert_array_equal(back.bias, [-50, 77.5])


def test_bytes_are_those_of_the_format(tmp_path: Path) -> None:
    def direction(first: int) -> LstmDirection:
        values = np.split(first + np.arange(56), [24, 40, 48])
        return LstmDirection(values[0].reshape(8, 3), values[1].reshape(8, 2), *values[2:])

    weights = [[1, 2, 3, 4], [5, 6, 7, 8]]
    codes = AsymmetricCodes(np.array([[1, 2]], np.uint8), 0.5, -3, np.array([7.0]))
    networks = [
        [Blstm(3, 4, direction(0), direction(56))],
        [AffineTransform(4, 2, bias=[0.5, -1], weights=weights), LogSoftmax(2, 2)],
        [AffineTransform(2, 1, AsymmetricCodes(np.array([9], np.uint8)), codes, fixed=True)],
        [ReLU2d(2, 2, 3), RegisterComponent(1, 1, register_name="ab", slice_index="0")],
    ]
    wanted = struct.pack("<I iiI i 112e", 1, 3, 4, 0x10E, 2, *range(112))
    wanted += struct.pack("<I iiI 2f 8f", 2, 4, 2, 0x100, 0.5, -1, *range(1, 9))
    wanted += struct.pack("<iiI", 2, 2, 0x204)
    wanted += struct.pack("<I iiI fiB fifBB", 1, 2, 1, 0x800, 1, 0, 9, 0.5, -3, 7, 1, 2)
    wanted += struct.pack("<I iiIiiBB", 2, 2, 2, 0x206, 3, 0, 1, 0)
    wanted += struct.pack("<iiI i2s 3s i1s", 1, 1, 0x700, 2, b"ab", b"EXT", 1, b"0")
    path = tmp_path / "model.bin"
    write_model(path, networks)
    assert path.read_bytes() == wanted
    read = read_model(path)
    assert networks_equal(read, networks)
    assert read[0][0].backward.input_bias.shape == (8,)
    assert read[0][0].backward.recurrent_weights.dtype == np.float32
    assert (read[3][0].input_dim, read[3][0].output_dim, read[3][1].slice_index) == (3, None, "0")


def test_equality_sees_every_bit() -> None:
    def shift(value: float) -> list[Network]:
        return [[AddShift(1, 1, shift=np.array([value], np.float32))]]

    assert networks_equal(shift(np.nan), shift(np.nan))
    assert not networks_equal(shift(0.0), shift(-0.0))


@pytest.mark.parametrize("layer", [*SAMPLES, *WITH_CODES], ids=lambda layer: layer.marker)
def test_files_cut_short_are_refused(layer: Layer) -> None:
    whole = model_bytes([[layer]])
    complete = [len(whole)]
    if isinstance(layer, RegisterComponent) and layer.slice_index is not None:
        complete.append(len(whole) - len(b"EXT") - 4 - len(layer.slice_index))
    for size in range(1, len(whole) + 1):
        if size in complete:
            read_model(whole[:size])
            continue
        with pytest.raises(ModelError, match=r"^network (1|2): .* bytes wanted, \d+ found$"):
            read_model(whole[:size])


def test_refusals_name_place_and_cause(tmp_path: Path) -> None:
    path = tmp_path / "model.bin"
    block = random_parameters(encoder(), np.random.default_rng(1))
    whole = model_bytes([[LogSoftmax(4, 4), block]])
    path.write_bytes(whole[:-60])
    with pytest.raises(ModelError) as refused:
        read_model(path)
    assert str(refused.value) == (
        f"{path}: network 1: layer 1: <Encoder>: sub_layers[1]: <AffineTransform>: weights: "
        "64 bytes wanted, 4 found"
    )
    with pytest.raises(ModelError) as refused:
        model_bytes([[], [AffineTransform(4, 2, bias=np.zeros(2), weights=np.ones((4, 2)))]])
    assert str(refused.value) == (
        "network 2: layer 0: <AffineTransform>: weights: shape (4, 2) found, (2, 4) wanted"
    )


HUGE = 2**31 - 1
HOSTILE = {
    "unknown type code 0x0102": struct.pack("<iiI", 1, 1, 0x102),
    "bias: length -1 found": struct.pack("<iiI", 1, -1, 0x100),
    "bias: 2147483647 values": struct.pack("<iiI", HUGE, HUGE, 0x100),
    "weights: 1000000000 bytes wanted": struct.pack("<iiI", 25000, 10000, 0x101),
    "length of register_name -2 found": struct.pack("<iiIi", 1, 1, 0x700, -2),
    "register_name: 2147483647 bytes": struct.pack("<iiIi", 1, 1, 0x700, HUGE),
    "number of register_names -1": struct.pack("<iiIi", 1, 1, 0x702, -1),
    "register_names: 4000000000 bytes": struct.pack("<iiIi", 1, 1, 0x702, 10**9),
    "input_positions: 40000 bytes": struct.pack("<iiIii", 1, 1, 0x702, 0, 10000),
    "of 1 parts": struct.pack("<iiI iii", 1, 1, 0x702, 0, 1, 1),
    "offsets: 4000000000 bytes": struct.pack("<iiI", 1, 10**9, 0x401),
    "output dimension 5 found, 4": struct.pack("<iiI", 4, 5, 0x204),
    "output channels 5 found, 4": struct.pack("<iiIiiBB", 4, 5, 0x206, 0, 0, 0, 0),
    "kernel: shape": struct.pack("<iiI 7i", HUGE, HUGE, 0x307, 0, 1, 0, 0, 1, 1, 0),
    "modulo groups 1 found": struct.pack("<iiI 7i", 3, 2, 0x307, 1, 1, 0, 0, 1, 2, 0),
    "cell_dim 3 found, 2": struct.pack("<iiIi", 1, 4, 0x10E, 3),
    "nested more than 16 deep": struct.pack("<iiIi", 1, 1, 0x109, 1) * 17,
}


@pytest.mark.parametrize("cause", HOSTILE)
def test_hostile_layers_are_refused(cause: str) -> None:
    with pytest.raises(ModelError, match=cause):
        read_model(struct.pack("<I", 1) + HOSTILE[cause] + bytes(8))


def test_damaged_files_are_read_or_refused() -> None:
    rng = np.random.default_rng(3)
    whole = np.frombuffer(model_bytes([[layer] for layer in [*SAMPLES, *WITH_CODES]]), np.uint8)
    refused = 0
    for _ in range(500):
        damaged = whole.copy()
        damaged[rng.integers(0, len(whole), 3)] = rng.integers(0, 256, 3)
        try:
            read_model(damaged.tobytes())
        except ModelError:
            refused += 1
    assert 0 < refused < 500


def test_wrong_models_leave_no_file(tmp_path: Path) -> None:
    halves = LstmDirection(np.full((8, 3), 65536), np.zeros((8, 2)), np.zeros(8), np.zeros(8))
    affine = AffineTransform(1, 1, bias=np.zeros(1), weights=np.ones((1, 1)))
    wrong: dict[str, list[Network]] = {
        "too large for float16": [[Blstm(3, 4, forward=halves)]],
        "modulo directions 1 found": [[Blstm(3, 5)]],
        "input dimension 5 found, 4 wanted": [[LogSoftmax(4, 4), LogSoftmax(5, 5)]],
        "input channels 3 found, 2 wanted": [[ReLU2d(2, 2), ReLU2d(3, 3)]],
        "None found, an int32 wanted": [[ReLU(4, None)]],
        "2147483648 found, an int32 wanted": [[ConstantPad(1, 1, 2**31)]],
        "AsymmetricCodes wanted": [[dataclasses.replace(affine, fixed=True)]],
        "codes: a value is too large for int8": [
            [LinearTransform(1, 1, SymmetricCodes(np.array([[128]])), fixed=True)]
        ],
        "sub_layers: 0 found, 2 wanted": [
            [Encoder(1, 1, self_atten_layers=[affine] * 4, ff_layers=[affine] * 2)]
        ],
        "offsets: 2 found, 3 wanted": [[Splice(2, 6, offsets=[0, 1])]],
        "wrong offsets": [[Splice(2, 4, offsets=[0, 0])]],
        "self_atten_layers.0.: .2, 2. found": [
            [Encoder(1, 1, self_atten_layers=[ReLU(2, 2)] * 4)]
        ],
    }
    path = tmp_path / "model.bin"
    for cause, networks in wrong.items():
        with pytest.raises(ModelError, match=cause):
            write_model(path, networks)
        assert list(tmp_path.iterdir()) == []


def test_widths_that_are_not_known_fit() -> None:
    model_bytes([
        [TransposeComponent(4, 9), ReLU(7, 7), ReLU(0, 0), ReLU(5, 5)],
        [ReLU(4, 4), ConcatenateComponent(9, 2, register_names=["x"])],
        [DeflattenComponent(6, 2, output_channels=3), ReLU2d(3, 3, 2), ReLU2d(3, 3)],
    ])


def test_a_code_has_one_class() -> None:
    with pytest.raises(ModelError, match="0x0204 belongs to LogSoftmax"):
        layer_type(0x204)(type("Other", (RowLayer,), {}))
    assert fixed_code_of(0x1104) == 0x1904
