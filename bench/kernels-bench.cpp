// Element and row kernels, each beside its scalar definition.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/plain-kernels.h"
#include "nnet/base/element-kernels.h"
#include "tests/support/model-builder.h"

namespace {

using handwriting::tests::PlainLogSoftmax;
using handwriting::tests::PlainSigmoid;
using handwriting::tests::PlainSoftmax;
using handwriting::tests::PlainTanh;
using handwriting::tests::Random;
using Floats = std::vector<float>;

namespace runtime = tarev::nnet::handwriting_CTC;

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
KERNEL_BENCH(softmax_narrow, runtime::fast_softmax, 128, 11);
KERNEL_BENCH(softmax_row, runtime::fast_softmax, 1, 100);
KERNEL_BENCH(softmax_plain, PlainSoftmax, 128, 100);
KERNEL_BENCH(softmax_narrow_plain, PlainSoftmax, 128, 11);
KERNEL_BENCH(log_softmax, runtime::fast_log_softmax, 128, 7000);
KERNEL_BENCH(log_softmax_plain, PlainLogSoftmax, 128, 7000);
KERNEL_BENCH(sigmoid, runtime::fast_sigmoid, 1, 65536);
KERNEL_BENCH(sigmoid_plain, PlainElements<PlainSigmoid>, 1, 65536);
KERNEL_BENCH(tanh, runtime::fast_tanh, 1, 65536);
KERNEL_BENCH(tanh_plain, PlainElements<PlainTanh>, 1, 65536);

}  // namespace
