// Any bytes as a binary network, run in chunks whose last one may be marked as such: every call ends
// with a result or an exception, and the same chunks once more give the same bits. Layers write what
// reads as the same, and layers whose weights are mapped read nothing else.

#include <bit>
#include <exception>
#include <optional>
#include <string_view>

#include <loguru.hpp>

#include "nnet/runtime/nnet-nnet.h"
#include "tests/fuzz/input.h"

namespace {

using namespace handwriting::fuzz;  // NOLINT(google-build-using-namespace)
namespace runtime = tarev::nnet::handwriting_CTC;

// Maps the weights of an affine layer, exactly as many as there are, and runs a few frames.
void RunMapped(const runtime::Component& layer, const Plan& plan) {
  constexpr int kAffine = 0x100;
  if (layer.GetType() != kAffine) return;
  const std::string bytes = Written(layer, false).value_or("");
  const std::string_view block = std::string_view(bytes).substr(3 * sizeof(int32_t));
  std::vector<float> parameters(block.size() / sizeof(float));
  if (parameters.empty()) return;
  std::memcpy(parameters.data(), block.data(), block.size());
  const handwriting::tests::Layer mapped(
      runtime::NewComponentOfType(kAffine, layer.InputDim(), layer.OutputDim()));
  const auto* cursor = reinterpret_cast<const char*>(parameters.data());
  Require(mapped->MapData(&cursor), "what is written can be mapped");
  Require(cursor == reinterpret_cast<const char*>(&*parameters.end()), "all of it is mapped");
  const int frames = plan.frames[0] % 4;
  std::vector<float> in =
      Features(static_cast<size_t>(frames) * static_cast<size_t>(layer.InputDim()), plan.values);
  handwriting::tests::RunLayer(*mapped, in, frames, layer.InputDim());
}

// A sum over the bits of all outputs.
uint64_t Run(runtime::NnetForward& forward, const Plan& plan) {
  const int dim = plan.dim;
  const int channels = 1 + plan.channels % 4;
  const int chunks = 1 + plan.options / 2 % 3;
  uint64_t sum = 0;
  forward.Reset();
  for (int call = 1; call <= chunks; ++call) {
    const int frames = FramesOf(plan.frames[static_cast<size_t>(call - 1)], 0);
    std::vector<float> in = Features(static_cast<size_t>(frames * dim * channels), plan.values);
    const bool is_last = call == chunks && plan.options % 2 == 1;
    forward.Propagate(in.data(), frames, dim, is_last ? -call : call, channels);
    const uint64_t floats = forward.OutputShape().floats();
    for (uint64_t i = 0; i < floats; ++i) {
      sum = sum * 31 + std::bit_cast<uint32_t>(forward.Output()[i]);
    }
  }
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  std::optional<ModelInput> input = ModelInputOf(data, size);
  if (!input) return 0;
  auto& [plan, model] = *input;
  const File file = StreamOf(model);
  runtime::Nnet nnet;
  try {
    if (!runtime::ReadNnet(nnet, file.get())) return 0;
  } catch (const std::exception&) {
    return 0;
  }
  for (const auto& layer : nnet.layers) {
    CheckWriters(*layer);
    RunMapped(*layer, plan);
  }
  std::optional<uint64_t> first;
  try {
    runtime::BufferBudget budget(kBufferBytes);
    runtime::NnetForward forward(&nnet, &budget);
    if (plan.options >= 128) forward.ReserveFrames(1 + plan.options % 64);
    const Patience patience;
    first = Run(forward, plan);
    if (patience.IsOver()) return 0;
    Require(Run(forward, plan) == first, "the same chunks give the same bits");
  } catch (const std::exception&) {
    // Refused: as good an end as any, unless it was taken before.
    Require(!first, "what is taken once is taken again");
  }
  return 0;
}
