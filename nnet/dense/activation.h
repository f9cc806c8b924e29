#ifndef NNET_DENSE_ACTIVATION_H_
#define NNET_DENSE_ACTIVATION_H_

// Element-wise and row-wise layers. None changes the width of a row or the number of frames, and
// none carries anything from call to call. Exponentials and logarithms are those of
// utils/fast-math.h.

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// The base of layers that give a row for every row, at the same width. A width that the model does
/// not set follows the caller's.
class RowLayer : public Component {
 public:
  bool Validate(Refusal& why) override { return why.SameWidth(input_dim, output_dim); }
  CallPlan Plan(int64_t frames, int in_dim) const override { return SameRowsPlan(frames, in_dim); }

 protected:
  using Component::Component;
  /// Adopts the caller's width where none is set and returns the width of the rows of this call.
  /// Throws when the output dimension is set and another.
  size_t AdoptRow(int in_dim) {
    AdoptSameWidth(in_dim);
    return ToSize(input_dim);
  }
};

/// The same with parameters for every column: rows must have the width of the parameters.
class ColumnLayer : public RowLayer {
 protected:
  using RowLayer::RowLayer;
  /// Throws unless in_dim is that width; returns it.
  size_t RequireRow(int in_dim) {
    RequireWidth(input_dim, in_dim);
    return AdoptRow(in_dim);
  }
};

/// As RowLayer, over the rows of input_channel planes.
class PlaneLayer : public ChannelComponent {
 public:
  bool Validate(Refusal& why) override;
  CallPlan Plan(int64_t frames, int in_dim) const override { return SameRowsPlan(frames, in_dim); }

 protected:
  using ChannelComponent::ChannelComponent;
  /// Adapts the dimensions and returns the number of rows of input_dim floats in a call.
  size_t AdoptRows(int64_t frames, int in_dim) {
    AdoptSameWidth(in_dim);
    return ToSize(frames) * ToSize(input_channel);
  }
};

/// y = e^(x - max) / Σ e^(x - max) over each row.
class Softmax final : public LayerOf<0x201, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// y = 1 / (1 + e^-x).
class Sigmoid final : public LayerOf<0x202, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// y = max(x, 0); NaN gives 0.
class Relu final : public LayerOf<0x203, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// y = ln of the softmax of each row; at least about -88.
class LogSoftmax final : public LayerOf<0x204, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// y = x where x > 0, else alpha x (He et al. 2015), with one alpha for all columns.
class PRelu final : public LayerOf<0x205, RowLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<Alpha>", &alpha, FieldUse::kRequired}}; }
  uint64_t ParameterCount() const override { return 1; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  float alpha = 0.0F;
};

/// y = max(x, 0) over planes; NaN gives 0.
class Relu2d final : public LayerOf<0x206, PlaneLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// y = x where x > 0, else alpha x, over planes, with one alpha for all channels.
class PRelu2d final : public LayerOf<0x207, PlaneLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<Alpha>", &alpha, FieldUse::kRequired}}; }
  uint64_t ParameterCount() const override { return 1; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  float alpha = 0.0F;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_ACTIVATION_H_
