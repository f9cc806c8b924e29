#ifndef NNET_ATTENTION_DECODER_LAYER_H_
#define NNET_ATTENTION_DECODER_LAYER_H_

#include <algorithm>

#include "nnet/attention/attention.h"

namespace tarev::nnet::handwriting_CTC {

/// A pre-normalised transformer decoder block (Vaswani et al. 2017, with the normalisation before
/// each sub-layer) that advances frame by frame through a sequence. A step attends over itself and
/// the steps before it, then over a memory that the application may set, then feeds forward:
///   X' = X + SelfAttention(Norm0(X)),  X'' = X' + MemoryAttention(Norm1(X')),
///   output = X'' + FeedForward(Norm2(X'')).
/// X'' replaces the input rows. A call of several frames is as many steps; a sequence lasts from
/// reset to reset and may have any number of them.
class Decoder final : public LayerOf<0x10a, AttentionLayer> {
 public:
  using LayerOf::LayerOf;
  NestedList Nested() override;
  void Reset() override;
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  /// Every step attends to all steps before it and to the memory.
  uint64_t ExtraWork(int64_t frames, int /*in_dim*/) const override {
    return AttentionWork(frames, step_count + std::max<int64_t>(frames, 0) + memory_frames);
  }

  /// Makes the steps up to the next reset attend over `frames` rows of model_dim floats. The rows
  /// are not copied: they must stay until the next step has projected them, and projections that
  /// work in place change them. Without a memory that attention sees zeros. Throws "Wrong
  /// parameter(s)!" for a negative count and for missing rows.
  void SetMemory(float* rows, int64_t frames);

  std::array<NestedLayer, 4> cross_atten_layers;  // query, key, value and output projection
  std::array<NestedLayer, 3> sub_layers;          // the normalisations
  FloatArray query;                               // of the newest step, one row
  FloatArray key_cache;                           // frame_capacity x model_dim, a row a step
  FloatArray value_cache;
  FloatArray cross_query;  // of the newest step, one row
  /// One row: the attention context, then the hidden row of the feed-forward layers.
  FloatArray context_buffer;
  /// Steps since the last reset.
  int64_t step_count = 0;
  /// What SetMemory was given, not owned; null without a memory.
  float* memory = nullptr;
  int64_t memory_frames = 0;
  /// The memory projected to keys and values, memory_frames x model_dim.
  FloatArray memory_keys;
  FloatArray memory_values;
  /// Whether the memory has been projected to keys and values.
  bool memory_ready = false;

 protected:
  std::source_location Place() const override;
  void GrowBuffers(int64_t steps) override;

 private:
  /// One step on one input row, which receives the sums on the way, and one output row.
  void Step(float* row, float* out);
  /// The two attentions of a step: they read the normalised row from `out`, use it as a buffer and
  /// add their result to `row`.
  void AttendToSteps(float* row, float* out);
  void AttendToMemory(float* row, float* out);
  /// Makes memory_keys and memory_values current.
  void ProjectMemory();
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_DECODER_LAYER_H_
