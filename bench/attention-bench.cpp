// A transformer encoder block, and one step of a decoder block, beside the plain form of the same
// work: whole BLAS calls on copies of the heads and a scalar softmax. Run with
//   handwriting_bench --benchmark_filter=Encoder

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <cblas.h>

#include "bench/plain-kernels.h"
#include "nnet/attention/decoder-layer.h"
#include "nnet/attention/fsmn-layer.h"
#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::Affine;
using handwriting::tests::Bytes;
using handwriting::tests::Component1d;
using handwriting::tests::Layer;
using handwriting::tests::Model;
using handwriting::tests::Network;
using handwriting::tests::PlainLayerNorm;
using handwriting::tests::PlainSoftmax;
using handwriting::tests::Random;
using handwriting::tests::ReadLayer;
using Floats = std::vector<float>;

[[maybe_unused]] const bool kOneThread = [] {
  openblas_set_num_threads(1);
  return true;
}();

constexpr int kDim = 256;
constexpr int kHeads = 4;
constexpr int kHidden = 1024;
constexpr size_t kWidth = kDim;

Bytes Dense(int in, int out) {
  const auto cells = static_cast<size_t>(in) * static_cast<size_t>(out);
  return Affine(in, out, Random(static_cast<size_t>(out), 1, 0.1F), Random(cells, 2, 0.1F));
}

Bytes Norm() {
  const Floats ones(kWidth, 1.0F);
  return Component1d(0x406, kDim, kDim,
                     Bytes().Int(kDim).Float(1e-5F).Floats(ones).Floats(Floats(kWidth)));
}

Bytes Block(int code, int projections, int norms) {
  Bytes block;
  block.Int(kHeads);
  for (int i = 0; i < projections; ++i) block.Add(Dense(kDim, kDim));
  block.Add(Dense(kDim, kHidden)).Add(Dense(kHidden, kDim));
  for (int i = 0; i < norms; ++i) block.Add(Norm());
  return Component1d(code, kDim, kDim, block);
}

void BM_Encoder(benchmark::State& state) {
  const int64_t frames = state.range(0);
  Model model(Network({Block(0x109, 4, 2)}));
  const Floats in = Random(kWidth * static_cast<size_t>(frames), 3);
  Floats rows = in;
  for (auto _ : state) {
    std::copy(in.begin(), in.end(), rows.begin());  // the block changes its input
    model.forward->Forward(rows.data(), frames, kDim);
  }
  state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_Encoder)->Arg(16)->Arg(128)->Arg(512)->Unit(benchmark::kMicrosecond);

struct PlainDense {
  int in;
  int out;
  Floats weights = Random(static_cast<size_t>(in) * static_cast<size_t>(out), 2, 0.1F);
  Floats bias = Random(static_cast<size_t>(out), 1, 0.1F);

  void operator()(const Floats& x, Floats& y, int frames) const {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, frames, out, in, 1.0F, x.data(), in,
                weights.data(), in, 0.0F, y.data(), out);
    for (size_t i = 0; i < y.size(); ++i) y[i] += bias[i % bias.size()];
  }
};

void PlainNorm(const Floats& x, Floats& y) {
  const Floats ones(kWidth, 1.0F), zeros(kWidth);
  for (size_t at = 0; at < x.size(); at += kWidth) {
    PlainLayerNorm(&x[at], kWidth, ones.data(), zeros.data(), 1e-5F, &y[at]);
  }
}

// Rows to one matrix a head, and back.
void ReorderHeads(Floats& x, size_t frames, bool split) {
  const Floats copy = x;
  constexpr size_t kHead = kWidth / kHeads;
  for (size_t h = 0; h < kHeads; ++h) {
    for (size_t r = 0; r < frames; ++r) {
      const size_t in_rows = r * kWidth + h * kHead;
      const size_t in_heads = (h * frames + r) * kHead;
      std::copy_n(copy.data() + (split ? in_rows : in_heads), kHead,
                  x.data() + (split ? in_heads : in_rows));
    }
  }
}

