#!/usr/bin/env python3
"""Prints the tables of docs/performance.md: every row's time beside its plain form and its limit.

usage: bench/tables.py BENCH [RUNS]

BENCH is the benchmark program. It is run RUNS times (5 unless given) for each vector target, the
targets by turns, on one processor; times are medians. The limit of a row is what the same run
measures for multiply-adds from registers and for reading the weights from the memory that holds
them, whichever takes longer, step by step.
"""

import json
import os
import statistics
import subprocess
import sys

TARGETS = ("AVX3", "AVX2")
UNITS = {"ns": 1e-3, "us": 1.0, "ms": 1e3}


class Times:
    """Medians of one target in microseconds, and the machine's rates."""

    def __init__(self, target):
        self.target = target
        self.runs = {}
        self.rates = {}

    def add(self, rows):
        for row in rows:
            self.runs.setdefault(row["name"], []).append(row["cpu_time"] * UNITS[row["time_unit"]])
            rate = row.get("FLOP/s", row.get("bytes_per_second"))
            if row["name"].startswith("BM_Limit"):
                self.rates.setdefault(row["name"], []).append(rate)

    def time(self, name):
        return statistics.median(self.runs[name]) if name in self.runs else None

    def rate(self, name):
        return statistics.median(self.rates[name])

    def arithmetic(self, products):
        """Microseconds of so many multiply-adds."""
        return 2e6 * products / self.rate("BM_LimitOfArithmetic")

    def reading(self, count):
        """Microseconds of reading so many bytes again, from the smallest memory that holds them."""
        for kib, most in ((16, 32 << 10), (512, 1 << 20), (4096, 16 << 20), (65536, None)):
            if most is None or count <= most:
                return 1e6 * count / self.rate(f"BM_LimitOfReading/KiB:{kib}")

    def product(self, rows, inputs, outputs, value_bytes):
        # Three byte products of 64 lanes, or two pair products of 16, make what 16 and 8
        # multiply-adds of floats do.
        work = 0.75 if value_bytes == 1 and self.target == "AVX3" else 1.0
        return max(
            work * self.arithmetic(rows * inputs * outputs),
            self.reading(inputs * outputs * value_bytes),
        )


def affine(inputs, outputs, frames, value_bytes):
    return lambda times: times.product(frames, inputs, outputs, value_bytes)


def recurrent(gates, cells, frames, value_bytes, directions=1, projected=False):
    """An input product for all frames; for each frame the recurrent product and the projection."""
    outputs = cells // 2 if projected else cells

    def limit(times):
        step = times.product(1, outputs, gates * cells, value_bytes)
        if projected:
            step += times.product(1, cells, outputs, value_bytes)
        whole = times.product(frames, cells, gates * cells, value_bytes)
        return directions * (whole + frames * step)

    return limit


def encoder(frames, dim=256, hidden=1024):
    """Four projections, the feed-forward part, and two products of all frames with all frames."""
    return lambda times: times.arithmetic(
        frames * (4 * dim * dim + 2 * dim * hidden + 2 * frames * dim)
    )


def convolution(channels, frames, taps, inputs):
    return lambda times: times.arithmetic(frames * channels * taps * inputs)


def products(fixed):
    suffix, value_bytes = ("Fixed", 1) if fixed else ("", 4)
    for dim in (128, 256, 512, 1024):
        for frames in (1, 16, 128, 512):
            yield (
                f"affine {dim} → {dim}, {frames} frame{'s' if frames > 1 else ''}",
                f"BM_Affine{suffix}/in:{dim}/out:{dim}/frames:{frames}",
                f"BM_AffinePlain/in:{dim}/out:{dim}/frames:{frames}",
                affine(dim, dim, frames, value_bytes),
            )
    for frames in (1, 16):
        yield (
            f"output layer 512 → 7000, {frames} frame{'s' if frames > 1 else ''}",
            f"BM_Affine{suffix}/in:512/out:7000/frames:{frames}",
            f"BM_AffinePlain/in:512/out:7000/frames:{frames}",
            affine(512, 7000, frames, value_bytes),
        )
    kinds = (
        ("LSTM", "Lstm", 4, 1, False),
        ("bidirectional LSTM", "Blstm", 4, 2, False),
        ("projected LSTM", "LstmProjected", 4, 1, True),
        ("GRU", "Gru", 3, 1, False),
    )
    for title, name, gates, directions, projected in kinds:
        for cells, frames in ((48, 128), (128, 128), (256, 128), (512, 128), (512, 16)):
            stored = 1 if fixed else 2 if name == "Blstm" else 4
            yield (
                f"{title} {cells}{f'/{cells // 2}' if projected else ''}, {frames} frames",
                f"BM_{name}{suffix}/cells:{cells}/frames:{frames}",
                f"BM_{name}Plain/cells:{cells}/frames:{frames}",
                recurrent(gates, cells, frames, stored, directions, projected),
            )


