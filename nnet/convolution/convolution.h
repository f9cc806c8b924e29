#ifndef NNET_CONVOLUTION_CONVOLUTION_H_
#define NNET_CONVOLUTION_CONVOLUTION_H_

// Convolutions over planes: one plane per channel, its rows the frames, its columns the feature
// positions. The two simple ones compute. The general ones are read, written and converted only.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <vector>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// A stack of planes, `room` floats from plane to plane. It owns its values or views values that
/// are owned elsewhere and outlive it; a view has no spare room and must not be written.
class Tensor3 {
 public:
  Tensor3() = default;
  Tensor3(const float* values, size_t width_arg, size_t height_arg, size_t channels_arg)
      : width(width_arg),
        height(height_arg),
        channels(channels_arg),
        room(width_arg * height_arg),
        view_(values) {}

  /// Takes the shape in memory of its own, which only grows, with room for whole vectors in every
  /// plane. The planes hold nothing of meaning then.
  void Reshape(size_t width_arg, size_t height_arg, size_t channels_arg, uint64_t& memory_bytes);

  size_t PlaneSize() const { return width * height; }
  float* Plane(size_t channel) { return owned_.data() + channel * room; }
  const float* Plane(size_t channel) const {
    return (view_ != nullptr ? view_ : owned_.data()) + channel * room;
  }

  size_t width = 0;
  size_t height = 0;
  size_t channels = 0;
  size_t room = 0;

 private:
  FloatArray owned_;
  const float* view_ = nullptr;
};

/// The base of layers that a model may hold but that do not compute: a call throws. They can be
/// read, written and converted.
class StoredLayer : public ChannelComponent {
 public:
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallPlan Plan(int64_t frames, int /*in_dim*/) const override {
    return {CalcOutputFrames(frames), 0, 0};
  }

 protected:
  using ChannelComponent::ChannelComponent;
};

/// A general convolution over planes; stored only.
class Conv2d final : public LayerOf<0x301, StoredLayer> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override;

  int32_t kernel_height = 0;
  int32_t kernel_width = 0;
  int32_t stride_height = 1;
  int32_t stride_width = 1;
  int32_t padding_top = 0;
  int32_t padding_bottom = 0;
  int32_t padding_left = 0;
  int32_t padding_right = 0;
  int32_t dilation_height = 1;
  int32_t dilation_width = 1;
  int32_t groups = 1;
  int32_t has_bias = 0;
  FloatArray kernel;  // blocks x kernel_height x kernel_width
  FloatArray bias_vector;
  /// Floats of the kernel.
  int64_t kernel_count = 0;

 private:
  int64_t blocks_ = 0;  // input channels x output channels / groups
};

/// The base of layers that consist of whole components of any type; stored only. Their fixed-point
/// form is their float form.
class CompositeLayer : public StoredLayer {
 public:
  NestedList Nested() override;
  bool AcceptNested(size_t index, Refusal& why) override;
  bool WriteFixedData(FILE* fp) const override { return WriteData(fp); }

  std::vector<NestedLayer> components;

 protected:
  using StoredLayer::StoredLayer;
  /// What messages call the component at each position.
  virtual std::span<const char* const> Names() const = 0;
};

/// A composite with the given code and names of its components, in file order.
template <int kCode, const auto& kNames>
class CompositeOf final : public LayerOf<kCode, CompositeLayer> {
 public:
  using LayerOf<kCode, CompositeLayer>::LayerOf;

 private:
  std::span<const char* const> Names() const override { return kNames; }
};

inline constexpr std::array kConvBN2dParts = {"Conv2d", "BatchNorm2d", "PRelu2d"};
inline constexpr std::array kConvDW2dParts = {"Conv2d", "BatchNorm2d", "PRelu2d",
                                              "Conv2d", "BatchNorm2d", "PRelu2d"};
inline constexpr std::array kSeperableConv2dParts = {"Conv2d", "PRelu2d", "Conv2d"};

using ConvBN2d = CompositeOf<0x302, kConvBN2dParts>;
using ConvDW2d = CompositeOf<0x303, kConvDW2dParts>;
using SeperableConv2d = CompositeOf<0x304, kSeperableConv2dParts>;

/// The base of the two simple convolutions: three weights over the feature axis for every output
/// and input channel, and a bias. Frames do not influence each other.
class SimpleLayer : public ChannelComponent {
 public:
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  /// Every weight meets every output position.
  uint64_t ExtraWork(int64_t frames, int in_dim) const override {
    return BlockFloats(static_cast<int64_t>(kernel.size()), std::max<int64_t>(OutWidth(in_dim), 0),
                       frames);
  }

  FloatArray kernel;  // (output channel x input channels + input channel) x 3
  FloatArray bias_vector;

 protected:
  using ChannelComponent::ChannelComponent;
  /// Output positions for in_width input positions where the model sets none.
  virtual int64_t DefaultWidth(int64_t in_width) const = 0;
  /// Takes the widths of this call; false when there is nothing to compute. Throws when the output
  /// width is more than an int32 holds.
  bool AdoptWidths(int64_t frames, int in_dim);
  /// Throws: the output width does not fit the input width.
  [[noreturn]] void ThrowWidths(int64_t out_width) const;

 private:
  int64_t OutWidth(int in_dim) const { return output_dim_set ? output_dim : DefaultWidth(in_dim); }
};

/// A convolution of stride 2, which halves the feature axis: out[x] = bias + the sum over input
/// channels of
///   in[2x - 1] w0 + in[2x] w1 + in[2x + 1] w2,  a zero on either side of the row.
/// A call throws when the output dimension is more than (W + 1) / 2.
class SimpleConv2d1x3s2 final : public LayerOf<0x305, SimpleLayer> {
 public:
  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 protected:
  int64_t DefaultWidth(int64_t in_width) const override { return in_width / 2; }

 private:
  /// Fills taps_ for rows of out_width output positions.
  void Gather(const Tensor3& in, size_t out_width);

  /// The input values at 2x - 1, 2x and 2x + 1 for every output position.
  std::array<Tensor3, 3> taps_;
};

/// A transposed convolution of stride 2, which doubles the feature axis: in[x] adds in[x] w0 to
/// out[2x - 1], in[x] w1 to out[2x] and in[x] w2 to out[2x + 1], channel by channel, position by
/// position; out[-1] is cropped. A call throws when the output dimension is not 2 W.
class SimpleDeconv2d1x3s2 final : public LayerOf<0x306, SimpleLayer> {
 public:
  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 protected:
  int64_t DefaultWidth(int64_t in_width) const override { return 2 * in_width; }

 private:
  /// Fills the three stacks below.
  void Gather(const Tensor3& in);

  /// The input, the input one position further, and a plane of 1 where that lies in the same row.
  Tensor3 here_;
  Tensor3 next_;
  Tensor3 has_next_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONVOLUTION_CONVOLUTION_H_
