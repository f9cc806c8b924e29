#include "nnet/stream_nnet/chunk-layer.h"

#include <algorithm>
#include <cinttypes>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// 16 MiB. Kernels that reach further than this many floats, which a file of a few bytes can claim,
// get their memory as the rows arrive.
constexpr uint64_t kMostReserved = uint64_t{1} << 22;

}  // namespace

void RowQueue::Reserve(int64_t rows, uint64_t& memory_bytes) {
  const uint64_t floats = BlockFloats(1, static_cast<int64_t>(width_), rows);
  if (floats <= kMostReserved) values_.Grow(floats, memory_bytes);
}

void RowQueue::Append(const float* rows, int64_t count, uint64_t& memory_bytes) {
  if (count <= 0) return;
  const uint64_t need = BlockFloats(1, static_cast<int64_t>(width_), rows_ + count);
  if (need > kMaxBlockFloats) {
    ThrowError(Here(), "too many frames held over! [%" PRIu64 " > %" PRIu64 " floats]", need,
               kMaxBlockFloats);
  }
  // Twice the size, so that a reach that fills up over many calls costs few copies.
  if (need > values_.size()) values_.Grow(std::max(need, 2 * values_.size()), memory_bytes);
  std::copy_n(rows, ToSize(count) * width_, values_.data() + ToSize(rows_) * width_);
  rows_ += count;
}

void RowQueue::DropFront(int64_t count) {
  if (count <= 0) return;
  const int64_t left = std::max<int64_t>(0, rows_ - count);
  std::copy_n(Row(rows_ - left), ToSize(left) * width_, values_.data());
  rows_ = left;
}

}  // namespace tarev::nnet::handwriting_CTC
