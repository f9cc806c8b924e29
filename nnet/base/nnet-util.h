#ifndef NNET_BASE_NNET_UTIL_H_
#define NNET_BASE_NNET_UTIL_H_

// Float arrays under all layers: 64-byte aligned, zero-filled, of known size.

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarev::nnet::handwriting_CTC {

/// Replaces *p by a zero-filled, 64-byte aligned array of rows x cols floats (null when that is
/// none). Throws "alloc memory failed!" and leaves *p when the memory cannot be had.
void alloc_floats(float** p, size_t rows, size_t cols);

/// Regrows *p from old_count x unit to new_count x unit floats; the old contents stay, what is
/// added is zero. Throws "realloc memory failed!" and leaves *p.
void grow_floats(float** p, size_t new_count, size_t old_count, size_t unit);

/// Frees an array made by alloc_floats or grow_floats.
void free_floats(float* p) noexcept;

/// An owned float array that knows its size, or a view of mapped parameters that is never freed and
/// never written. Bytes that it takes are added to the counter that the caller hands over.
class FloatArray {
 public:
  FloatArray() = default;
  FloatArray(FloatArray&& other) noexcept;
  FloatArray& operator=(FloatArray&& other) noexcept;
  FloatArray(const FloatArray&) = delete;
  FloatArray& operator=(const FloatArray&) = delete;
  ~FloatArray();

  /// Replaces the contents by rows x cols zeros.
  void Allocate(size_t rows, size_t cols, uint64_t& memory_bytes);
  /// Makes room for at least `count` floats, keeping the contents; one comparison when there is
  /// room.
  void Grow(size_t count, uint64_t& memory_bytes) {
    if (count > size_) GrowTo(count, memory_bytes);
  }
  /// The same for an array that nobody counts.
  void Grow(size_t count) {
    uint64_t not_counted = 0;
    Grow(count, not_counted);
  }
  /// Views `count` floats that belong to someone else and outlive this array.
  void Map(const float* values, size_t count) noexcept;

  float* data() noexcept { return data_; }
  const float* data() const noexcept { return data_; }
  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  float& operator[](size_t i) noexcept { return data_[i]; }
  const float& operator[](size_t i) const noexcept { return data_[i]; }
  std::span<float> values() noexcept { return {data_, size_}; }
  std::span<const float> values() const noexcept { return {data_, size_}; }

 private:
  void GrowTo(size_t count, uint64_t& memory_bytes);
  void Release() noexcept;

  float* data_ = nullptr;
  size_t size_ = 0;
  bool owned_ = true;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_NNET_UTIL_H_
