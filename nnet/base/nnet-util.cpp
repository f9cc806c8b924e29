#include "nnet/base/nnet-util.h"

#include <malloc.h>
#include <sys/mman.h>

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

thread_local uint64_t array_allocations = 0;

// Fresh memory costs more than anything that is done with it once: the system clears it page by
// page as it is touched. Whole huge pages within a large array are asked for, which takes a fourth
// of the time; where the system has none to give, nothing changes.
constexpr size_t kHugePage = size_t{2} << 20;

// Floats of any value, or null when the count is too large or the memory cannot be had. The bytes
// are rounded up to whole cache lines, which aligned allocation asks for.
float* NewFloats(size_t rows, size_t cols) {
  ++array_allocations;
  if (cols != 0 && rows > kMaxFloats / cols) return nullptr;
  const size_t bytes = rows * cols * sizeof(float);
  const size_t whole = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  const bool huge = whole >= kHugePage;
  BufferBudget::Take(whole);
  void* memory = nullptr;
  if (posix_memalign(&memory, huge ? kHugePage : kAlignment, whole) != 0) {
    BufferBudget::GiveBack(whole);
    return nullptr;
  }
  if (huge) madvise(memory, whole / kHugePage * kHugePage, MADV_HUGEPAGE);
  return static_cast<float*>(memory);
}

// The same for a kept array, or null for none; throws when the memory cannot be had.
float* AllocateFloats(size_t rows, size_t cols) {
  if (rows == 0 || cols == 0) return nullptr;
  float* fresh = NewFloats(rows, cols);
  if (fresh == nullptr) ThrowError(Here(), "alloc memory failed!");
  return fresh;
}

}  // namespace

uint64_t ArrayAllocations() noexcept { return array_allocations; }

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

// The one place that frees; FloatArray calls it. What the heap gave is about what was asked for.
void free_floats(float* p) noexcept {
  if (p != nullptr) BufferBudget::GiveBack(malloc_usable_size(p));
  std::free(p);  // NOLINT(cppcoreguidelines-no-malloc)
}

thread_local BufferBudget* BufferBudget::entered_ = nullptr;

BufferBudget::Entered::Entered(BufferBudget& budget) noexcept
    : outer_(std::exchange(entered_, &budget)) {}

BufferBudget::Entered::~Entered() { entered_ = outer_; }

void BufferBudget::Take(uint64_t bytes) {
  if (entered_ == nullptr) return;
  if (bytes > entered_->limit_ - entered_->used_) throw BudgetExceeded(entered_->used_ + bytes);
  entered_->used_ += bytes;
}

void BufferBudget::GiveBack(uint64_t bytes) noexcept {
  if (entered_ != nullptr) entered_->used_ -= std::min(bytes, entered_->used_);
}

thread_local ArrayArena* ArrayArena::open_ = nullptr;

// Opened last: an arena that has thrown is not there.
ArrayArena::ArrayArena(size_t expected_bytes) : outer_(open_) {
  constexpr size_t kLeastBytes = 2 * kHugePage;
  if (expected_bytes >= kLeastBytes) {
    const size_t floats = std::min(expected_bytes / sizeof(float), kMaxFloats);
    block_ = std::shared_ptr<float>(NewFloats(1, floats), free_floats);
    if (block_ != nullptr) size_ = floats;
  }
  open_ = this;
}

ArrayArena::~ArrayArena() { open_ = outer_; }

std::shared_ptr<float> ArrayArena::Take(size_t rows, size_t cols) {
  constexpr size_t kGrain = kAlignment / sizeof(float);
  ArrayArena* const arena = open_;
  if (arena == nullptr || rows > kMaxFloats / cols) return nullptr;
  const size_t floats = (rows * cols + kGrain - 1) / kGrain * kGrain;
  if (floats > arena->size_ - arena->used_) return nullptr;
  float* const data = arena->block_.get() + std::exchange(arena->used_, arena->used_ + floats);
  return {arena->block_, data};
}

FloatArray::FloatArray(FloatArray&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      owned_(std::exchange(other.owned_, true)),
      block_(std::move(other.block_)) {}

// A swap: what this array held is freed with the other one.
FloatArray& FloatArray::operator=(FloatArray&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(owned_, other.owned_);
  std::swap(block_, other.block_);
  return *this;
}

FloatArray::~FloatArray() { Release(); }

void FloatArray::Release() noexcept {
  if (owned_ && block_ == nullptr) free_floats(data_);
  block_.reset();
  data_ = nullptr;
  size_ = 0;
  owned_ = true;
}

void FloatArray::Replace(float* fresh, std::shared_ptr<float> block, size_t count,
                         uint64_t& memory_bytes) noexcept {
  Release();
  data_ = fresh;
  block_ = std::move(block);
  size_ = count;
  memory_bytes += count * sizeof(float);
}

void FloatArray::Allocate(size_t rows, size_t cols, uint64_t& memory_bytes) {
  float* fresh = nullptr;
  alloc_floats(&fresh, rows, cols);
  Replace(fresh, nullptr, rows * cols, memory_bytes);
}

void FloatArray::AllocateUncleared(size_t rows, size_t cols, uint64_t& memory_bytes) {
  if (rows == 0 || cols == 0) return Replace(nullptr, nullptr, 0, memory_bytes);
  std::shared_ptr<float> block = ArrayArena::Take(rows, cols);
  float* fresh = block != nullptr ? block.get() : AllocateFloats(rows, cols);
  Replace(fresh, std::move(block), rows * cols, memory_bytes);
}

void FloatArray::GrowTo(size_t count, uint64_t& memory_bytes) {
  if (block_ != nullptr) {
    float* fresh = NewFloats(1, count);
    if (fresh == nullptr) ThrowError(Here(), "realloc memory failed!");
    std::memset(std::copy_n(data_, size_, fresh), 0, (count - size_) * sizeof(float));
    data_ = fresh;
    block_.reset();
  } else {
    grow_floats(&data_, count, size_, 1);
  }
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
