#include "nnet/contract/refusal.h"

#include <sys/types.h>

#include <cstdarg>

#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

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

bool Refusal::Read(FILE* fp, const char* name, void* to, size_t bytes) {
  const size_t got = std::fread(to, 1, bytes, fp);
  return got == bytes || Because("%s: %zu bytes wanted, %zu left", name, bytes, got);
}

// A string that cannot be read is looked at once more.
bool Refusal::ReadString(FILE* fp, const char* name, std::string& text) {
  const off_t begin = ftello(fp);
  if (fread_string(fp, text)) return true;
  int32_t length = 0;
  if (fseeko(fp, begin, SEEK_SET) != 0) return Because("%s: no complete string", name);
  if (!Read(fp, name, &length, sizeof(length))) return false;
  return AtLeast((std::string("length of ") + name).c_str(), length, 0) &&
         Because("%s: %d bytes wanted, %zu left", name, length, RemainingBytes(fp));
}

bool Refusal::FileHolds(FILE* fp, const char* name, size_t bytes) {
  return handwriting_CTC::FileHolds(fp, bytes, 1) ||
         Because("%s: %zu bytes wanted, %zu left", name, bytes, RemainingBytes(fp));
}

bool Refusal::SameWidth(int64_t input_dim, int64_t output_dim) {
  return input_dim < 1 || output_dim < 1 ||
         Equal("output dimension", output_dim, "but rows keep their width", input_dim);
}

}  // namespace tarev::nnet::handwriting_CTC
