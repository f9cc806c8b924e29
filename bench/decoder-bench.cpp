#include <benchmark/benchmark.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <memory>
#include <random>
#include <vector>

#include "ctc/beam-search.h"

namespace {

using handwriting_CTC::_beam_search_t;
using handwriting_CTC::_hist_t;
using handwriting_CTC::_index_score_node;
using handwriting_CTC::_list_score_node;
using handwriting_CTC::index_score_greater;
using handwriting_CTC::list_score_greater;

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

// The yardstick: the same search in its obvious form, a scalar scan of the row and a node of its
// own on the heap for every candidate that enters the beam.
class PlainSearch {
 public:
  PlainSearch(int beam, int classes)
      : classes_(static_cast<std::size_t>(classes)),
        labels_(static_cast<std::size_t>(beam)),
        beam_(labels_.size()),
        collected_(labels_.size(), {nullptr, -1, -FLT_MAX}) {}

  void Process(const float* frames) {
    SelectLabels(frames);
    for (std::size_t i = 0; i < beam_.size(); ++i) {
      beam_[i] = {std::make_shared<_hist_t>(labels_[i].index, nullptr), -1, labels_[i].score};
    }
    for (std::size_t t = 1; t < kFrames; ++t) {
      SelectLabels(frames + t * classes_);
      Extend();
    }
  }

 private:
  void SelectLabels(const float* row) {
    for (std::size_t i = 0; i < labels_.size(); ++i) labels_[i] = {static_cast<int>(i), row[i]};
    std::make_heap(labels_.begin(), labels_.end(), index_score_greater);
    for (std::size_t i = labels_.size(); i < classes_; ++i) {
      if (!(row[i] > labels_.front().score)) continue;
      std::pop_heap(labels_.begin(), labels_.end(), index_score_greater);
      labels_.back() = {static_cast<int>(i), row[i]};
      std::push_heap(labels_.begin(), labels_.end(), index_score_greater);
    }
  }

  void Extend() {
    for (const _list_score_node& entry : beam_) {
      for (const _index_score_node& label : labels_) {
        const float score = entry.score + label.score;
        if (!(score > collected_.front().score)) continue;
        std::pop_heap(collected_.begin(), collected_.end(), list_score_greater);
        collected_.back() = {std::make_shared<_hist_t>(label.index, entry.hist), -1, score};
        std::push_heap(collected_.begin(), collected_.end(), list_score_greater);
      }
    }
    beam_.swap(collected_);
    for (_list_score_node& entry : collected_) entry.score = -FLT_MAX;
  }

  std::size_t classes_;
  std::vector<_index_score_node> labels_;
  std::vector<_list_score_node> beam_;
  std::vector<_list_score_node> collected_;
};

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

void BM_PlainFrames(benchmark::State& state) {
  const int classes = static_cast<int>(state.range(0));
  const int beam = static_cast<int>(state.range(1));
  const std::vector<float> frames = RandomFrames(classes);
  PlainSearch search(beam, classes);
  for (auto _ : state) {
    search.Process(frames.data());
    benchmark::DoNotOptimize(search);
  }
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

}  // namespace
