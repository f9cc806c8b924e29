#ifndef NNET_ATTENTION_ATTENTION_H_
#define NNET_ATTENTION_ATTENTION_H_

// What the transformer blocks share: scaled dot-product attention in heads (Vaswani et al. 2017),
// and the nested layers that project, feed forward and normalise.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <source_location>
#include <span>
#include <vector>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// The base of transformer blocks: a head count and complete nested layers, all of which map frames
/// one to one, rows of model_dim to rows of model_dim but for the two feed-forward layers, which
/// pass through a hidden width that is no smaller. Head h of a row is its columns h * head_dim up
/// to (h + 1) * head_dim. Reading refuses blocks of which this does not hold.
class AttentionLayer : public Component {
 public:
  FieldList Fields() override { return {{"<HeadNum>", &head_num}}; }
  bool Validate(Refusal& why) override;
  bool AcceptNested(size_t index, Refusal& why) override;
  bool HasFixedForm() const override;
  void Link(NetworkLinks& links) override { position_ = links.position(); }
  void Reserve(int64_t frames) override;
  void Reset() override;
  uint64_t ExtraWork(int64_t frames, int /*in_dim*/) const override {
    return AttentionWork(frames, frames);
  }

  int32_t head_num = 0;
  /// Width of all rows but the hidden ones; a head has head_dim = model_dim / head_num columns of
  /// it.
  int32_t model_dim = 0;
  int32_t head_dim = 0;
  std::array<NestedLayer, 4> self_atten_layers;  // query, key, value and output projection
  /// To the hidden width and back; a rectifier runs between them.
  std::array<NestedLayer, 2> ff_layers;
  /// Rows that the buffers hold.
  int64_t frame_capacity = 0;
  /// Calls since the last reset, the call_id of the nested layers.
  int32_t propagate_count = 0;

 protected:
  using Component::Component;

  /// The place in the source under which refusals are logged.
  virtual std::source_location Place() const = 0;
  /// Makes room for a call of `frames` frames; throws when a buffer would be too large.
  virtual void GrowBuffers(int64_t frames) = 0;

  /// Grows a buffer to `floats` floats; throws when that is more than a block may hold.
  void GrowBlock(FloatArray& buffer, uint64_t floats);
  /// Makes room for the scores of one tile of query rows against `keys` keys, and for the keys or
  /// values of one head.
  void ReserveScores(int64_t queries, int64_t keys);
  /// For each head, context = softmax(query key' / sqrt(head_dim)) value. Rows are model_dim wide,
  /// `queries` of query and context, `keys` of key and value. Without keys the context is 0. Needs
  /// ReserveScores for these counts.
  void Attend(const float* query, int64_t queries, const float* key, const float* value,
              int64_t keys, float* context);
  /// Work of so many queries over so many keys: both products, and about 16 steps an exponential.
  uint64_t AttentionWork(int64_t queries, int64_t keys) const {
    return BlockFloats(queries, keys, 2 * int64_t{model_dim} + 16 * int64_t{head_num});
  }
  /// Floats that the first feed-forward layer writes for `frames` frames.
  uint64_t HiddenFloats(int64_t frames) const;
  /// Runs a nested layer on `frames` rows of model_dim floats, giving rows of model_dim floats.
  /// Throws when the layer does not keep within them or gives another number of frames.
  void RunNested(Component& layer, const float* in, int64_t frames, float* out);
  /// Runs both feed-forward layers with a rectifier between them. `hidden` holds HiddenFloats; `in`
  /// and `out` may be the same.
  void FeedForward(const float* in, int64_t frames, float* hidden, float* out);
  /// Floats of `frames` rows of model_dim.
  uint64_t RowFloats(int64_t frames) const { return BlockFloats(1, model_dim, frames); }
  /// rows += other, over `frames` rows of model_dim floats.
  void AddRows(float* rows, int64_t frames, const float* other) const;
  /// Counts a call in propagate_count.
  void CountCall();

 private:
  /// What Nested gives, made once: a reset allocates nothing.
  NestedList nested_;
  /// The nested components that have been read so far.
  std::vector<const Component*> ReadComponents() const;

  /// The scores of some query rows of one head against all keys.
  FloatArray scores_;
  /// The keys and the values of one head in panels.
  FloatArray key_panels_;
  FloatArray value_panels_;
  /// The position in the network, for messages; 0 until it is linked.
  size_t position_ = 0;
};

/// Adds the layers of one group to a list of nested ones.
void AddGroup(NestedList& nested, const char* name, std::span<NestedLayer> layers);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_ATTENTION_H_
