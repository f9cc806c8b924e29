#include "tools/npy.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <istream>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <string_view>
#include <system_error>
#include <utility>

#include "tools/output-file.h"

namespace handwriting::tools {
namespace {

static_assert(std::endian::native == std::endian::little);

// The file begins with the magic string, the version of the format (one byte major, one minor) and
// the length of the header as a uint16. The header is a Python dictionary, padded with blanks and
// ended by a newline, so that the values begin at a multiple of 64 bytes.
constexpr std::string_view kMagic = "\x93NUMPY";
constexpr size_t kPreambleSize = kMagic.size() + 4;
constexpr size_t kAlignment = 64;
constexpr std::string_view kFloat32 = "<f4";

struct Header {
  std::optional<std::string> dtype;
  std::optional<bool> fortran_order;
  std::optional<std::vector<size_t>> shape;
};

std::string ShapeText(const std::vector<size_t>& shape) {
  std::string text = "(";
  for (size_t i = 0; i < shape.size(); ++i) text += (i == 0 ? "" : ", ") + std::to_string(shape[i]);
  return text + (shape.size() == 1 ? ",)" : ")");
}

// A parser of the few Python literals that a header is made of. Its messages carry no path.
class HeaderParser {
 public:
  explicit HeaderParser(std::string_view text) : rest_(text) {}

  Header Parse() {
    Header header;
    Expect("{");
    while (!Accept("}")) {
      ParseEntry(header);
      if (!Accept(",")) {
        Expect("}");
        break;
      }
    }
    SkipBlanks();
    if (!rest_.empty()) Fail("end of the header");
    return header;
  }

 private:
  void ParseEntry(Header& header) {
    const std::string key = ParseString();
    Expect(":");
    if (key == "descr" && !header.dtype) {
      header.dtype = ParseString();
    } else if (key == "fortran_order" && !header.fortran_order) {
      header.fortran_order = ParseBool();
    } else if (key == "shape" && !header.shape) {
      header.shape = ParseShape();
    } else {
      throw std::runtime_error("wrong header, key '" + key + "' is unknown or repeated");
    }
  }

  std::string ParseString() {
    SkipBlanks();
    if (rest_.empty() || (rest_.front() != '\'' && rest_.front() != '"')) Fail("a string");
    const size_t end = rest_.find(rest_.front(), 1);
    if (end == std::string_view::npos) Fail("a closed string");
    const std::string_view text = rest_.substr(1, end - 1);
    const auto is_plain = [](char c) { return c >= ' ' && c <= '~' && c != '\\'; };
    if (!std::all_of(text.begin(), text.end(), is_plain)) Fail("a string without escapes");
    rest_.remove_prefix(end + 1);
    return std::string(text);
  }

  bool ParseBool() {
    if (Accept("True")) return true;
    if (!Accept("False")) Fail("True or False");
    return false;
  }

  std::vector<size_t> ParseShape() {
    std::vector<size_t> shape;
    Expect("(");
    while (!Accept(")")) {
      shape.push_back(ParseSize());
      if (!Accept(",")) {
        Expect(")");
        break;
      }
    }
    return shape;
  }

  size_t ParseSize() {
    SkipBlanks();
    size_t value = 0;
    const char* begin = rest_.data();
    const auto [end, error] = std::from_chars(begin, begin + rest_.size(), value);
    if (error != std::errc()) Fail("a number of elements");
    rest_.remove_prefix(static_cast<size_t>(end - begin));
    return value;
  }

  void SkipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \n"), rest_.size())); }

  bool Accept(std::string_view token) {
    SkipBlanks();
    if (!rest_.starts_with(token)) return false;
    rest_.remove_prefix(token.size());
    return true;
  }

  void Expect(std::string_view token) {
    if (!Accept(token)) Fail("'" + std::string(token) + "'");
  }

  [[noreturn]] static void Fail(const std::string& wanted) {
    throw std::runtime_error("wrong header, " + wanted + " is missing");
  }

