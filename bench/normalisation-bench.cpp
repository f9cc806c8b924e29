#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <cblas.h>

#include "bench/plain-kernels.h"
#include "nnet/dense/highway.h"
#include "nnet/dense/normalisation.h"
#include "nnet/recurrent/gru.h"
#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::PlainLayerNorm;
using handwriting::tests::PlainSigmoid;
using handwriting::tests::PlainTanh;
using handwriting::tests::Random;
using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::Gru;
using tarev::nnet::handwriting_CTC::Highway;
using tarev::nnet::handwriting_CTC::LayerNorm;
using tarev::nnet::handwriting_CTC::NormalizeComponent;
using tarev::nnet::handwriting_CTC::ParameterRef;
using tarev::nnet::handwriting_CTC::Refusal;
using tarev::nnet::handwriting_CTC::StoredValues;
using tarev::nnet::handwriting_CTC::WeightMatrix;

constexpr int kFrames = 128;
constexpr int kDim = 256;
constexpr std::size_t kFloats = std::size_t{kFrames} * kDim;

// The fields are set; derives the shapes from them and fills the arrays.
void FillParameters(Component& layer) {
  Refusal why;
  layer.Validate(why);
  std::uint64_t bytes = 0;
  for (const ParameterRef& parameter : layer.MutableParameters()) {
    const std::vector<float> values = Random(parameter.count(), 1, 0.1F);
    if (parameter.weights != nullptr) {
      parameter.weights->Allocate(WeightMatrix::Form::kSingle, parameter.rows, parameter.cols,
                                  bytes);
      parameter.weights->Put(0, parameter.rows, values.data());
    } else {
      parameter.array->Allocate(parameter.rows, parameter.cols, bytes);
      std::ranges::copy(values, parameter.array->data());
    }
  }
}

void RunFrames(benchmark::State& state, Component& layer) {
  const int frames = static_cast<int>(state.range(0));
  const std::vector<float> in = Random(kFloats, 1, 1.0F);
  std::vector<float> out(kFloats);
  int width = kDim;
  layer.Reserve(frames);
  for (auto _ : state) {
    layer.Propagate(in.data(), frames, kDim, out.data(), &width, 1);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}

// The yardsticks: each layer step by step in its obvious form.

// One frame of a GRU after its input product.
void PlainGruFrame(const std::vector<float>& weights, const float* bias, float* gate, float* hidden,
                   float* scratch) {
  const auto matvec = [hidden](const float* matrix, int rows, float beta, float* y) {
    cblas_sgemv(CblasRowMajor, CblasNoTrans, rows, kDim, 1.0F, matrix, kDim, hidden, 1, beta, y, 1);
  };
  const auto multiply_add = [](const float* a, const float* b, float alpha, float* y) {
    cblas_sgbmv(CblasRowMajor, CblasNoTrans, kDim, kDim, 0, 0, alpha, a, 1, b, 1, 1.0F, y, 1);
  };
  float* candidate = gate + 2 * kDim;
  matvec(weights.data(), 2 * kDim, 1.0F, gate);
  for (int i = 0; i < 2 * kDim; ++i) gate[i] = PlainSigmoid(gate[i] + bias[i]);
  matvec(weights.data() + 2 * kDim * kDim, kDim, 0.0F, scratch);
  for (int i = 0; i < kDim; ++i) scratch[i] += bias[2 * kDim + i];
  multiply_add(gate, scratch, 1.0F, candidate);
  for (int i = 0; i < kDim; ++i) candidate[i] = PlainTanh(candidate[i]);
  multiply_add(gate + kDim, candidate, -1.0F, candidate);
  multiply_add(gate + kDim, hidden, 1.0F, candidate);
  std::copy_n(candidate, kDim, hidden);
}

void BM_LayerNorm(benchmark::State& state) {
  LayerNorm layer(kDim, kDim);
  layer.norm_dim = kDim;
  layer.epsilon = 1e-5F;
  FillParameters(layer);
  RunFrames(state, layer);
}
BENCHMARK(BM_LayerNorm)->Arg(1)->Arg(kFrames);

void BM_PlainLayerNorm(benchmark::State& state) {
  const std::vector<float> in = Random(kFloats, 1, 1.0F);
  const std::vector<float> parameters = Random(2 * kDim, 1, 0.1F);
  std::vector<float> out(kFloats);
  for (auto _ : state) {
    for (std::size_t start = 0; start < std::size_t(state.range(0)) * kDim; start += kDim) {
      PlainLayerNorm(&in[start], kDim, parameters.data(), &parameters[kDim], 1e-5F, &out[start]);
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PlainLayerNorm)->Arg(1)->Arg(kFrames);

void BM_NormalizeComponent(benchmark::State& state) {
  NormalizeComponent layer(kDim, kDim);
  RunFrames(state, layer);
}
BENCHMARK(BM_NormalizeComponent)->Arg(1)->Arg(kFrames);

void BM_Gru(benchmark::State& state) {
  Gru layer(kDim, kDim);
  layer.cell_dim = kDim;
  FillParameters(layer);
  RunFrames(state, layer);
}
BENCHMARK(BM_Gru)->Arg(1)->Arg(kFrames);

void BM_PlainGru(benchmark::State& state) {
  Gru layer(kDim, kDim);
  layer.cell_dim = kDim;
  FillParameters(layer);
  const int frames = static_cast<int>(state.range(0));
  const std::vector<float> in = Random(kFloats, 1, 1.0F);
  const std::vector<float> input_weights = StoredValues(layer.Parameters()[0]);
  const std::vector<float> recurrent_weights = StoredValues(layer.Parameters()[1]);
  std::vector<float> gates(3 * kFloats);
  std::vector<float> out(kFloats);
  std::vector<float> hidden(kDim);
  std::vector<float> scratch(kDim);
  for (auto _ : state) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, frames, 3 * kDim, kDim, 1.0F, in.data(),
                kDim, input_weights.data(), kDim, 0.0F, gates.data(), 3 * kDim);
    for (int t = 0; t < frames; ++t) {
      float* gate = gates.data() + std::size_t{3 * kDim} * static_cast<std::size_t>(t);
      for (int i = 0; i < 3 * kDim; ++i) gate[i] += layer.input_bias[static_cast<std::size_t>(i)];
      PlainGruFrame(recurrent_weights, layer.recurrent_bias.data(), gate, hidden.data(),
                    scratch.data());
      std::ranges::copy(hidden, out.begin() + std::ptrdiff_t{t} * kDim);
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PlainGru)->Arg(1)->Arg(kFrames);

void BM_Highway(benchmark::State& state) {
  Highway layer(kDim, kDim);
  layer.dim = kDim;
  FillParameters(layer);
  RunFrames(state, layer);
}
BENCHMARK(BM_Highway)->Arg(1)->Arg(kFrames);

}  // namespace
