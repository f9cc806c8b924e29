#ifndef NNET_ATTENTION_ENCODER_LAYER_H_
#define NNET_ATTENTION_ENCODER_LAYER_H_

#include "nnet/attention/attention.h"

namespace tarev::nnet::handwriting_CTC {

/// A pre-normalised transformer encoder block (Vaswani et al. 2017, with the normalisation before
/// each sub-layer). X' = X + SelfAttention(Norm0(X)) over the frames of a call, without mask;
/// output = X' + FeedForward(Norm1(X')). X' replaces the input rows. Nothing is carried from call
/// to call but what nested layers carry.
class Encoder final : public LayerOf<0x109, AttentionLayer> {
 public:
  using LayerOf::LayerOf;
  NestedList Nested() override;
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  std::array<NestedLayer, 2> sub_layers;  // the normalisations
  /// Projections of the normalised rows, frame_capacity x model_dim each.
  FloatArray query_buffer;
  FloatArray key_buffer;
  FloatArray value_buffer;
  /// The attention context, then the hidden rows of the feed-forward layers.
  FloatArray hidden_buffer;

 protected:
  std::source_location Place() const override;
  void GrowBuffers(int64_t frames) override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_ENCODER_LAYER_H_
