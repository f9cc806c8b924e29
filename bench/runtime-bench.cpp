// Kernels and layers of the runtime, each beside the plain form of the same work: whole BLAS calls
// and scalar loops.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <cblas.h>

#include "bench/plain-kernels.h"
#include "nnet/base/element-kernels.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::Bytes;
using handwriting::tests::Component1d;
using handwriting::tests::Model;
using handwriting::tests::PlainLogSoftmax;
using handwriting::tests::PlainSigmoid;
using handwriting::tests::PlainSoftmax;
using handwriting::tests::PlainTanh;
using handwriting::tests::Random;
using Floats = std::vector<float>;

namespace runtime = tarev::nnet::handwriting_CTC;

[[maybe_unused]] const bool kOneThread = [] {
  openblas_set_num_threads(1);
  return true;
}();

void PlainProduct(const Floats& in, const Floats& weights, const Floats& bias, int frames, int dim,
                  Floats& out) {
  const auto rows = static_cast<int>(bias.size());
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, frames, rows, dim, 1.0F, in.data(), dim,
              weights.data(), dim, 0.0F, out.data(), rows);
  for (size_t i = 0; i < out.size(); ++i) out[i] += bias[i % bias.size()];
}

void CountFrames(benchmark::State& state, int64_t frames) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * frames);
}

// Affine: dimension (in = out), frames.

void BM_Affine(benchmark::State& state) {
  const auto dim = static_cast<int>(state.range(0));
  const int64_t frames = state.range(1);
  const auto size = static_cast<size_t>(dim);
  Model model(handwriting::tests::Network(
      {handwriting::tests::Affine(dim, dim, Random(size, 1), Random(size * size, 2))}));
  const Floats in = Random(size * static_cast<size_t>(frames), 3);
  for (auto _ : state) model.forward->Forward(in.data(), frames, dim);
  CountFrames(state, frames);
}

void BM_AffinePlain(benchmark::State& state) {
  const auto dim = static_cast<int>(state.range(0));
  const auto frames = static_cast<int>(state.range(1));
  const auto size = static_cast<size_t>(dim);
  const Floats bias = Random(size, 1);
  const Floats weights = Random(size * size, 2);
  const Floats in = Random(size * static_cast<size_t>(frames), 3);
  Floats out(in.size());
  for (auto _ : state) PlainProduct(in, weights, bias, frames, dim, out);
  CountFrames(state, frames);
}

void AffineSizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"dim", "frames"});
  for (const int dim : {512, 1024}) {
    for (const int frames : {1, 16, 128, 512}) bench->Args({dim, frames});
  }
}
BENCHMARK(BM_Affine)->Apply(AffineSizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AffinePlain)->Apply(AffineSizes)->Unit(benchmark::kMicrosecond);

// LSTM of 256 cells on 256 inputs, 128 frames.

constexpr size_t kCells = 256;
constexpr size_t kLstmFrames = 128;

struct LstmArrays {
  Floats input = Random(4 * kCells * kCells, 1, 0.1F);
  Floats recurrent = Random(4 * kCells * kCells, 2, 0.1F);
  Floats input_bias = Random(4 * kCells, 3);
  Floats recurrent_bias = Random(4 * kCells, 4);
};

Bytes LstmBlock(const LstmArrays& arrays) {
  return Bytes()
      .Floats(arrays.input)
      .Floats(arrays.recurrent)
      .Floats(arrays.input_bias)
      .Floats(arrays.recurrent_bias);
}

void RunNetwork(benchmark::State& state, const Bytes& component) {
  Model model(handwriting::tests::Network({component}));
  const Floats in = Random(kLstmFrames * kCells, 5);
  for (auto _ : state) {
    model.forward->Reset();
    model.forward->Forward(in.data(), kLstmFrames, kCells);
  }
  CountFrames(state, kLstmFrames);
}

void BM_Lstm(benchmark::State& state) {
  RunNetwork(state, Component1d(0x103, kCells, kCells, LstmBlock(LstmArrays())));
}

void BM_Blstm(benchmark::State& state) {
  Bytes block = Bytes().Int(kCells);
  for (size_t i = 0; i < 8 * kCells * (2 * kCells + 2); ++i) block.Raw(uint16_t{0x2000});
  RunNetwork(state, Component1d(0x10e, kCells, 2 * kCells, block));
}

