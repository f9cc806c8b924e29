#ifndef UTILS_FILE_IO_H_
#define UTILS_FILE_IO_H_

// Whole-block reads and writes on a C stream. Everything in a model file is little-endian and
// without padding, which is the memory layout of the one platform this library is for.

#include <bit>
#include <cstddef>
#include <cstdio>
#include <span>
#include <type_traits>

namespace tarev::nnet::handwriting_CTC {

static_assert(std::endian::native == std::endian::little);

/// Bytes between the stream's position and its end. On a stream that has no known size (a pipe) a
/// fixed bound stands in, so that a size from such a stream cannot ask for any amount of memory.
size_t RemainingBytes(FILE* fp);

/// Whether `count` elements of `element_size` bytes can still come from the stream. Readers ask
/// before they allocate: a block larger than the rest of the file is a short read.
bool FileHolds(FILE* fp, size_t count, size_t element_size);

template <class T>
bool ReadArray(FILE* fp, std::span<T> values) {
  static_assert(std::is_trivially_copyable_v<T>);
  return values.empty() || std::fread(values.data(), sizeof(T), values.size(), fp) == values.size();
}

template <class T>
bool WriteArray(FILE* fp, std::span<const T> values) {
  static_assert(std::is_trivially_copyable_v<T>);
  return values.empty() ||
         std::fwrite(values.data(), sizeof(T), values.size(), fp) == values.size();
}

/// Reads the values one after another, each with a read of its own; false at the first short read.
template <class... T>
bool ReadValues(FILE* fp, T&... values) {
  return (ReadArray(fp, std::span<T>(&values, 1)) && ...);
}

template <class... T>
bool WriteValues(FILE* fp, const T&... values) {
  return (WriteArray(fp, std::span<const T>(&values, 1)) && ...);
}

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_FILE_IO_H_
