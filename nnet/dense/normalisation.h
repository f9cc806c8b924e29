#ifndef NNET_DENSE_NORMALISATION_H_
#define NNET_DENSE_NORMALISATION_H_

// Layers that rescale frames with stored statistics or with those of each frame. None changes the
// width of a row.

#include <cstdint>

#include "nnet/contract/nnet-component.h"
#include "nnet/dense/activation.h"

namespace tarev::nnet::handwriting_CTC {

/// Scales every row to the root mean square `target_rms`; see rms_norm.
class NormalizeComponent final : public LayerOf<0x404, RowLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<TargetRms>", &target_rms}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  float target_rms = 1.0F;
};

/// Batch normalisation (Ioffe and Szegedy 2015) without gain and offset, per column:
///   y = target_rms (x - mean) / sqrt(variance + epsilon).
/// The first call folds the statistics: `variance` then holds the scale and `mean` the offset, and
/// so does what is written. Works in place: after a call the input rows hold the output.
class BatchNormComponent final : public LayerOf<0x405, ColumnLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override;
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t block_dim = 0;
  float epsilon = 0.0F;
  float target_rms = 1.0F;  // the binary block carries neither this nor epsilon
  int32_t count = 0;        // frames that the statistics were taken from; no computation uses it
  FloatArray mean;
  FloatArray variance;
  bool folded = false;  // whether scale and offset have taken the place of the statistics

 private:
  void Fold();
};

/// Statistics, gain and offset of a batch normalisation, n values each; n is the number of columns
/// or of channels.
struct BatchNormParameters {
  float epsilon = 0.0F;
  FloatArray mean;
  FloatArray variance;
  FloatArray gamma;
  FloatArray beta;

  /// The four arrays in file order.
  ParameterList List(int32_t n);
  /// gamma / sqrt(variance + epsilon) and what is added to values so scaled.
  float Scale(size_t i) const;
  float Shift(size_t i, float scale) const { return beta[i] - mean[i] * scale; }
};

/// Batch normalisation per column:
///   y = gamma (x - mean) / sqrt(variance + epsilon) + beta.
/// The first call folds the statistics: `gamma` then holds the scale and `beta` the offset, and so
/// does what is written. Works in place: after a call the input rows hold the output.
class BatchNorm1d final : public LayerOf<0x409, ColumnLayer>, public BatchNormParameters {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<Epsilon>", &epsilon}}; }
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override { return List(input_dim); }
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  bool folded = false;

 private:
  void Fold();
};

/// The same per channel; nothing is folded and the input stays as it is.
class BatchNorm2d final : public LayerOf<0x407, PlaneLayer>, public BatchNormParameters {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<Epsilon>", &epsilon}}; }
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override { return List(input_channel); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// Layer normalisation with mean and unbiased standard deviation of each row; see layer_norm:
///   y = gamma (x - mean) / (epsilon + deviation) + beta.
class LayerNorm final : public LayerOf<0x406, ColumnLayer> {
 public:
  LayerNorm(int first, int second);
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t norm_dim;  // the text form does not carry it
  float epsilon = 0.0F;
  FloatArray gamma;  // norm_dim
  FloatArray beta;   // norm_dim
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_NORMALISATION_H_
