#ifndef NNET_DENSE_ACTIVATION_H_
#define NNET_DENSE_ACTIVATION_H_

// Element-wise and row-wise layers. None changes the width of a row.

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// A layer that gives a row for every row it takes, at the same width. A width that the model does
/// not set follows the caller's.
class RowLayer : public Component {
 public:
  bool Validate(Refusal& why) override { return why.SameWidth(input_dim, output_dim); }
  CallPlan Plan(int64_t frames, int in_dim) const override { return SameRowsPlan(frames, in_dim); }

 protected:
  using Component::Component;
  /// Adapts the dimensions and returns the width of the rows of this call.
  size_t AdoptRow(int in_dim) {
    AdoptSameWidth(in_dim);
    return ToSize(input_dim);
  }
};

/// The same with parameters for every column: rows must have the width that those have.
class ColumnLayer : public RowLayer {
 protected:
  using RowLayer::RowLayer;
  size_t RequireRow(int in_dim) {
    RequireWidth(input_dim, in_dim);
    return AdoptRow(in_dim);
  }
};

/// The same as RowLayer over input_channel planes.
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

class Softmax final : public LayerOf<0x201, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class Sigmoid final : public LayerOf<0x202, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class Relu final : public LayerOf<0x203, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class LogSoftmax final : public LayerOf<0x204, RowLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// x where x > 0, else alpha x.
class PRelu final : public LayerOf<0x205, RowLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<Alpha>", &alpha, FieldUse::kRequired}}; }
  uint64_t ParameterCount() const override { return 1; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  float alpha = 0.0F;
};

class Relu2d final : public LayerOf<0x206, PlaneLayer> {
 public:
  using LayerOf::LayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

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
