#ifndef NNET_ACTIVATION_H_
#define NNET_ACTIVATION_H_

// Element-wise and row-wise layers. None changes the width of a row.

#include "nnet/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Shared by the one-dimensional activations: rows of input_dim floats, whatever the caller's
/// width.
template <int kCode>
class RowActivation : public LayerOf<kCode> {
 public:
  using LayerOf<kCode>::LayerOf;
  CallExtent Extent(int64_t frames, int /*in_dim*/) const override {
    const uint64_t floats = BlockFloats(1, this->input_dim, frames);
    return {floats, floats};
  }

 protected:
  size_t Width() const { return ToSize(this->input_dim); }
};

/// Shared by the channel activations: input_channel planes of the caller's width.
template <int kCode>
class PlaneActivation : public ChannelLayerOf<kCode> {
 public:
  using ChannelLayerOf<kCode>::ChannelLayerOf;
  CallExtent Extent(int64_t frames, int in_dim) const override {
    const uint64_t floats = BlockFloats(this->input_channel, this->CallInputDim(in_dim), frames);
    return {floats, floats};
  }

 protected:
  /// Adapts the dimensions and returns the number of rows of input_dim floats in a call.
  size_t AdoptRows(int64_t frames, int in_dim) {
    this->AdoptWidth(in_dim);
    return ToSize(frames) * ToSize(this->input_channel);
  }
};

/// The slope of the parametric rectifiers for inputs that are not positive.
struct Slope {
  float alpha = 0.0F;

  bool ReadText(FILE* fp);
};

class Softmax final : public RowActivation<0x201> {
 public:
  using RowActivation::RowActivation;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class Sigmoid final : public RowActivation<0x202> {
 public:
  using RowActivation::RowActivation;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class Relu final : public RowActivation<0x203> {
 public:
  using RowActivation::RowActivation;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class LogSoftmax final : public RowActivation<0x204> {
 public:
  using RowActivation::RowActivation;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class PRelu final : public RowActivation<0x205>, public Slope {
 public:
  using RowActivation::RowActivation;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  uint64_t ParameterCount() const override { return 1; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class Relu2d final : public PlaneActivation<0x206> {
 public:
  using PlaneActivation::PlaneActivation;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

class PRelu2d final : public PlaneActivation<0x207>, public Slope {
 public:
  using PlaneActivation::PlaneActivation;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  uint64_t ParameterCount() const override { return 1; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ACTIVATION_H_
