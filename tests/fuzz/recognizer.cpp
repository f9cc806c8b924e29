// Any bytes as a model file through the exported functions: create, three inputs, destroy. Every
// call ends with a result or a refusal; results keep to their bounds, and the third call, which is
// the first once more, gives what that gave.

#include <algorithm>
#include <optional>
#include <vector>

#include <loguru.hpp>

#include "api/handwriting_forward.h"
#include "api/handwriting_forward.recognizer.h"
#include "tests/fuzz/input.h"

namespace {

using namespace handwriting::fuzz;  // NOLINT(google-build-using-namespace)

struct Result {
  int count = -1;
  std::vector<int> lengths;
  std::vector<int> labels;

  bool operator==(const Result&) const = default;
};

Result Process(void* recognizer, const Plan& plan, int frames, int nbest) {
  const int dim = std::max<int>(plan.dim, 1);
  std::vector<float> features = Features(static_cast<size_t>(frames * dim), plan.values);
  Result result;
  result.lengths.resize(static_cast<size_t>(nbest));
  result.labels.resize(static_cast<size_t>(nbest * frames));
  result.count = handwriting_forward_process(recognizer, features.data(), frames, dim,
                                             result.labels.data(), result.lengths.data());
  Require(result.count >= -1 && result.count <= nbest, "the number of sequences");
  result.lengths.resize(static_cast<size_t>(std::max(result.count, 0)));
  size_t sum = 0;
  for (const int length : result.lengths) {
    Require(length >= 0 && length <= frames, "the length of a sequence");
    sum += static_cast<size_t>(length);
  }
  result.labels.resize(sum);
  const int classes = static_cast<handwriting_forward_t*>(recognizer)->decoder->label_dim;
  for (const int label : result.labels) Require(label > 0 && label < classes, "a label");
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  std::optional<ModelInput> input = ModelInputOf(data, size);
  if (!input) return 0;
  auto& [plan, model] = *input;
  const int announced = plan.options == 255 ? 100000 : 1 + plan.options % 64;
  const int nbest = plan.nbest == 255 ? 200 : 1 + plan.nbest % 8;
  void* recognizer = handwriting_forward_create(StreamOf(model).get(), announced, nbest);
  if (recognizer == nullptr) return 0;
  Require(handwriting_forward_process(recognizer, nullptr, 1, 1, nullptr, nullptr) == -1,
          "no result without arrays");
  static_cast<handwriting_forward_t*>(recognizer)->budget.set_limit(kBufferBytes);
  const Patience patience;
  const int frames = FramesOf(plan.frames[0], 1);
  const Result first = Process(recognizer, plan, frames, nbest);
  if (!patience.IsOver()) {
    Process(recognizer, plan, FramesOf(plan.frames[1], 1), nbest);
    const Result again = Process(recognizer, plan, frames, nbest);
    Require(first.count < 0 || first == again, "the same input gives the same result");
  }
  handwriting_forward_destory(recognizer);
  return 0;
}
