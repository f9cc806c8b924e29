#include "utils/messages.h"

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include <loguru.hpp>

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kMaxText = 4096;
constexpr loguru::Verbosity kWarning = -1;

void Log(std::source_location where, const std::string& text) {
  const std::string file = FileStem(where.file_name());
  loguru::log(kWarning, file.c_str(), where.line(), "%s", text.c_str());
}

}  // namespace

std::string FormatText(const char* format, va_list arguments) {
  std::array<char, kMaxText + 1> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  return text.data();
}

std::string FileStem(const char* path) {
  std::string_view name(path);
  if (const size_t slash = name.rfind('/'); slash != std::string_view::npos) {
    name.remove_prefix(slash + 1);
  }
  return std::string(name.substr(0, name.find('.')));
}

// Texts are formatted here and logged as a whole, so that what is logged and what is thrown are the
// same text, cut at the same length.
void LogWarning(std::source_location where, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = FormatText(format, arguments);
  va_end(arguments);
  Log(where, text);
}

void ThrowError(std::source_location where, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = FormatText(format, arguments);
  va_end(arguments);
  Log(where, text);
  throw std::runtime_error(text);
}

void PrintWrongParameters(std::source_location where, const char* function, const char* condition) {
  std::fprintf(stderr, "[%s:%d] Wrong parameter(s) to [%s], condition [%s]. \n",
               FileStem(where.file_name()).c_str(), static_cast<int>(where.line()), function,
               condition);
}

void ThrowWrongParameters(std::source_location where, const char* function, const char* condition) {
  PrintWrongParameters(where, function, condition);
  throw std::runtime_error("Wrong parameter(s)!");
}

}  // namespace tarev::nnet::handwriting_CTC
