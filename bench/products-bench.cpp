// Layers that multiply rows with weights, as floats and as 8-bit codes, beside the plain form of
// the same work: whole BLAS calls on the rows of the file, scalar gates.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include <cblas.h>

#include "bench/plain-kernels.h"
#include "bench/sample-layers.h"

namespace {

using handwriting::bench::AffineLayer;
using handwriting::bench::BlstmLayer;
using handwriting::bench::Cell;
using handwriting::bench::Direction;
using handwriting::bench::GruLayer;
using handwriting::bench::LstmLayer;
using handwriting::bench::ProjectedLayer;
using handwriting::bench::Size;
using handwriting::tests::Bytes;
using handwriting::tests::FixedWrittenBy;
using handwriting::tests::Floats;
using handwriting::tests::Model;
using handwriting::tests::Network;
using handwriting::tests::PlainSigmoid;
using handwriting::tests::PlainTanh;
using handwriting::tests::Random;
using handwriting::tests::ReadLayer;

[[maybe_unused]] const bool kOneThread = [] {
  openblas_set_num_threads(1);
  return true;
}();

// Times a network of one layer on new inputs of so many frames.
void RunLayer(benchmark::State& state, const Bytes& component, int dim, int64_t frames) {
  Model model(Network({component}));
  const Floats in = Random(Size(dim) * static_cast<size_t>(frames), 5);
  for (auto _ : state) {
    model.forward->Reset();
    model.forward->Forward(in.data(), frames, dim);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * frames);
}

// The same layer as 8-bit codes.
Bytes FixedTwin(const Bytes& component) { return Bytes(FixedWrittenBy(*ReadLayer(component))); }

// out (frames x outputs) = in weights' + bias.
void PlainProduct(const Floats& in, const Floats& weights, const Floats& bias, int frames, int dim,
                  Floats& out) {
  const auto outputs = static_cast<int>(bias.size());
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, frames, outputs, dim, 1.0F, in.data(), dim,
              weights.data(), dim, 0.0F, out.data(), outputs);
  for (size_t i = 0; i < Size(frames) * bias.size(); ++i) out[i] += bias[i % bias.size()];
}

// y += weights x.
void PlainRecurrence(const Floats& weights, const float* x, int outputs, int dim, float* y) {
  cblas_sgemv(CblasRowMajor, CblasNoTrans, outputs, dim, 1.0F, weights.data(), dim, x, 1, 1.0F, y,
              1);
}

// y = a x + beta y, value by value.
void PlainMultiply(const float* a, const float* x, int n, float beta, float* y) {
  cblas_sgbmv(CblasRowMajor, CblasNoTrans, n, n, 0, 0, 1.0F, a, 1, x, 1, beta, y, 1);
}

// Affine: inputs, outputs, frames.

void BM_Affine(benchmark::State& state) {
  const auto in = static_cast<int>(state.range(0));
  RunLayer(state, AffineLayer(in, static_cast<int>(state.range(1))), in, state.range(2));
}

void BM_AffineFixed(benchmark::State& state) {
  const auto in = static_cast<int>(state.range(0));
  RunLayer(state, FixedTwin(AffineLayer(in, static_cast<int>(state.range(1)))), in, state.range(2));
}

void BM_AffinePlain(benchmark::State& state) {
  const auto dim = static_cast<int>(state.range(0));
  const auto outputs = static_cast<int>(state.range(1));
  const auto frames = static_cast<int>(state.range(2));
  const Floats bias = Random(Size(outputs), 1);
  const Floats weights = Random(Size(dim) * Size(outputs), 2);
  const Floats in = Random(Size(dim) * Size(frames), 3);
  Floats out(Size(outputs) * Size(frames));
  for (auto _ : state) {
    PlainProduct(in, weights, bias, frames, dim, out);
    benchmark::ClobberMemory();
  }
}

void AffineSizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"in", "out", "frames"})->Unit(benchmark::kMicrosecond);
  for (const int dim : {128, 256, 512, 1024}) {
    for (const int frames : {1, 16, 128, 512}) bench->Args({dim, dim, frames});
  }
  for (const int frames : {1, 16}) bench->Args({512, 7000, frames});
}
BENCHMARK(BM_Affine)->Apply(AffineSizes);
BENCHMARK(BM_AffineFixed)->Apply(AffineSizes);
BENCHMARK(BM_AffinePlain)->Apply(AffineSizes);

// Recurrent layers of so many cells on as many inputs: cells, frames. A projection halves the
// cells.

Bytes SquareBlstm(int cells) { return BlstmLayer(cells, cells); }

template <Bytes (*kLayer)(int)>
void RunRecurrent(benchmark::State& state) {
  const auto cells = static_cast<int>(state.range(0));
  RunLayer(state, kLayer(cells), cells, state.range(1));
}

template <Bytes (*kLayer)(int)>
void RunRecurrentFixed(benchmark::State& state) {
  const auto cells = static_cast<int>(state.range(0));
  RunLayer(state, FixedTwin(kLayer(cells)), cells, state.range(1));
}

