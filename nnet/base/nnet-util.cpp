#include "nnet/base/nnet-util.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kAlignment = 64;
// Four gigabytes: far above any real array, and little enough that one array cannot exhaust a
// machine.
constexpr size_t kMaxFloats = size_t{1} << 30;

// Floats of any value, or null when the count is too large or the memory cannot be had. The bytes
// are rounded up to whole cache lines, which aligned allocation asks for.
float* NewFloats(size_t rows, size_t cols) {
  if (cols != 0 && rows > kMaxFloats / cols) return nullptr;
  const size_t bytes = rows * cols * sizeof(float);
  const size_t whole = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  return static_cast<float*>(std::aligned_alloc(kAlignment, whole));
}

// The same for a kept array, or null for none; throws when the memory cannot be had.
float* AllocateFloats(size_t rows, size_t cols) {
  if (rows == 0 || cols == 0) return nullptr;
  float* fresh = NewFloats(rows, cols);
  if (fresh == nullptr) ThrowError(Here(), "alloc memory failed!");
  return fresh;
}

}  // namespace

void alloc_floats(float** p, size_t rows, size_t cols) {
  *p = AllocateFloats(rows, cols);
  if (*p != nullptr) std::memset(*p, 0, rows * cols * sizeof(float));
}

// A new array and a copy: no reallocation keeps the alignment.
void grow_floats(float** p, size_t new_count, size_t old_count, size_t unit) {
  if (new_count == old_count) return;
  float* fresh = nullptr;
  if (new_count != 0 && unit != 0) {
    fresh = NewFloats(new_count, unit);
    if (fresh == nullptr) ThrowError(Here(), "realloc memory failed!");
    const size_t kept = std::min(new_count, old_count) * unit;
    if (kept != 0) std::memcpy(fresh, *p, kept * sizeof(float));
    std::memset(fresh + kept, 0, (new_count * unit - kept) * sizeof(float));
  }
  free_floats(*p);
  *p = fresh;
}

// The one place that frees; FloatArray calls it.
void free_floats(float* p) noexcept { std::free(p); }  // NOLINT(cppcoreguidelines-no-malloc)

FloatArray::FloatArray(FloatArray&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      owned_(std::exchange(other.owned_, true)) {}

// A swap: what this array held is freed with the other one.
FloatArray& FloatArray::operator=(FloatArray&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(owned_, other.owned_);
  return *this;
}

FloatArray::~FloatArray() { Release(); }

void FloatArray::Release() noexcept {
  if (owned_) free_floats(data_);
  data_ = nullptr;
  size_ = 0;
  owned_ = true;
}

void FloatArray::Replace(float* fresh, size_t count, uint64_t& memory_bytes) noexcept {
  Release();
  data_ = fresh;
  size_ = count;
  memory_bytes += count * sizeof(float);
}

void FloatArray::Allocate(size_t rows, size_t cols, uint64_t& memory_bytes) {
  float* fresh = nullptr;
  alloc_floats(&fresh, rows, cols);
  Replace(fresh, rows * cols, memory_bytes);
}

void FloatArray::AllocateUncleared(size_t rows, size_t cols, uint64_t& memory_bytes) {
  Replace(AllocateFloats(rows, cols), rows * cols, memory_bytes);
}

void FloatArray::GrowTo(size_t count, uint64_t& memory_bytes) {
  grow_floats(&data_, count, size_, 1);
  memory_bytes += (count - size_) * sizeof(float);
  size_ = count;
}

void FloatArray::Map(const float* values, size_t count) noexcept {
  Release();
  data_ = const_cast<float*>(values);  // parameters are only read once they are in place
  size_ = count;
  owned_ = false;
}

}  // namespace tarev::nnet::handwriting_CTC
