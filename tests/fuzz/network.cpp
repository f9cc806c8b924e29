// Any bytes as a network, binary or text, run in chunks: must end in a result or an exception.
//
//   scripts/setup --fuzz && scripts/build fuzz && build/fuzz/fuzz_network CORPUS

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include <loguru.hpp>

#include "nnet/runtime/nnet-nnet.h"

namespace {

namespace runtime = tarev::nnet::handwriting_CTC;

struct CloseFile {
  void operator()(FILE* fp) const { std::fclose(fp); }
};

// How the network is called; the bytes after it are the model.
struct Plan {
  uint8_t text;
  uint8_t dim;
  uint8_t channels;
  uint8_t chunks[3];
  uint8_t mark_last;
};

bool ReadNetwork(runtime::Nnet& nnet, FILE* fp, bool text) {
  if (!text) return runtime::ReadNnet(nnet, fp);
  while (auto* layer = runtime::Component::Read(fp, false)) nnet.layers.emplace_back(layer);
  return true;
}

void Write(const runtime::Nnet& nnet) {
  const std::unique_ptr<FILE, CloseFile> sink(std::fopen("/dev/null", "wb"));
  for (const auto& layer : nnet.layers) {
    layer->Write(sink.get());
    layer->WriteFixed(sink.get());
  }
}

void Run(runtime::Nnet& nnet, const Plan& plan) {
  runtime::NnetForward forward(&nnet);
  const int dim = plan.dim % 33;
  const int channels = 1 + plan.channels % 4;
  for (int round = 0; round < 2; ++round) {
    forward.Reset();
    int call = 0;
    for (const uint8_t chunk : plan.chunks) {
      const int frames = chunk % 40;
      // Exactly as much as the call may read.
      std::vector<float> in(static_cast<size_t>(frames * dim * channels), 0.5F);
      const bool last = ++call == 3 && plan.mark_last % 2 == 1;
      forward.Propagate(in.data(), frames, dim, last ? -call : call, channels);
      volatile float sum = 0.0F;
      const auto floats = forward.OutputShape().floats();
      for (uint64_t i = 0; i < floats; ++i) sum = sum + forward.Output()[i];
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  Plan plan;
  if (size <= sizeof(plan)) return 0;
  std::copy_n(data, sizeof(plan), reinterpret_cast<uint8_t*>(&plan));
  std::vector<uint8_t> model(data + sizeof(plan), data + size);
  const std::unique_ptr<FILE, CloseFile> file(fmemopen(model.data(), model.size(), "rb"));
  try {
    runtime::Nnet nnet;
    if (ReadNetwork(nnet, file.get(), plan.text % 4 == 3)) {
      Write(nnet);
      Run(nnet, plan);
      Write(nnet);
    }
  } catch (const std::exception&) {
    // Refused: as good an end as any.
  }
  return 0;
}