  std::string_view rest_;
};

void ReadBytes(std::istream& file, void* bytes, size_t size) {
  if (size == 0) return;
  if (!file.read(static_cast<char*>(bytes), static_cast<std::streamsize>(size))) {
    throw std::runtime_error("cannot read");
  }
}

std::string ReadHeaderText(std::istream& file, std::uintmax_t file_size) {
  if (file_size < kPreambleSize) throw std::runtime_error("not an .npy file, it is too short");
  std::array<char, kPreambleSize> preamble{};
  ReadBytes(file, preamble.data(), preamble.size());
  if (!std::string_view(preamble.data(), preamble.size()).starts_with(kMagic)) {
    throw std::runtime_error("not an .npy file, the magic string is missing");
  }
  const std::array<std::uint8_t, 4> bytes = {
      static_cast<std::uint8_t>(preamble[6]), static_cast<std::uint8_t>(preamble[7]),
      static_cast<std::uint8_t>(preamble[8]), static_cast<std::uint8_t>(preamble[9])};
  if (bytes[0] != 1 || bytes[1] != 0) {
    throw std::runtime_error("format version " + std::to_string(bytes[0]) + "." +
                             std::to_string(bytes[1]) + " found, 1.0 wanted");
  }
  const size_t length = bytes[2] + size_t{256} * bytes[3];
  if (file_size - kPreambleSize < length) throw std::runtime_error("cut short inside its header");
  std::string text(length, '\0');
  ReadBytes(file, text.data(), text.size());
  return text;
}

std::vector<size_t> CheckedShape(Header header) {
  if (!header.dtype || !header.fortran_order || !header.shape) {
    throw std::runtime_error("wrong header, 'descr', 'fortran_order' and 'shape' wanted");
  }
  if (*header.dtype != kFloat32) {
    throw std::runtime_error("dtype '" + *header.dtype + "' found, '<f4' (float32) wanted");
  }
  if (*header.fortran_order) throw std::runtime_error("Fortran order found, C order wanted");
  if (header.shape->size() != 2 && header.shape->size() != 3) {
    throw std::runtime_error("shape " + ShapeText(*header.shape) +
                             " found, 2 or 3 dimensions wanted");
  }
  return *std::move(header.shape);
}

// The number of elements, which fill the `bytes` that follow the header exactly.
size_t CheckedCount(const std::vector<size_t>& shape, std::uintmax_t bytes) {
  size_t count = 1;
  bool overflow = false;
  for (const size_t size : shape) overflow |= __builtin_mul_overflow(count, size, &count);
  if (std::find(shape.begin(), shape.end(), size_t{0}) != shape.end()) {
    count = 0;
    overflow = false;
  }
  if (overflow || bytes % sizeof(float) != 0 || bytes / sizeof(float) != count) {
    throw std::runtime_error(std::to_string(bytes) + " bytes of values found, float32 " +
                             ShapeText(shape) + " wanted");
  }
  return count;
}

Matrix Read(std::istream& file, std::uintmax_t file_size) {
  const std::string text = ReadHeaderText(file, file_size);
  Matrix matrix;
  matrix.shape = CheckedShape(HeaderParser(text).Parse());
  matrix.values.resize(CheckedCount(matrix.shape, file_size - kPreambleSize - text.size()));
  ReadBytes(file, matrix.values.data(), matrix.values.size() * sizeof(float));
  return matrix;
}

Matrix Read(const std::string& path) {
  std::error_code error;
  const std::uintmax_t file_size = std::filesystem::file_size(path, error);
  if (error) throw std::runtime_error(error.message());
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open");
  return Read(file, file_size);
}

// For a stream that reads bytes where they are.
class ViewBuffer : public std::streambuf {
 public:
  explicit ViewBuffer(std::string_view bytes) {
    char* begin = const_cast<char*>(bytes.data());  // never written: nothing is put back
    setg(begin, begin, begin + bytes.size());
  }
};

// Magic string, version, length and header, padded to the alignment of the values.
std::string HeaderBytes(const std::vector<size_t>& shape) {
  std::string text =
      "{'descr': '<f4', 'fortran_order': False, 'shape': " + ShapeText(shape) + ", }";
  const size_t unpadded = kPreambleSize + text.size() + 1;
  text.append((kAlignment - unpadded % kAlignment) % kAlignment, ' ');
  text += '\n';
  std::string bytes(kMagic);
  bytes +=
      {'\x01', '\x00', static_cast<char>(text.size() % 256), static_cast<char>(text.size() / 256)};
  return bytes + text;
}

}  // namespace

Matrix ReadNpy(const std::string& path) {
  try {
    return Read(path);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}

Matrix ParseNpy(std::string_view bytes) {
  ViewBuffer buffer(bytes);
  std::istream stream(&buffer);
  return Read(stream, bytes.size());
}

void WriteNpy(const std::string& path, const Matrix& matrix) {
  const size_t count = std::accumulate(matrix.shape.begin(), matrix.shape.end(), size_t{1},
                                       std::multiplies<size_t>());
  if (matrix.shape.size() < 2 || matrix.shape.size() > 3 || count != matrix.values.size()) {
    throw std::runtime_error(path + ": " + std::to_string(matrix.values.size()) +
                             " values do not fill the shape " + ShapeText(matrix.shape) +
                             " of 2 or 3 dimensions");
  }
  const std::string header = HeaderBytes(matrix.shape);
  OutputFile file(path);
  std::fwrite(header.data(), 1, header.size(), file.stream());
  if (count != 0) std::fwrite(matrix.values.data(), sizeof(float), count, file.stream());
  file.Commit();
}

}  // namespace handwriting::tools