void PlainDirection(const LstmArrays& p, const Floats& in, Floats& gates, Floats& state,
                    Floats& out) {
  constexpr int c = kCells;
  PlainProduct(in, p.input, p.input_bias, kLstmFrames, c, gates);
  float* hidden = state.data();
  float* cell = hidden + c;
  float* next = cell + c;
  for (size_t t = 0; t < kLstmFrames; ++t) {
    float* g = gates.data() + t * 4 * kCells;
    cblas_sgemv(CblasRowMajor, CblasNoTrans, 4 * c, c, 1.0F, p.recurrent.data(), c, hidden, 1, 1.0F,
                g, 1);
    for (size_t i = 0; i < 4 * kCells; ++i) g[i] += p.recurrent_bias[i];
    for (size_t i = 0; i < 4 * kCells; ++i) {
      g[i] = i / kCells == 2 ? PlainTanh(g[i]) : PlainSigmoid(g[i]);
    }
    cblas_sgbmv(CblasRowMajor, CblasNoTrans, c, c, 0, 0, 1.0F, g + c, 1, cell, 1, 0.0F, next, 1);
    cblas_sgbmv(CblasRowMajor, CblasNoTrans, c, c, 0, 0, 1.0F, g, 1, g + 2 * c, 1, 1.0F, next, 1);
    std::copy_n(next, kCells, cell);
    for (size_t i = 0; i < kCells; ++i) next[i] = PlainTanh(cell[i]);
    cblas_sgbmv(CblasRowMajor, CblasNoTrans, c, c, 0, 0, 1.0F, g + 3 * c, 1, next, 1, 0.0F, hidden,
                1);
    std::copy_n(hidden, kCells, out.data() + t * kCells);
  }
}

void RunPlain(benchmark::State& state, int directions) {
  const LstmArrays arrays;
  const Floats in = Random(kLstmFrames * kCells, 5);
  Floats gates(kLstmFrames * 4 * kCells);
  Floats out(kLstmFrames * kCells);
  for (auto _ : state) {
    for (int d = 0; d < directions; ++d) {
      Floats carried(3 * kCells, 0.0F);
      PlainDirection(arrays, in, gates, carried, out);
    }
    benchmark::DoNotOptimize(out.data());
  }
  CountFrames(state, kLstmFrames);
}

void BM_LstmPlain(benchmark::State& state) { RunPlain(state, 1); }
void BM_BlstmPlain(benchmark::State& state) { RunPlain(state, 2); }

BENCHMARK(BM_Lstm)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LstmPlain)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Blstm)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlstmPlain)->Unit(benchmark::kMicrosecond);

// Element and row kernels.

using Kernel = void (*)(const float*, size_t, size_t, float*);

void RunKernel(benchmark::State& state, Kernel kernel) {
  const auto rows = static_cast<size_t>(state.range(0));
  const auto cols = static_cast<size_t>(state.range(1));
  const Floats in = Random(rows * cols, 6, 8.0F);
  Floats out(in.size());
  for (auto _ : state) {
    kernel(in.data(), rows, cols, out.data());
    benchmark::ClobberMemory();
  }
}

template <float (*kFunction)(float)>
void PlainElements(const float* in, size_t rows, size_t cols, float* out) {
  for (size_t i = 0; i < rows * cols; ++i) out[i] = kFunction(in[i]);
}

#define KERNEL_BENCH(name, kernel, rows, cols) \
  BENCHMARK_CAPTURE(RunKernel, name, kernel)   \
      ->ArgNames({"rows", "cols"})             \
      ->Args({rows, cols})                     \
      ->Unit(benchmark::kMicrosecond)

KERNEL_BENCH(softmax, runtime::fast_softmax, 128, 100);
KERNEL_BENCH(softmax_plain, PlainSoftmax, 128, 100);
KERNEL_BENCH(log_softmax, runtime::fast_log_softmax, 128, 7000);
KERNEL_BENCH(log_softmax_plain, PlainLogSoftmax, 128, 7000);
KERNEL_BENCH(sigmoid, runtime::fast_sigmoid, 1, 65536);
KERNEL_BENCH(sigmoid_plain, PlainElements<PlainSigmoid>, 1, 65536);
KERNEL_BENCH(tanh, runtime::fast_tanh, 1, 65536);
KERNEL_BENCH(tanh_plain, PlainElements<PlainTanh>, 1, 65536);

}  // namespace
