// Any bytes as a model file of the tool, text or binary: it is refused, or becomes networks whose
// layers write what reads as the same.

#include <exception>

#include <loguru.hpp>

#include "tests/fuzz/input.h"
#include "tools/model-file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace handwriting::fuzz;  // NOLINT(google-build-using-namespace)
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  handwriting::tools::ModelFile model;
  try {
    model = handwriting::tools::ReadModelFile(PathWith(data, size));
  } catch (const std::exception&) {
    return 0;
  }
  for (const auto& network : model.networks) {
    for (const auto& layer : network.layers) CheckWriters(*layer);
  }
  return 0;
}
