#ifndef NNET_BASE_NNET_UTIL_H_
#define NNET_BASE_NNET_UTIL_H_

// Float arrays under all layers: 64-byte aligned, zero-filled, of known size.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>

namespace tarev::nnet::handwriting_CTC {

/// Sets *p to a new zero-filled, 64-byte aligned array of rows x cols floats, or to null when that
/// is none; what *p pointed to before is not freed. Throws "alloc memory failed!" and leaves *p
/// when the memory cannot be had, or the count exceeds 2^30 floats. Free with free_floats.
void alloc_floats(float** p, size_t rows, size_t cols);

/// Replaces the array *p of old_count x unit floats by one of new_count x unit: the old contents
/// stay as far as they fit, what is added is zero. Throws "realloc memory failed!" and leaves *p.
void grow_floats(float** p, size_t new_count, size_t old_count, size_t unit);

/// Frees an array made by alloc_floats or grow_floats; null is ignored.
void free_floats(float* p) noexcept;

/// Arrays that the calling thread has allocated so far, for programs that watch a steady state.
uint64_t ArrayAllocations() noexcept;

/// Memory for the arrays of a model that is being read: while one is open, arrays that the same
/// thread allocates uncleared lie side by side in one block, which the system can give in few large
/// pages. The block is freed with the last of its arrays. `expected_bytes` is what the arrays may
/// take at most; where that is little, or the block cannot be had, every array is allocated by
/// itself.
class ArrayArena {
 public:
  explicit ArrayArena(size_t expected_bytes);
  ArrayArena(const ArrayArena&) = delete;
  ArrayArena& operator=(const ArrayArena&) = delete;
  ~ArrayArena();

 private:
  friend class FloatArray;
  /// Room in the arena that is open; null where there is none.
  static std::shared_ptr<float> Take(size_t rows, size_t cols);

  static thread_local ArrayArena* open_;
  ArrayArena* outer_;
  std::shared_ptr<float> block_;
  size_t size_ = 0;
  size_t used_ = 0;
};

/// A limit for the bytes of all float arrays that are allocated while it is entered, less those
/// freed: the buffers of networks that work together. What is read from a file is bounded by the
/// file. One thread enters it at a time.
class BufferBudget {
 public:
  explicit BufferBudget(uint64_t bytes) : limit_(bytes) {}
  BufferBudget(const BufferBudget&) = delete;
  BufferBudget& operator=(const BufferBudget&) = delete;

  uint64_t limit() const { return limit_; }
  void set_limit(uint64_t bytes) { limit_ = bytes; }
  uint64_t used() const { return used_; }

  /// While this lives, arrays of the calling thread count.
  class Entered {
   public:
    explicit Entered(BufferBudget& budget) noexcept;
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;
    ~Entered();

   private:
    BufferBudget* outer_;
  };

  /// For the functions above: counts an allocation, or throws BudgetExceeded and counts nothing;
  /// counts a release.
  static void Take(uint64_t bytes);
  static void GiveBack(uint64_t bytes) noexcept;

 private:
  static thread_local BufferBudget* entered_;
  uint64_t limit_;
  uint64_t used_ = 0;
};

/// Thrown by an allocation that a budget has no room for. Not logged: whoever entered the budget
/// knows for what the array was.
class BudgetExceeded : public std::runtime_error {
 public:
  explicit BudgetExceeded(uint64_t wanted_bytes)
      : std::runtime_error("buffers too large!"), wanted(wanted_bytes) {}
  /// Bytes that would be in use.
  uint64_t wanted;
};

/// An owned float array that knows its size, or a view of mapped parameters that is never freed and
/// never written. Grow never shrinks it, so that a buffer which has had the size of the largest
/// call needs no further allocation. The bytes that it takes are added to the counter that the
/// caller passes, which is never lowered.
class FloatArray {
 public:
  FloatArray() = default;
  /// Moving takes the array or the view; the other array is empty or has what this one held.
  FloatArray(FloatArray&& other) noexcept;
  FloatArray& operator=(FloatArray&& other) noexcept;
  FloatArray(const FloatArray&) = delete;
  FloatArray& operator=(const FloatArray&) = delete;
  ~FloatArray();

  /// Replaces the contents by rows x cols zeros. Throws as alloc_floats and keeps the contents
  /// then.
  void Allocate(size_t rows, size_t cols, uint64_t& memory_bytes);
  /// The same for contents that the caller overwrites at once: they are of no meaning until then.
  void AllocateUncleared(size_t rows, size_t cols, uint64_t& memory_bytes);
  /// Makes room for at least `count` floats, keeping the contents; what is added is zero, and
  /// pointers into the array become invalid. One comparison when there is room. Not for views.
  /// Throws as grow_floats and keeps the array then.
  void Grow(size_t count, uint64_t& memory_bytes) {
    if (count > size_) GrowTo(count, memory_bytes);
  }
  /// The same without counting the bytes.
  void Grow(size_t count) {
    uint64_t not_counted = 0;
    Grow(count, not_counted);
  }
  /// Drops the contents and views `count` floats instead, which are owned elsewhere and must
  /// outlive this array.
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
  void Replace(float* fresh, std::shared_ptr<float> block, size_t count,
               uint64_t& memory_bytes) noexcept;
  void GrowTo(size_t count, uint64_t& memory_bytes);
  void Release() noexcept;

  float* data_ = nullptr;
  size_t size_ = 0;
  bool owned_ = true;
  /// The block of an arena that holds the array; null where the array is an allocation of its own.
  std::shared_ptr<float> block_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_NNET_UTIL_H_
