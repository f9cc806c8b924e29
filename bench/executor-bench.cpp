// What a call costs beside the work of its layers: a network of layers that do next to nothing on
// one value, and the same layers called one after another.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::Affine;
using handwriting::tests::Bytes;
using handwriting::tests::Component1d;
using handwriting::tests::Model;
using handwriting::tests::Network;

constexpr int64_t kLayers = 64;

Bytes ManyLayers() {
  std::vector<Bytes> layers;
  for (int64_t i = 0; i < kLayers / 2; ++i) {
    layers.push_back(Affine(1, 1, {0.5F}, {0.5F}));
    layers.push_back(Component1d(0x203, 1, 1));
  }
  return Network(layers);
}

void CountLayers(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kLayers);
}

void BM_Executor(benchmark::State& state) {
  Model model(ManyLayers());
  const float in = 1.0F;
  for (auto _ : state) model.forward->Forward(&in, 1, 1);
  CountLayers(state);
}
BENCHMARK(BM_Executor);

void BM_ExecutorLayersAlone(benchmark::State& state) {
  const Model model(ManyLayers());
  float values[2] = {1.0F, 0.0F};
  for (auto _ : state) {
    for (size_t i = 0; i < model.nnet.layers.size(); ++i) {
      model.nnet.layers[i]->PropagateFnc(&values[i % 2], 1, 1, &values[1 - i % 2], 1);
    }
  }
  CountLayers(state);
}
BENCHMARK(BM_ExecutorLayersAlone);

}  // namespace
