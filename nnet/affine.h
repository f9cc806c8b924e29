#ifndef NNET_AFFINE_H_
#define NNET_AFFINE_H_

// Layers that apply one dense weight matrix to every frame.

#include <cstdint>
#include <optional>

#include "nnet/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// The parameters of a dense layer and its product. Row r of `weights` holds the weights of output
/// r; the array has room for `row_capacity` rows, those beyond `weight_rows` are zeros.
struct LinearParameters {
  int32_t weight_rows = 0;
  int32_t weight_cols = 0;
  FloatArray weights;
  bool padded = false;
  int32_t row_capacity = 0;

  /// Takes the shape from the layer's dimensions; false when one is negative.
  bool SetShape(const Component& layer);
  ParameterRef WeightRef();
  ParameterList List() { return {WeightRef()}; }
  /// out (frames x weight_rows) = in (frames x weight_cols) * weights'.
  void Propagate(const float* in, int64_t frames, float* out) const;
};

struct AffineParameters : LinearParameters {
  FloatArray bias;

  ParameterRef BiasRef();
  ParameterList List() { return {BiasRef(), WeightRef()}; }
  void Propagate(const float* in, int64_t frames, float* out) const;
};

struct EmbeddingParameters : LinearParameters {
  float scale = 0.0F;

  void ReadScaleProperty(FILE* fp);
  /// Every output is multiplied by `scale`; a one-hot row picks a column of the weights.
  void Propagate(const float* in, int64_t frames, float* out) const;
};

/// What a dense layer and its fixed-point twin have in common: parameters and computation.
template <int kCode, class Dense>
class DenseLayer : public LayerOf<kCode>, public Dense {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override { return Dense::List(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                    int /*call_id*/) override {
    this->RequireWidth(this->weight_cols, in_dim);
    Dense::Propagate(in, frames, out);
  }
};

/// y = W x + b.
class AffineTransform final : public DenseLayer<0x100, AffineParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool MapData(const char** cursor) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  bool WriteFixedData(FILE* fp) const override;
};

/// y = W x.
class LinearTransform final : public DenseLayer<0x101, LinearParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  bool WriteFixedData(FILE* fp) const override;
};

/// y = scale (W x).
class Embedding final : public DenseLayer<0x10b, EmbeddingParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  bool WriteFixedData(FILE* fp) const override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_AFFINE_H_
