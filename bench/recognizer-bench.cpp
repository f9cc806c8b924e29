// The whole recognizer through its C functions: short and long inputs, the first call after create,
// and the time that a model takes to load beside that of reading its file.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "api/handwriting_forward.h"
#include "bench/sample-layers.h"
#include "tools/npy.h"

namespace {

using handwriting::bench::AffineLayer;
using handwriting::bench::BlstmLayer;
using handwriting::bench::LstmLayer;
using handwriting::bench::Size;
using handwriting::tests::Bytes;
using handwriting::tests::Component1d;
using handwriting::tests::File;
using handwriting::tests::FileOf;
using handwriting::tests::Floats;
using handwriting::tests::Network;
using handwriting::tests::Random;

constexpr int kFeatures = 8;
constexpr int kBeam = 10;

// `layers` bidirectional layers, then scores for the classes.
Bytes RecognizerModel(int layers, int cells, int classes) {
  std::vector<Bytes> first;
  for (int i = 0; i < layers; ++i) {
    first.push_back(BlstmLayer(i == 0 ? kFeatures : 2 * cells, cells));
  }
  return Network(first).Add(
      Network({AffineLayer(2 * cells, classes), Component1d(0x204, classes, classes)}));
}

class Recognizer {
 public:
  Recognizer(const Bytes& model, int frames)
      : Recognizer(FileOf(model), Random(Size(frames) * kFeatures, 1), frames) {}
  Recognizer(File model, Floats features, int frames)
      : frames_(frames),
        features_(std::move(features)),
        labels_(Size(frames) * kBeam),
        file_(std::move(model)),
        handle_(handwriting_forward_create(file_.get(), frames, kBeam)) {
    if (handle_ == nullptr) std::abort();
  }
  ~Recognizer() { handwriting_forward_destory(handle_); }
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  void Process() {
    int lengths[kBeam];
    if (handwriting_forward_process(handle_, features_.data(), frames_, kFeatures, labels_.data(),
                                    lengths) < 0) {
      std::abort();
    }
  }

 private:
  int frames_;
  Floats features_;
  std::vector<int> labels_;
  File file_;
  void* handle_;
};

// Layers, cells, classes, frames.
void BM_Recognizer(benchmark::State& state) {
  const auto frames = static_cast<int>(state.range(3));
  Recognizer recognizer(
      RecognizerModel(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
                      static_cast<int>(state.range(2))),
      frames);
  for (auto _ : state) recognizer.Process();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * frames);
}
BENCHMARK(BM_Recognizer)
    ->ArgNames({"layers", "cells", "classes", "frames"})
    ->Unit(benchmark::kMicrosecond)
    ->Args({2, 48, 11, 100})
    ->Args({2, 48, 11, 1000})
    ->Args({2, 48, 11, 100000})
    ->Args({5, 256, 100, 100})
    ->Args({5, 256, 100, 1000})
    ->Args({5, 256, 100, 10000});

// The shipped model on 50 frames of the shipped lines: what bench/serve sends.
void BM_ShippedLine(benchmark::State& state) {
  constexpr int kFrames = 50;
  const std::string folder = HANDWRITING_SOURCE_DIR "/examples/digits/";
  Floats features;
  for (int line = 1; features.size() < kFrames * kFeatures; ++line) {
    const std::string name = "lines/line-0" + std::to_string(line) + ".npy";
    const Floats values = handwriting::tools::ReadNpy(folder + name).values;
    features.insert(features.end(), values.begin(), values.end());
  }
  Recognizer recognizer(File(std::fopen((folder + "model.bin").c_str(), "rb")), features, kFrames);
  for (auto _ : state) recognizer.Process();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
}
BENCHMARK(BM_ShippedLine)->Unit(benchmark::kMicrosecond);

// The first call after create, or a later one.
void TimeCall(benchmark::State& state, int calls_before) {
  const Bytes model = RecognizerModel(2, 48, 11);
  for (auto _ : state) {
    Recognizer recognizer(model, 100);
    for (int i = 0; i < calls_before; ++i) recognizer.Process();
    const auto start = std::chrono::steady_clock::now();
    recognizer.Process();
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count());
  }
}
BENCHMARK_CAPTURE(TimeCall, first, 0)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(TimeCall, later, 3)->UseManualTime()->Unit(benchmark::kMicrosecond);

// About 50 MB of one layer class.
Bytes Repeated(const Bytes& layer, int count) {
  return Network(std::vector<Bytes>(Size(count), layer));
}

Bytes ConvolutionModel(int code, const Bytes& fields) {
  constexpr int kChannels = 512;
  const Bytes layer = Component1d(
      code, kChannels, kChannels,
      Bytes().Add(fields).Floats(Random(Size(3 * kChannels * kChannels + kChannels), 1, 0.1F)));
  return Repeated(layer, 16);
}

Bytes LstmModel() { return Repeated(LstmLayer(512), 6); }
Bytes BlstmModel() { return Repeated(BlstmLayer(1024, 512), 4); }
Bytes Conv1dModel() { return ConvolutionModel(0x307, Bytes().Ints({3, 1, 1, 1, 1, 1, 1})); }
Bytes ConvTranspose1dModel() {
  return ConvolutionModel(0x308, Bytes().Ints({3, 1, 1, 1, 0, 1, 1, 1}));
}

template <Bytes (*kModel)()>
void BM_Load(benchmark::State& state) {
  const Bytes model = kModel();
  const File file = FileOf(model);
  for (auto _ : state) {
    std::rewind(file.get());
    handwriting::tests::runtime::Nnet net;
    if (!ReadNnet(net, file.get())) std::abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * model.str().size()));
}

template <Bytes (*kModel)()>
void BM_LoadReading(benchmark::State& state) {
  const Bytes model = kModel();
  const File file = FileOf(model);
  std::string bytes(model.str().size(), '\0');
  for (auto _ : state) {
    std::rewind(file.get());
    if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) std::abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

#define LOAD_BENCH(name, model)                                                    \
  BENCHMARK(BM_Load<model>)->Name("BM_Load/" name)->Unit(benchmark::kMillisecond); \
  BENCHMARK(BM_LoadReading<model>)->Name("BM_LoadReading/" name)->Unit(benchmark::kMillisecond)

LOAD_BENCH("Lstm", LstmModel);
LOAD_BENCH("Blstm", BlstmModel);
LOAD_BENCH("Conv1d", Conv1dModel);
LOAD_BENCH("ConvTranspose1d", ConvTranspose1dModel);

}  // namespace
