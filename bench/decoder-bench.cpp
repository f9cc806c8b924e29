#include <benchmark/benchmark.h>

#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include "bench/plain-search.h"
#include "ctc/beam-search.h"

namespace {

using handwriting_CTC::_beam_search_t;
using handwriting_CTC::PlainSearch;

constexpr int kFrames = 200;

// Log-softmax rows of normal logits: a few likely classes and a long tail.
std::vector<float> RandomFrames(int classes) {
  std::mt19937 random(1);
  std::normal_distribution<float> logit(0.0F, 3.0F);
  std::vector<float> frames;
  for (int t = 0; t < kFrames; ++t) {
    double sum = 0.0;
    for (int c = 0; c < classes; ++c) {
      frames.push_back(logit(random));
      sum += std::exp(frames.back());
    }
    for (auto score = frames.end() - classes; score != frames.end(); ++score) {
      *score -= static_cast<float>(std::log(sum));
    }
  }
  return frames;
}

void BM_DecoderFrames(benchmark::State& state) {
  const int classes = static_cast<int>(state.range(0));
  const int beam = static_cast<int>(state.range(1));
  const std::vector<float> frames = RandomFrames(classes);
  _beam_search_t decoder(beam, beam, classes, nullptr);
  for (auto _ : state) {
    decoder.process_all_frame(frames.data(), kFrames);
    benchmark::DoNotOptimize(decoder.beam_list.data());
  }
}

// The yardstick.
void BM_PlainFrames(benchmark::State& state) {
  const int classes = static_cast<int>(state.range(0));
  const int beam = static_cast<int>(state.range(1));
  const std::vector<float> frames = RandomFrames(classes);
  PlainSearch search(beam, beam, classes);
  for (auto _ : state) {
    search.First(frames.data());
    for (int t = 1; t < kFrames; ++t) search.Next(frames.data() + t * classes);
    benchmark::DoNotOptimize(search);
  }
}

// A whole input of so many frames, a short one over and over.
void BM_DecoderInput(benchmark::State& state) {
  constexpr int kClasses = 11;
  const auto count = static_cast<int>(state.range(0));
  const std::vector<float> frames = RandomFrames(kClasses);
  _beam_search_t decoder(10, 10, kClasses, nullptr);
  std::vector<int> output(std::size_t{10} * static_cast<std::size_t>(count));
  std::vector<int> lengths(10);
  for (auto _ : state) {
    decoder.process_first_frame(frames.data());
    for (int t = 1; t < count; ++t) decoder.process_one_frame(&frames[t % kFrames * kClasses]);
    benchmark::DoNotOptimize(decoder.get_CTC_result(output.data(), lengths.data()));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}

void BM_DecoderResult(benchmark::State& state) {
  const int classes = static_cast<int>(state.range(0));
  const int beam = static_cast<int>(state.range(1));
  const std::vector<float> frames = RandomFrames(classes);
  _beam_search_t decoder(beam, beam, classes, nullptr);
  decoder.process_all_frame(frames.data(), kFrames);
  std::vector<int> output(static_cast<std::size_t>(beam) * kFrames);
  std::vector<int> lengths(static_cast<std::size_t>(beam));
  for (auto _ : state) {
    benchmark::DoNotOptimize(decoder.get_CTC_result(output.data(), lengths.data()));
    benchmark::ClobberMemory();
  }
}

void Shapes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"classes", "beam"})->Unit(benchmark::kMicrosecond);
  bench->Args({100, 10})->Args({100, 100})->Args({7000, 1})->Args({7000, 10});
}

BENCHMARK(BM_DecoderFrames)->Apply(Shapes);
BENCHMARK(BM_PlainFrames)->Apply(Shapes);
BENCHMARK(BM_DecoderResult)->Apply(Shapes);
BENCHMARK(BM_DecoderInput)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace
