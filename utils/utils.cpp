#include "utils/utils.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kMaxTokenLength = kTokenSize - 1;
constexpr size_t kMaxLineLength = 4096;

using Token = char[kTokenSize];

bool IsSpace(int c) { return std::isspace(c) != 0; }
bool IsLineSpace(char c) { return c == ' ' || c == '\t'; }

int32_t ToInt(const char* token) { return static_cast<int32_t>(std::strtol(token, nullptr, 10)); }
float ToFloat(const char* token) { return static_cast<float>(std::strtod(token, nullptr)); }

// T or F in either case; otherwise a number, of which 0 is false.
bool ParseBool(const char* token) {
  switch (token[0]) {
    case 'T':
    case 't':
      return true;
    case 'F':
    case 'f':
      return false;
    default:
      return std::strtol(token, nullptr, 10) != 0;
  }
}

// The type letter says what the destination is; AddProperty has checked it.
void StoreValue(Property& property, const char* token) {
  property.set = true;
  if (property.destination == nullptr) return;
  switch (property.type[0]) {
    case 'i':
      *static_cast<int32_t*>(property.destination) = ToInt(token);
      break;
    case 'f':
      *static_cast<float*>(property.destination) = ToFloat(token);
      break;
    case 'b':
      *static_cast<bool*>(property.destination) = ParseBool(token);
      break;
    default:
      *static_cast<std::string*>(property.destination) = token;
  }
}

void CheckRequired(const PropertyTable& table) {
  for (const auto& [name, property] : table) {
    if (property.type[1] == ':' && !property.set) {
      ThrowError(Here(), "necessary property is not set! [%s]", name.c_str());
    }
  }
}

// The next token of a matrix. The end of the stream and a token that does not fit, which both read
// as empty, are format errors.
void NextMatrixToken(FILE* fp, Token& token) {
  get_next_token(fp, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong matrix format!");
}

void OpenMatrix(FILE* fp, MatrixOpening opening) {
  Token token = "";
  do {
    NextMatrixToken(fp, token);
    if (token[0] == '[') return;
  } while (opening == MatrixOpening::kLenient);
  ThrowError(Here(), "wrong matrix format! [leading:%s]", token);
}

// Passes the values of one matrix to `store(index, token)` in row-major order. Values are counted
// as they come, so a caller may append them: the shape alone allocates nothing.
template <class Store>
void ReadMatrix(FILE* fp, int rows, int cols, MatrixOpening opening, Store store) {
  OpenMatrix(fp, opening);
  int row = 0;
  int col = 0;
  size_t index = 0;
  for (Token token = "";;) {
    NextMatrixToken(fp, token);
    if (token[0] == ']') break;
    if (row >= rows || cols < 1) ThrowError(Here(), "too many matrix data! [rows:%d]", rows);
    store(index++, token);
    if (++col == cols) {
      col = 0;
      ++row;
    }
  }
  if (col != 0 || row != rows) {
    ThrowError(Here(), "mismatched matrix dimension! [rows:%d/%d, cols:%d/%d]", row, rows, col,
               cols);
  }
}

void ReadFloatMatrix(FILE* fp, float* dst, int rows, int cols, MatrixOpening opening) {
  ReadMatrix(fp, rows, cols, opening,
             [dst](size_t index, const char* token) { dst[index] = ToFloat(token); });
}

size_t ElementCount(int rows, int cols) {
  return rows < 1 || cols < 1 ? 0 : static_cast<size_t>(rows) * static_cast<size_t>(cols);
}

}  // namespace

int get_next_token(FILE* fp, char* token) {
  if (fp == nullptr || token == nullptr) {
    PrintWrongParameters(Here(), "get_next_token", "fp == __null || token == __null");
    return -1;
  }
  token[0] = '\0';
  int c = std::getc(fp);
  while (c != EOF && IsSpace(c)) c = std::getc(fp);
  size_t length = 0;
  bool fits = true;
  for (; c != EOF && !IsSpace(c); c = std::getc(fp)) {
    fits = fits && length < kMaxTokenLength;
    if (fits) token[length++] = static_cast<char>(c);
  }
  token[fits ? length : 0] = '\0';
  return fits ? c : kTokenTooLong;
}

char* get_next_token(char* line, char* token) {
  if (line == nullptr || token == nullptr) {
    PrintWrongParameters(Here(), "get_next_token", "line == __null || token == __null");
    return nullptr;
  }
  while (IsLineSpace(*line)) ++line;
  char* end = line;
  while (*end != '\0' && !IsLineSpace(*end)) ++end;
  const size_t length = static_cast<size_t>(end - line);
  const size_t kept = length <= kMaxTokenLength ? length : 0;
  std::memcpy(token, line, kept);
  token[kept] = '\0';
  return *end == '\0' ? nullptr : end;
}

// The stream has one character of push-back only, so it is moved: back over the token and the
// character that ended it.
bool UnreadToken(FILE* fp, const char* token, int separator) {
  const size_t length = std::strlen(token) + (separator == EOF ? 0 : 1);
  return fseeko(fp, -static_cast<off_t>(length), SEEK_CUR) == 0;
}

bool fread_string(FILE* fp, std::string& s) {
  if (fp == nullptr) {
    PrintWrongParameters(Here(), "fread_string", "fp == __null");
    return false;
  }
  int32_t count = 0;
  if (!ReadValues(fp, count) || count < 0) return false;
  const size_t size = static_cast<size_t>(count);
  if (!FileHolds(fp, size, 1)) return false;
  s.resize(size);
  return ReadArray(fp, std::span<char>(s));
}

bool fwrite_string(FILE* fp, const std::string& s) {
  if (fp == nullptr) {
    PrintWrongParameters(Here(), "fwrite_string", "fp == __null");
    return false;
  }
  return WriteValues(fp, static_cast<int32_t>(s.size())) &&
         WriteArray(fp, std::span<const char>(s));
}

std::string ReadRestOfLine(FILE* fp) {
  std::string line;
  int c = std::getc(fp);
  for (; c != EOF && c != '\n'; c = std::getc(fp)) {
    if (line.size() == kMaxLineLength) ThrowError(Here(), "wrong property format!");
    line.push_back(static_cast<char>(c));
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

void AddProperty(PropertyTable& table, const char* name, const char* type, void* destination) {
  if (type[0] == '\0' || std::strchr("ifbs", type[0]) == nullptr) {
    ThrowError(Here(), "unknown property type! [%s]", type);
  }
  if (!table.emplace(name, Property{type, destination, false}).second) {
    ThrowError(Here(), "insert property failed! [%s,%s]", name, type);
  }
}

void AddProperty(PropertyTable& table, const char* name, int32_t* destination, bool required) {
  AddProperty(table, name, required ? "i:" : "i", static_cast<void*>(destination));
}

void AddProperty(PropertyTable& table, const char* name, float* destination, bool required) {
  AddProperty(table, name, required ? "f:" : "f", static_cast<void*>(destination));
}

void AddProperty(PropertyTable& table, const char* name, bool* destination, bool required) {
  AddProperty(table, name, required ? "b:" : "b", static_cast<void*>(destination));
}

void AddProperty(PropertyTable& table, const char* name, std::string* destination, bool required) {
  AddProperty(table, name, required ? "s:" : "s", static_cast<void*>(destination));
}

// A list of properties ends with its line and not with a token, since what follows may begin with
// "<" too: the first name is read from the stream, the rest of its line into memory.
void ReadProperties(FILE* fp, PropertyTable& table) {
  Token token;
  const int separator = get_next_token(fp, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong property format!");
  if (token[0] != '<') {
    if (!UnreadToken(fp, token, separator)) ThrowError(Here(), "wrong property format!");
    CheckRequired(table);
    return;
  }
  // The rest of the line of the first name, unless the name ended the line.
  std::string text = separator == '\n' ? std::string() : ReadRestOfLine(fp);
  char* line = text.data();
  for (;;) {
    const auto entry = table.find(token);
    if (entry == table.end()) ThrowError(Here(), "unknown property name! [%s]", token);
    Token value = "";
    if (line != nullptr) line = get_next_token(line, value);
    if (value[0] == '\0') ThrowError(Here(), "wrong property format!");
    StoreValue(entry->second, value);
    while (line != nullptr && IsLineSpace(*line)) ++line;
    if (line == nullptr || *line == '\0') break;
    line = get_next_token(line, token);
    if (token[0] == '\0') ThrowError(Here(), "wrong property format!");
  }
  CheckRequired(table);
}

void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols) {
  ReadFloatMatrix(fp, dst, rows, cols, MatrixOpening::kLenient);
}

void ReadTextMatrix(FILE* fp, int32_t* dst, int rows, int cols) {
  ReadMatrix(fp, rows, cols, MatrixOpening::kLenient,
             [dst](size_t index, const char* token) { dst[index] = ToInt(token); });
}

void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols) {
  ReadFloatMatrix(fp, dst, rows, cols, MatrixOpening::kStrict);
}

void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols, float* scale) {
  ReadTextMatrix(fp, dst, rows, cols);
  *scale = SymmetricScale(dst, ElementCount(rows, cols));
}

void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols, float* scale) {
  ReadTextMatrixStrict(fp, dst, rows, cols);
  *scale = SymmetricScale(dst, ElementCount(rows, cols));
}

std::vector<float> ReadTextValues(FILE* fp, int rows, int cols, MatrixOpening opening) {
  std::vector<float> values;
  ReadMatrix(fp, rows, cols, opening,
             [&values](size_t, const char* token) { values.push_back(ToFloat(token)); });
  return values;
}

std::vector<int32_t> ReadTextIntegers(FILE* fp, int rows, int cols, MatrixOpening opening) {
  std::vector<int32_t> values;
  ReadMatrix(fp, rows, cols, opening,
             [&values](size_t, const char* token) { values.push_back(ToInt(token)); });
  return values;
}

float SymmetricScale(const float* values, size_t count) {
  float largest = 0.0F;
  for (size_t i = 0; i < count; ++i) {
    const float magnitude = std::fabs(values[i]);
    if (magnitude > largest) largest = magnitude;
  }
  return largest == 0.0F ? 1.0F : 127.0F / largest;
}

}  // namespace tarev::nnet::handwriting_CTC
