#ifndef NNET_STREAM_NNET_CHUNK_LAYER_H_
#define NNET_STREAM_NNET_CHUNK_LAYER_H_

// What the streaming layers share. They run over an input that arrives in chunks, one call a chunk,
// and emit over the whole input the frames that their whole-sequence twins emit for it in one
// piece: each as soon as everything it depends on has arrived. Padding is applied at the ends of
// the input alone, at the start from the first call after a reset on, at the end on the call that
// is marked as the last. After that one the next input begins with a reset.

#include <cstddef>
#include <cstdint>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Rows of a stream that wait for later calls, the oldest first, one after another in one array
/// that only grows.
class RowQueue {
 public:
  explicit RowQueue(int row_width) : width_(ToSize(row_width)) {}

  int64_t rows() const { return rows_; }
  size_t width() const { return width_; }
  /// Row r of the queue and all rows after it; valid until the next change.
  const float* Row(int64_t r) const { return values_.data() + ToSize(first_ + r) * width_; }

  /// Makes room for calls that append `rows` rows to `held` rows that stay. No more than what a
  /// header alone may ask for; Append makes the rest.
  void Reserve(int64_t held, int64_t rows, uint64_t& memory_bytes);
  /// Copies `count` rows to the end. Throws when the rows held would be more than a block may hold;
  /// the queue stays as it was then.
  void Append(const float* rows, int64_t count, uint64_t& memory_bytes);
  /// Drops the oldest `count` rows, or all when there are fewer; a negative count drops none.
  void DropFront(int64_t count);
  void Clear() { DropFront(rows_); }

 private:
  void MakeRoom(int64_t count, uint64_t& memory_bytes);

  size_t width_;
  int64_t first_ = 0;  // row of the array at which the queue begins
  int64_t rows_ = 0;
  FloatArray values_;
};

/// Which ends of the input the next call is at, and has to pad: the start until a call has padded
/// it, the end in the call that is marked as the last.
struct ChunkEnds {
  bool first_chunk = true;
  bool last_chunk = false;
};

/// The base of layers whose output depends on the ends of the input. A negative call_id marks the
/// last call; the layers clear both marks once they have padded.
class ChunkLayer : public Component, public ChunkEnds {
 public:
  bool MapsFrameForFrame() const override { return false; }
  void Reset() override {
    first_chunk = true;
    last_chunk = false;
  }
  void PropagateChunk(const float* in, int64_t frames, int in_dim, float* out,
                      int call_id) override {
    if (call_id < 0) last_chunk = true;
    PropagateFnc(in, frames, in_dim, out, call_id);
  }

 protected:
  using Component::Component;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_STREAM_NNET_CHUNK_LAYER_H_
