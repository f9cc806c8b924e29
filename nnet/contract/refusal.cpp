#include "nnet/contract/refusal.h"

#include <cstdarg>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

bool Refusal::Because(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (text_.empty()) text_ = FormatText(format, arguments);
  va_end(arguments);
  return false;
}

// The log gets every text, though only the first is kept as the reason.
bool Refusal::LogBecause(std::source_location where, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = FormatText(format, arguments);
  va_end(arguments);
  LogWarning(where, "%s", text.c_str());
  return Because("%s", text.c_str());
}

bool Refusal::SameWidth(int64_t input_dim, int64_t output_dim) {
  return input_dim < 1 || output_dim < 1 ||
         Equal("output dimension", output_dim, "but rows keep their width", input_dim);
}

}  // namespace tarev::nnet::handwriting_CTC
