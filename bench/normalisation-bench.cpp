#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "bench/plain-kernels.h"
#include "nnet/dense/highway.h"
#include "nnet/dense/normalisation.h"
#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::PlainLayerNorm;
using handwriting::tests::Random;
using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::Highway;
using tarev::nnet::handwriting_CTC::LayerNorm;
using tarev::nnet::handwriting_CTC::NormalizeComponent;
using tarev::nnet::handwriting_CTC::ParameterRef;
using tarev::nnet::handwriting_CTC::Refusal;
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

void BM_Highway(benchmark::State& state) {
  Highway layer(kDim, kDim);
  layer.dim = kDim;
  FillParameters(layer);
  RunFrames(state, layer);
}
BENCHMARK(BM_Highway)->Arg(1)->Arg(kFrames);

}  // namespace