def others():
    for frames in (16, 128, 512):
        yield (
            f"encoder block 256, 4 heads, 1024 hidden, {frames} frames",
            f"BM_Encoder/{frames}",
            f"BM_EncoderPlain/{frames}",
            encoder(frames),
        )
    for channels in (64, 128, 256):
        for frames in (16, 128, 1024):
            row = f"channels:{channels}/frames:{frames}/taps:3/groups:1"
            yield (
                f"convolution of 3 taps, {channels} channels, {frames} frames",
                f"BM_ConvLayer/{row}",
                f"BM_ConvPlainLoop/{row}",
                convolution(channels, frames, 3, channels),
            )
    for taps in (3, 5):
        for frames in (16, 128, 1024):
            row = f"channels:128/frames:{frames}/taps:{taps}/groups:128"
            yield (
                f"depthwise convolution of {taps} taps, 128 channels, {frames} frames",
                f"BM_ConvLayer/{row}",
                f"BM_ConvPlainLoop/{row}",
                convolution(128, frames, taps, 1),
            )
    for width, context in ((128, 5), (512, 10)):
        yield (
            f"FSMN memory, width {width}, {2 * context + 1} taps, 128 frames",
            f"BM_Fsmn/{width}/{context}",
            f"BM_FsmnPlain/{width}/{context}",
            convolution(width, 128, 2 * context + 1, 1),
        )
    rows = (
        ("softmax, 128 rows of 100", "softmax", "rows:128/cols:100"),
        ("softmax, 128 rows of 11", "softmax_narrow", "rows:128/cols:11"),
        ("log-softmax, 128 rows of 7000", "log_softmax", "rows:128/cols:7000"),
        ("sigmoid, 65 536 values", "sigmoid", "rows:1/cols:65536"),
        ("tanh, 65 536 values", "tanh", "rows:1/cols:65536"),
    )
    for title, kernel, size in rows:
        yield title, f"RunKernel/{kernel}/{size}", f"RunKernel/{kernel}_plain/{size}", None
    yield "layer normalisation, 128 rows of 256", "BM_LayerNorm/128", "BM_PlainLayerNorm/128", None
    for classes, beam in ((100, 10), (100, 100), (7000, 1), (7000, 10)):
        row = f"classes:{classes}/beam:{beam}"
        yield (
            f"decoder, 200 frames of {classes} classes, beam {beam}",
            f"BM_DecoderFrames/{row}",
            f"BM_PlainFrames/{row}",
            None,
        )


def number(value):
    if value is None:
        return "–"
    return f"{value:.2f}" if value < 10 else f"{value:.1f}" if value < 100 else f"{value:.0f}"


def cells(times, row, plain, limit):
    here, there = times.time(row), times.time(plain)
    share = f"{limit(times) / here:.2f}" if limit else "–"
    return [number(there), number(here), f"{here / there:.2f}" if there else "–", share]


def table(title, rows, all_times):
    print(f"\n### {title}\n")
    heads = [f"{t.target} {h}" for t in all_times for h in ("plain", "here", "ratio", "of limit")]
    print("| work | " + " | ".join(heads) + " |")
    print("| --- |" + " --: |" * len(heads))
    for name, row, plain, limit in rows:
        print(f"| {name} | " + " | ".join(sum((cells(t, row, plain, limit) for t in all_times), [])) + " |")


def run(bench, times):
    environment = dict(os.environ)
    if times.target != "AVX3":
        environment.update(HANDWRITING_BENCH_TARGET=times.target, OPENBLAS_CORETYPE="Haswell")
    command = [bench, "--benchmark_min_time=0.05", "--benchmark_format=json"]
    output = subprocess.run(command, env=environment, capture_output=True, check=True).stdout
    times.add(json.loads(output)["benchmarks"])


def main():
    bench = sys.argv[1]
    all_times = [Times(target) for target in TARGETS]
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
    for _ in range(int(sys.argv[2]) if len(sys.argv) > 2 else 5):
        for times in all_times:
            run(bench, times)
    table("Float and binary16 weights", products(fixed=False), all_times)
    table("8-bit weights", products(fixed=True), all_times)
    table("Other layers and the decoder", others(), all_times)
    print("\n### The machine\n\n| limit | " + " | ".join(t.target for t in all_times) + " |")
    print("| --- |" + " --: |" * len(all_times))
    for name in all_times[0].rates:
        print(f"| `{name}`, G/s | " + " | ".join(f"{t.rate(name) / 1e9:.0f}" for t in all_times) + " |")


main()
