#ifndef NNET_DENSE_HIGHWAY_H_
#define NNET_DENSE_HIGHWAY_H_

// A gated residual layer.

#include <cstdint>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// A highway layer (Srivastava et al. 2015), for rows of D = O values:
///   y = h g + x (1 - g)  with h = relu(W_h x + b_h) and g = sigmoid(W_g x + b_g).
/// The fixed-point write gives symmetric 8-bit blocks, which no code of the model format reads
/// back.
class Highway final : public LayerOf<0x10f, Component, 0x10f> {
 public:
  using LayerOf::LayerOf;
  bool Validate(Refusal& why) override;
  BlockForm Form() const override { return {.codes = CodeForm::kSymmetric}; }
  bool HasFixedForm() const override { return false; }
  ParameterList MutableParameters() override;
  void Reserve(int64_t frames) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t dim = 0;
  WeightMatrix transform_weights;  // D x D
  WeightMatrix gate_weights;       // D x D
  FloatArray transform_bias;       // D
  FloatArray gate_bias;            // D
  FloatArray transform_buffer;     // frame_capacity x D
  FloatArray gate_buffer;          // frame_capacity x D
  int64_t frame_capacity = 0;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_HIGHWAY_H_