void BM_EncoderPlain(benchmark::State& state) {
  const auto frames = static_cast<int>(state.range(0));
  const auto rows = static_cast<size_t>(frames);
  constexpr int kHead = kDim / kHeads;
  const PlainDense projection{kDim, kDim};
  const PlainDense widen{kDim, kHidden};
  const PlainDense narrow{kHidden, kDim};
  const Floats in = Random(kWidth * rows, 3);
  Floats x(in.size());
  Floats y(in.size());
  Floats query(in.size());
  Floats key(in.size());
  Floats value(in.size());
  Floats context(in.size());
  Floats hidden(rows * kHidden);
  for (auto _ : state) {
    x = in;
    PlainNorm(x, y);
    for (Floats* target : {&query, &key, &value}) {
      projection(y, *target, frames);
      ReorderHeads(*target, rows, true);
    }
    Floats scores(rows * rows);
    for (size_t at = 0; at < in.size(); at += rows * kHead) {
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, frames, frames, kHead, 0.125F,
                  query.data() + at, kHead, key.data() + at, kHead, 0.0F, scores.data(), frames);
      PlainSoftmax(scores.data(), rows, rows, scores.data());
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, frames, kHead, frames, 1.0F,
                  scores.data(), frames, value.data() + at, kHead, 0.0F, context.data() + at,
                  kHead);
    }
    ReorderHeads(context, rows, false);
    projection(context, y, frames);
    for (size_t i = 0; i < x.size(); ++i) x[i] += y[i];
    PlainNorm(x, y);
    widen(y, hidden, frames);
    for (float& h : hidden) h = std::max(0.0F, h);
    narrow(hidden, y, frames);
    for (size_t i = 0; i < x.size(); ++i) y[i] += x[i];
    benchmark::DoNotOptimize(y.data());
  }
  state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_EncoderPlain)->Arg(16)->Arg(128)->Arg(512)->Unit(benchmark::kMicrosecond);

// A sequence of so many steps over a memory of 128 frames.
void BM_DecoderSteps(benchmark::State& state) {
  const int64_t steps = state.range(0);
  const Layer layer = ReadLayer(Block(0x10a, 8, 3));
  auto& decoder = dynamic_cast<tarev::nnet::handwriting_CTC::Decoder&>(*layer);
  const Floats in = Random(kWidth, 3);
  Floats memory = Random(kWidth * 128, 4);
  Floats row(kWidth);
  Floats out(kWidth);
  for (auto _ : state) {
    layer->Reset();
    decoder.SetMemory(memory.data(), 128);
    for (int64_t s = 0; s < steps; ++s) {
      row = in;
      int width = kDim;
      layer->Propagate(row.data(), 1, kDim, out.data(), &width, static_cast<int>(s + 1));
    }
  }
  state.SetItemsProcessed(state.iterations() * steps);
}
BENCHMARK(BM_DecoderSteps)->Arg(16)->Arg(128)->Unit(benchmark::kMicrosecond);

// Memory block: dimension, taps on each side.
struct FsmnProblem {
  explicit FsmnProblem(const benchmark::State& state)
      : dim(static_cast<int>(state.range(0))),
        order(static_cast<int>(state.range(1))),
        taps(2 * order + 1),
        filter(Random(static_cast<size_t>(taps * dim), 1)),
        in(Random(static_cast<size_t>((kFrames + 2 * order) * dim), 2)),
        out(static_cast<size_t>(kFrames * dim)) {}
  static constexpr int kFrames = 128;
  int dim;
  int order;
  int taps;
  Floats filter;
  Floats in;
  Floats out;
};

void BM_Fsmn(benchmark::State& state) {
  FsmnProblem p(state);
  const Layer layer = ReadLayer(Component1d(
      0x107, p.dim, p.dim, Bytes().Int(p.order).Int(p.order).Int(1).Int(0).Floats(p.filter)));
  for (auto _ : state) {
    int width = p.dim;
    layer->Propagate(p.in.data(), p.kFrames + 2 * p.order, p.dim, p.out.data(), &width, 1);
  }
  state.SetItemsProcessed(state.iterations() * p.kFrames);
}
BENCHMARK(BM_Fsmn)->Args({512, 10})->Args({128, 5})->Unit(benchmark::kMicrosecond);

// One multiply-accumulate pass a tap and frame through the band product.
void BM_FsmnPlain(benchmark::State& state) {
  FsmnProblem p(state);
  Floats memory(p.out.size());
  for (auto _ : state) {
    std::fill(p.out.begin(), p.out.end(), 0.0F);
    for (int i = 0; i < p.kFrames; ++i) {
      float* row = p.out.data() + i * p.dim;
      for (int k = 0; k < p.taps; ++k) {
        cblas_sgbmv(CblasRowMajor, CblasNoTrans, p.dim, p.dim, 0, 0, 1.0F,
                    p.filter.data() + k * p.dim, 1, p.in.data() + (i + k) * p.dim, 1, 1.0F, row, 1);
      }
      std::copy_n(row, p.dim, memory.data() + i * p.dim);
      for (int j = 0; j < p.dim; ++j)
        row[j] += p.in[static_cast<size_t>((i + p.order) * p.dim + j)];
    }
    benchmark::DoNotOptimize(p.out.data());
  }
  state.SetItemsProcessed(state.iterations() * p.kFrames);
}
BENCHMARK(BM_FsmnPlain)->Args({512, 10})->Args({128, 5})->Unit(benchmark::kMicrosecond);

}  // namespace
