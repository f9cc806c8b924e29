// Convolutions along the frame axis, beside the scalar loop that defines them. Run with
//   handwriting_bench --benchmark_filter=Conv

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "nnet/base/element-kernels.h"
#include "nnet/base/nnet-util.h"
#include "tests/support/conv1d-sample.h"

namespace {

using handwriting::tests::Component1d;
using handwriting::tests::ConvBlock;
using handwriting::tests::Layer;
using handwriting::tests::Random;
using handwriting::tests::ReadLayer;
using handwriting::tests::Shape;
using tarev::nnet::handwriting_CTC::FloatArray;
using tarev::nnet::handwriting_CTC::vector_target_name;

struct Problem {
  int channels;
  int frames;
  int kernel_size;
  int groups;
  std::vector<float> kernel;  // in compute order: output channel, tap, input channel of the group
  // Aligned as the executor's buffers are: where they happen to lie costs up to a third.
  FloatArray in;
  FloatArray out;

  Problem(int channels_arg, int frames_arg, int kernel_size_arg, int groups_arg)
      : channels(channels_arg),
        frames(frames_arg),
        kernel_size(kernel_size_arg),
        groups(groups_arg),
        kernel(Random(static_cast<size_t>(channels * (channels / groups) * kernel_size), 1)),
        in(ArrayOf(Random(static_cast<size_t>(channels * frames), 2))),
        out(ArrayOf(std::vector<float>(in.size()))) {}

  static FloatArray ArrayOf(const std::vector<float>& values) {
    FloatArray array;
    array.Grow(values.size());
    std::ranges::copy(values, array.data());
    return array;
  }

  double Operations() const { return 2.0 * frames * channels * (channels / groups) * kernel_size; }
};

// The sum of every output value in its order, one product at a time, the taps centred.
void PlainConvolve(Problem& p) {
  const int per_group = p.channels / p.groups;
  for (int o = 0; o < p.channels; ++o) {
    const float* weights = p.kernel.data() + o * p.kernel_size * per_group;
    const float* in = p.in.data() + o / per_group * per_group;
    for (int t = 0; t < p.frames; ++t) {
      float sum = 0.0F;
      for (int j = 0; j < p.kernel_size; ++j) {
        const int frame = t + j - p.kernel_size / 2;
        if (frame < 0 || frame >= p.frames) continue;
        for (int c = 0; c < per_group; ++c) {
          sum += weights[j * per_group + c] * in[frame * p.channels + c];
        }
      }
      p.out[static_cast<size_t>(t * p.channels + o)] = sum;
    }
  }
}

Layer LayerFor(const Problem& p) {
  const int half = p.kernel_size / 2;
  const Shape shape = {p.channels, p.channels, p.kernel_size, 1, half, half, 1, p.groups, false};
  return ReadLayer(Component1d(0x307, p.channels, p.channels, ConvBlock(shape, {p.kernel, {}})));
}

void Report(benchmark::State& state, const Problem& p) {
  state.counters["GFLOP/s"] =
      benchmark::Counter(p.Operations() * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  state.SetLabel(vector_target_name());
}

Problem ProblemOf(const benchmark::State& state) {
  return {static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
          static_cast<int>(state.range(2)), static_cast<int>(state.range(3))};
}

void BM_ConvLayer(benchmark::State& state) {
  Problem p = ProblemOf(state);
  const Layer layer = LayerFor(p);
  for (auto _ : state) {
    layer->PropagateFnc(p.in.data(), p.frames, p.channels, p.out.data(), 1);
    benchmark::ClobberMemory();
  }
  Report(state, p);
}

void BM_ConvPlainLoop(benchmark::State& state) {
  Problem p = ProblemOf(state);
  for (auto _ : state) {
    PlainConvolve(p);
    benchmark::ClobberMemory();
  }
  Report(state, p);
}

// Dense with three taps, and depthwise with three and five.
void Shapes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"channels", "frames", "taps", "groups"})->Unit(benchmark::kMicrosecond);
  for (const int frames : {16, 128, 1024}) {
    for (const int channels : {64, 128, 256}) bench->Args({channels, frames, 3, 1});
    for (const int taps : {3, 5}) bench->Args({128, frames, taps, 128});
  }
}

BENCHMARK(BM_ConvLayer)->Apply(Shapes);
BENCHMARK(BM_ConvPlainLoop)->Apply(Shapes);

}  // namespace
