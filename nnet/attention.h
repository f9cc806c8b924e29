#ifndef NNET_ATTENTION_H_
#define NNET_ATTENTION_H_

// What the transformer blocks share: the arithmetic of attention heads, and the nested layers that
// project, feed forward and normalise.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <source_location>
#include <span>
#include <vector>

#include "nnet/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// How rows of model_dim values are cut into heads: head h is the columns h * head_dim up to
/// (h + 1) * head_dim.
struct AttentionHeads {
  int32_t head_num = 0;
  int32_t model_dim = 0;
  int32_t head_dim = 0;
  /// The scores of some query rows of one head against all keys.
  FloatArray scores;

  void ReserveScores(int64_t queries, int64_t keys, uint64_t& memory_bytes);
  /// For each head, context = softmax(query key' / sqrt(head_dim)) value. Rows are model_dim wide,
  /// `queries` of query and context, `keys` of key and value. Without keys the context is 0.
  void Attend(const float* query, int64_t queries, const float* key, const float* value,
              int64_t keys, float* context);
};

/// Grows a buffer to so many floats; throws when that is more than a block may hold.
void GrowBlock(FloatArray& buffer, uint64_t floats, uint64_t& memory_bytes);

using NestedLayer = std::unique_ptr<Component>;

/// Nested layers that messages name together, in file order.
struct NestedGroup {
  const char* name;
  std::span<NestedLayer> layers;
};

/// A transformer block: a head count and complete nested layers, all of which map frames one to
/// one, rows of model_dim to rows of model_dim but for the two of the group "ff", which pass
/// through a hidden width that is no smaller.
template <int kCode>
class AttentionLayer : public LayerOf<kCode>, public AttentionHeads {
 public:
  using LayerOf<kCode>::LayerOf;
  bool WriteData(FILE* fp) const override;
  bool WriteFixedData(FILE* fp) const override;
  uint64_t ParameterCount() const override;
  bool HasFixedForm() const override;
  void Reserve(int64_t frames) override;
  void Reset() override;

  std::array<NestedLayer, 4> self_atten_layers;  // query, key, value and output projection
  std::array<NestedLayer, 2> ff_layers;
  /// Rows that the buffers hold.
  int64_t frame_capacity = 0;
  /// Calls since the last reset, the call_id of the nested layers.
  int32_t propagate_count = 0;

 protected:
  /// All nested layers in file order.
  virtual std::vector<NestedGroup> Groups() = 0;
  virtual void GrowBuffers(int64_t frames) = 0;

  /// Read the block; reasons for a refusal are logged for the caller's place.
  bool ReadBinary(FILE* fp, std::source_location where);
  bool ReadText(FILE* fp, std::source_location where);

  /// Floats that the first feed-forward layer writes for so many frames.
  uint64_t HiddenFloats(int64_t frames) const;
  /// Runs a nested layer on `frames` rows of model_dim floats, giving rows of model_dim floats.
  void RunNested(Component& layer, const float* in, int64_t frames, float* out);
  /// Runs both feed-forward layers with a rectifier between them. `hidden` holds HiddenFloats; `in`
  /// and `out` may be the same.
  void FeedForward(const float* in, int64_t frames, float* hidden, float* out);
  /// Floats of so many rows of model_dim.
  uint64_t RowFloats(int64_t frames) const { return BlockFloats(1, model_dim, frames); }
  /// rows += other, over `frames` rows of model_dim floats.
  void AddRows(float* rows, int64_t frames, const float* other) const;
  void CountCall();

 private:
  bool ReadNested(FILE* fp, bool binary, std::source_location where);
  bool SetShape(std::source_location where);
  bool Fits(const NestedGroup& group, size_t index, std::source_location where) const;
  std::vector<const Component*> Nested() const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_H_
