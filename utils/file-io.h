#ifndef UTILS_FILE_IO_H_
#define UTILS_FILE_IO_H_

// Whole-block reads and writes on a C stream. Everything in a model file is little-endian and
// without padding, which is the memory layout of the platform that this library is for. All
// functions answer with a value, print nothing and throw nothing.

#include <bit>
#include <cstddef>
#include <cstdio>
#include <span>
#include <type_traits>

namespace tarev::nnet::handwriting_CTC {

static_assert(std::endian::native == std::endian::little);

/// Bytes between the stream's position and its end; the position stays. A stream of no known size
/// (a pipe) counts as 256 MiB, so that a size read from it cannot ask for any amount of memory.
size_t RemainingBytes(FILE* fp);

/// Whether `count` elements of `element_size` bytes can still come from the stream. Readers ask
/// before they allocate: a block larger than the rest of the file is a short read.
bool FileHolds(FILE* fp, size_t count, size_t element_size);

/// Fills `values` from the stream, or writes all of them. False on a short read or write.
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

/// Writes the values one after another; false at the first short write.
template <class... T>
bool WriteValues(FILE* fp, const T&... values) {
  return (WriteArray(fp, std::span<const T>(&values, 1)) && ...);
}

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_FILE_IO_H_
