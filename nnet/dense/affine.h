#ifndef NNET_DENSE_AFFINE_H_
#define NNET_DENSE_AFFINE_H_

// Layers that apply one dense weight matrix to every frame, and their fixed-point twins. Rows of
// input_dim values become rows of output_dim; an input row of another width is refused. Frames do
// not influence each other.

#include <cstdint>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// y = W x.
class LinearLayer : public Component {
 public:
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override { return {Weights()}; }
  BlockForm Form() const override {
    return {.codes = CodeForm::kSymmetric, .opening = MatrixOpening::kLenient};
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// The dimensions of the header, set by Validate.
  int32_t weight_rows = 0;
  int32_t weight_cols = 0;
  WeightMatrix weights;  // weight_rows x weight_cols
  /// Outputs that the weights have room for, a multiple of eight, and whether that is more than
  /// there are.
  int32_t row_capacity = 0;
  bool padded = false;

 protected:
  using Component::Component;
  /// The weights; the text form has them first.
  ParameterRef Weights();
  /// The product of the rows, ended as `end` says.
  void Multiply(const float* in, int64_t frames, int in_dim, const ProductEnd& end, float* out);
};

/// y = W x + b. The binary form has the bias first, the text form the weights.
class AffineLayer : public LinearLayer {
 public:
  ParameterList MutableParameters() override;
  BlockForm Form() const override {
    return {.codes = CodeForm::kAsymmetric, .opening = MatrixOpening::kLenient};
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray bias;  // weight_rows

 protected:
  using LinearLayer::LinearLayer;
};

/// y = scale (W x). A one-hot row picks a column of the weights.
class EmbeddingLayer : public LinearLayer {
 public:
  FieldList Fields() override { return {{"<Scale>", &scale}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  float scale = 0.0F;

 protected:
  using LinearLayer::LinearLayer;
};

/// y = W x + b with 32-bit floats in the file, which can be mapped.
class AffineTransform final : public LayerOf<0x100, AffineLayer> {
 public:
  using LayerOf::LayerOf;
  bool MapData(const char** cursor) override;
};

/// y = W x + b, stored as asymmetric 8-bit blocks.
class FixedAffineTransform final : public FixedLayerOf<0x800, AffineLayer> {
 public:
  using FixedLayerOf::FixedLayerOf;
  /// Always false: there is no text form, and the binary form is read by ReadData.
  bool ReadTextData(FILE* /*fp*/, bool /*binary*/) override { return false; }
};

using LinearTransform = LayerOf<0x101, LinearLayer>;
using FixedLinearTransform = FixedLayerOf<0x801, LinearLayer>;
using Embedding = LayerOf<0x10b, EmbeddingLayer>;
using FixedEmbedding = FixedLayerOf<0x80b, EmbeddingLayer>;

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_AFFINE_H_
