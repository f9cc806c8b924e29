// What the machine can do at most: fused multiply-adds from registers, and reads from each level of
// memory. The other rows are measured against these.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>

#include <hwy/aligned_allocator.h>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "bench/limits-bench.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace handwriting::bench {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

constexpr size_t kChains = 10;

// `steps` multiply-adds in each of ten chains; returns the number of floats that they made.
size_t MultiplyAdds(size_t steps, float factor, float* result) {
  const hn::ScalableTag<float> d;
  const auto x = hn::Set(d, factor);
  hn::Vec<decltype(d)> sums[kChains];
#pragma GCC unroll 10
  for (size_t c = 0; c < kChains; ++c) sums[c] = hn::Set(d, static_cast<float>(c));
  for (size_t i = 0; i < steps; ++i) {
#pragma GCC unroll 10
    for (size_t c = 0; c < kChains; ++c) sums[c] = hn::MulAdd(sums[c], x, x);
  }
  float total = 0.0F;
  for (size_t c = 0; c < kChains; ++c) total += hn::GetLane(sums[c]);
  *result = total;
  return steps * kChains * hn::Lanes(d);
}

// Eight vectors a step, each added to a sum of its own.
float Read(const float* values, size_t count) {
  constexpr size_t kSums = 8;
  const hn::ScalableTag<float> d;
  const size_t lanes = hn::Lanes(d);
  hn::Vec<decltype(d)> sums[kSums];
#pragma GCC unroll 8
  for (size_t s = 0; s < kSums; ++s) sums[s] = hn::Zero(d);
  for (size_t i = 0; i + kSums * lanes <= count; i += kSums * lanes) {
#pragma GCC unroll 8
    for (size_t s = 0; s < kSums; ++s) {
      sums[s] = hn::Add(sums[s], hn::LoadU(d, values + i + s * lanes));
    }
  }
  float total = 0.0F;
#pragma GCC unroll 8
  for (size_t s = 0; s < kSums; ++s) total += hn::GetLane(sums[s]);
  return total;
}

}  // namespace HWY_NAMESPACE
}  // namespace handwriting::bench
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace handwriting::bench {
namespace {

HWY_EXPORT(MultiplyAdds);
HWY_EXPORT(Read);

void BM_LimitOfArithmetic(benchmark::State& state) {
  size_t floats = 0;
  float result = 0.0F;
  for (auto _ : state) {
    floats += HWY_DYNAMIC_DISPATCH(MultiplyAdds)(10000, 0.5F, &result);
    benchmark::DoNotOptimize(result);
  }
  state.counters["FLOP/s"] =
      benchmark::Counter(2.0 * static_cast<double>(floats), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LimitOfArithmetic);

void BM_LimitOfReading(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0)) * 1024 / sizeof(float);
  const auto values = hwy::AllocateAligned<float>(count);
  std::fill_n(values.get(), count, 1.0F);
  for (auto _ : state) {
    benchmark::DoNotOptimize(HWY_DYNAMIC_DISPATCH(Read)(values.get(), count));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * 1024);
}
BENCHMARK(BM_LimitOfReading)->ArgName("KiB")->Arg(16)->Arg(512)->Arg(4096)->Arg(65536);

}  // namespace
}  // namespace handwriting::bench
#endif  // HWY_ONCE
