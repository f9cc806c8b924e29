#include "utils/messages.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <new>
#include <stdexcept>

#include <loguru.hpp>

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kMaxText = 4096;
constexpr size_t kMaxLine = 8192;
constexpr loguru::Verbosity kWarning = -1;

// Whether the logging library will find the memory for a line. It takes several pieces, of which
// the text is the largest, and ends the process when one is refused; a piece larger than all of
// them together is taken and given back first.
bool HasMemoryToLog() noexcept {
  const std::unique_ptr<char[]> piece(new (std::nothrow) char[8 * kMaxText]);
  asm volatile("" : : "r"(piece.get()) : "memory");  // or the compiler leaves the allocation out
  return piece != nullptr;
}

void Log(std::source_location where, const std::string& text) {
  if (!HasMemoryToLog()) return;
  std::array<char, 64> file{};
  FileStem(where.file_name()).copy(file.data(), file.size() - 1);
  loguru::log(kWarning, file.data(), where.line(), "%s", text.c_str());
}

// The bytes of the UTF-8 character that a text begins with, or 0 where it begins with none or with
// one that a terminal acts on: the control characters before U+0020 and from U+007F to U+009F.
size_t PlainBytes(std::string_view text) noexcept {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= ' ' && first != 0x7F ? 1 : 0;
  const size_t bytes = first >= 0xF5 ? 0 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || bytes == 0 || text.size() < bytes) return 0;
  for (size_t i = 1; i < bytes; ++i) {
    if (byte(i) >> 6 != 2) return 0;
  }
  return first == 0xC2 && byte(1) < 0xA0 ? 0 : bytes;
}

}  // namespace

std::string_view FileStem(const char* path) noexcept {
  std::string_view name(path);
  if (const size_t slash = name.rfind('/'); slash != std::string_view::npos) {
    name.remove_prefix(slash + 1);
  }
  return name.substr(0, name.find('.'));
}

std::string Escaped(std::string_view text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const size_t bytes = PlainBytes(text);
    if (bytes != 0) {
      result.append(text.substr(0, bytes));
    } else {
      const auto byte = static_cast<unsigned char>(text.front());
      result.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]});
    }
    text.remove_prefix(std::max<size_t>(bytes, 1));
  }
  return result;
}

std::string FormatText(const char* format, va_list arguments) {
  std::array<char, kMaxText + 1> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  return Escaped(text.data());
}

void PrintLine(const char* format, ...) noexcept {
  std::array<char, kMaxLine + 1> text{};
  va_list arguments;
  va_start(arguments, format);
  const int written = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  size_t bytes = std::min<size_t>(static_cast<size_t>(std::max(written, 0)), kMaxLine);
  if (bytes == kMaxLine) text[bytes - 1] = '\n';
  std::fwrite(text.data(), 1, bytes, stderr);
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

void PrintWrongParameters(std::source_location where, const char* function,
                          const char* condition) noexcept {
  const std::string_view file = FileStem(where.file_name());
  PrintLine("[%.*s:%d] Wrong parameter(s) to [%s], condition [%s]. \n",
            static_cast<int>(file.size()), file.data(), static_cast<int>(where.line()), function,
            condition);
}

void ThrowWrongParameters(std::source_location where, const char* function, const char* condition) {
  PrintWrongParameters(where, function, condition);
  throw std::runtime_error("Wrong parameter(s)!");
}

}  // namespace tarev::nnet::handwriting_CTC
