#include "nnet/stream_nnet/chunk-layer.h"

#include <algorithm>
#include <cinttypes>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

// Rows are dropped by moving the beginning on, and the rows held are moved to the front of the
// array only when it is full. With room for twice the held rows as many new rows come in between,
// so a row is copied a constant number of times.
void RowQueue::Reserve(int64_t held, int64_t rows, uint64_t& memory_bytes) {
  const uint64_t floats = BlockFloats(1, static_cast<int64_t>(width_), 2 * held + rows);
  if (floats <= kMaxFloatsAhead) values_.Grow(floats, memory_bytes);
}

void RowQueue::Append(const float* rows, int64_t count, uint64_t& memory_bytes) {
  if (count <= 0) return;
  if (BlockFloats(1, static_cast<int64_t>(width_), first_ + rows_ + count) > values_.size()) {
    MakeRoom(count, memory_bytes);
  }
  std::copy_n(rows, ToSize(count) * width_, values_.data() + ToSize(first_ + rows_) * width_);
  rows_ += count;
}

void RowQueue::MakeRoom(int64_t count, uint64_t& memory_bytes) {
  const uint64_t need = BlockFloats(1, static_cast<int64_t>(width_), rows_ + count);
  if (need > kMaxBlockFloats) {
    ThrowError(Here(), "too many frames held over! [%" PRIu64 " > %" PRIu64 " floats]", need,
               kMaxBlockFloats);
  }
  if (first_ > 0) std::copy_n(Row(0), ToSize(rows_) * width_, values_.data());
  first_ = 0;
  // Twice the size, so that a queue that fills up over many calls is copied a few times only.
  if (need > values_.size()) values_.Grow(std::max(need, 2 * values_.size()), memory_bytes);
}

void RowQueue::DropFront(int64_t count) {
  const int64_t dropped = std::clamp<int64_t>(count, 0, rows_);
  rows_ -= dropped;
  first_ = rows_ == 0 ? 0 : first_ + dropped;
}

}  // namespace tarev::nnet::handwriting_CTC