// One frame after the input product, in the obvious steps; `state` holds output, cell and scratch.
void PlainLstmFrame(const Direction& d, int c, float* gate, float* state) {
  float* cell = state + c;
  float* next = cell + c;
  PlainRecurrence(d.recurrent, state, d.gates, d.outputs, gate);
  for (int i = 0; i < d.gates; ++i) gate[i] += d.recurrent_bias[Size(i)];
  for (int i = 0; i < d.gates; ++i) {
    gate[i] = i / c == 2 ? PlainTanh(gate[i]) : PlainSigmoid(gate[i]);
  }
  PlainMultiply(gate + c, cell, c, 0.0F, next);
  PlainMultiply(gate, gate + 2 * c, c, 1.0F, next);
  std::copy_n(next, c, cell);
  for (int i = 0; i < c; ++i) next[i] = PlainTanh(cell[i]);
  PlainMultiply(gate + 3 * c, next, c, 0.0F, state);
}

void PlainProjectedFrame(const Direction& d, int c, float* gate, float* state) {
  float* cell = state + c;
  float* next = cell + c;
  PlainRecurrence(d.recurrent, state, d.gates, d.outputs, gate);
  PlainMultiply(d.peepholes.data(), cell, c, 1.0F, gate + c);
  PlainMultiply(d.peepholes.data() + c, cell, c, 1.0F, gate + 2 * c);
  for (int i = 0; i < c; ++i) gate[i] = PlainTanh(gate[i]);
  for (int i = c; i < 3 * c; ++i) gate[i] = PlainSigmoid(gate[i]);
  PlainMultiply(gate + c, gate, c, 0.0F, next);
  PlainMultiply(gate + 2 * c, cell, c, 1.0F, next);
  std::copy_n(next, c, cell);
  PlainMultiply(d.peepholes.data() + 2 * c, cell, c, 1.0F, gate + 3 * c);
  for (int i = 3 * c; i < 4 * c; ++i) gate[i] = PlainSigmoid(gate[i]);
  for (int i = 0; i < c; ++i) next[i] = PlainTanh(cell[i]);
  PlainMultiply(gate + 3 * c, next, c, 0.0F, gate);
  std::ranges::copy(d.projection_bias, state);
  PlainRecurrence(d.projection, gate, d.outputs, c, state);
}

void PlainGruFrame(const Direction& d, int c, float* gate, float* state) {
  float* scratch = state + c;
  std::fill_n(scratch, d.gates, 0.0F);
  PlainRecurrence(d.recurrent, state, d.gates, c, scratch);
  for (int i = 0; i < d.gates; ++i) scratch[i] += d.recurrent_bias[Size(i)];
  for (int i = 0; i < 2 * c; ++i) gate[i] = PlainSigmoid(gate[i] + scratch[i]);
  float* candidate = gate + 2 * c;
  PlainMultiply(gate, scratch + 2 * c, c, 1.0F, candidate);
  for (int i = 0; i < c; ++i) candidate[i] = PlainTanh(candidate[i]);
  for (int i = 0; i < c; ++i) {
    state[i] = (candidate[i] - gate[c + i] * candidate[i]) + gate[c + i] * state[i];
  }
}

using PlainFrame = void (*)(const Direction&, int, float*, float*);

template <Cell kCell, PlainFrame kFrame, int kDirections>
void RunRecurrentPlain(benchmark::State& state) {
  const auto c = static_cast<int>(state.range(0));
  const auto frames = static_cast<int>(state.range(1));
  const Direction d(kCell, c, c);
  const Floats in = Random(Size(frames) * Size(c), 5);
  Floats gates(Size(frames) * Size(d.gates));
  Floats out(Size(frames) * Size(d.outputs));
  for (auto _ : state) {
    for (int direction = 0; direction < kDirections; ++direction) {
      Floats carried(5 * Size(c), 0.0F);
      PlainProduct(in, d.input, d.input_bias, frames, c, gates);
      for (int t = 0; t < frames; ++t) {
        kFrame(d, c, gates.data() + Size(t) * Size(d.gates), carried.data());
        std::copy_n(carried.data(), d.outputs, out.data() + Size(t) * Size(d.outputs));
      }
    }
    benchmark::ClobberMemory();
  }
}

void RecurrentSizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"cells", "frames"})->Unit(benchmark::kMicrosecond);
  for (const int cells : {48, 128, 256, 512}) bench->Args({cells, 128});
  bench->Args({512, 16});
}

#define RECURRENT_BENCH(name, layer, cell, frame, directions)                           \
  BENCHMARK(RunRecurrent<layer>)->Name("BM_" name)->Apply(RecurrentSizes);              \
  BENCHMARK(RunRecurrentFixed<layer>)->Name("BM_" name "Fixed")->Apply(RecurrentSizes); \
  BENCHMARK((RunRecurrentPlain<cell, frame, directions>))                               \
      ->Name("BM_" name "Plain")                                                        \
      ->Apply(RecurrentSizes)

RECURRENT_BENCH("Lstm", LstmLayer, Cell::kLstm, PlainLstmFrame, 1);
RECURRENT_BENCH("Blstm", SquareBlstm, Cell::kLstm, PlainLstmFrame, 2);
RECURRENT_BENCH("LstmProjected", ProjectedLayer, Cell::kProjected, PlainProjectedFrame, 1);
RECURRENT_BENCH("Gru", GruLayer, Cell::kGru, PlainGruFrame, 1);

}  // namespace
