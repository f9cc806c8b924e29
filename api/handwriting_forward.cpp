#include "api/handwriting_forward.h"

#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <source_location>
#include <string_view>

#include "api/handwriting_forward.recognizer.h"
#include "utils/messages.h"

namespace {

namespace runtime = tarev::nnet::handwriting_CTC;
using runtime::Here;

// Every message of the interface begins with the place that prints it and the exported function.
// Printed when memory may be out: nothing here allocates.
void Warn(std::source_location where, const char* function, const char* text) noexcept {
  const std::string_view file = runtime::FileStem(where.file_name());
  runtime::PrintLine("WARNING * [%.*s:%d<<%s>>] %s\n", static_cast<int>(file.size()), file.data(),
                     static_cast<int>(where.line()), function, text);
}

void WarnParameters(std::source_location where, const char* function,
                    const char* condition) noexcept {
  std::array<char, 512> text{};
  std::snprintf(text.data(), text.size(), "Wrong parameter(s) to [%s], condition [%s]. ", function,
                condition);
  Warn(where, function, text.data());
}

}  // namespace

void* handwriting_forward_create(FILE* fp, int max_frame_num, int nbest) noexcept {
  constexpr const char* kFunction = "handwriting_forward_create";
  if (fp == nullptr || max_frame_num <= 0 || nbest <= 0) {
    WarnParameters(Here(), kFunction, "fp == __null || max_frame_num <= 0 || nbest <= 0");
    return nullptr;
  }
  try {
    auto instance = std::make_unique<handwriting_forward_t>();
    if (instance->ReadFirst(fp, max_frame_num) && instance->ReadSecond(fp, nbest)) {
      return instance.release();
    }
    Warn(Here(), kFunction, "Failed to read nnet.");
  } catch (const std::exception& error) {
    Warn(Here(), kFunction, error.what());
  }
  return nullptr;
}

int handwriting_forward_process(void* instance, const float* feature, int frame_num, int input_dim,
                                int* output, int* len) noexcept {
  constexpr const char* kFunction = "handwriting_forward_process";
  if (instance == nullptr || feature == nullptr || frame_num <= 0 || input_dim <= 0 ||
      output == nullptr || len == nullptr) {
    WarnParameters(Here(), kFunction,
                   "instance == __null || feature == __null || frame_num <= 0 || input_dim <= 0 || "
                   "output == __null || len == __null");
    return -1;
  }
  try {
    return static_cast<handwriting_forward_t*>(instance)->Process(feature, frame_num, input_dim,
                                                                  output, len);
  } catch (const std::exception& error) {
    Warn(Here(), kFunction, error.what());
    return -1;
  }
}

void handwriting_forward_destory(void* instance) noexcept {
  const std::unique_ptr<handwriting_forward_t> owned(static_cast<handwriting_forward_t*>(instance));
}
