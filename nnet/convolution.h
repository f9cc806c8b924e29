#ifndef NNET_CONVOLUTION_H_
#define NNET_CONVOLUTION_H_

// Convolutions over planes: one plane per channel, its rows the frames, its columns the feature
// positions. The two simple ones compute. The general ones are read, written and converted only.

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <vector>

#include "nnet/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// A stack of planes, `room` floats from plane to plane. It owns its values or views those of
/// somebody else, who outlives it.
class Tensor3 {
 public:
  Tensor3() = default;
  Tensor3(const float* values, size_t width_arg, size_t height_arg, size_t channels_arg)
      : width(width_arg),
        height(height_arg),
        channels(channels_arg),
        room(width_arg * height_arg),
        view(values) {}

  /// Takes the shape in memory of its own, which only grows, with room for whole vectors in every
  /// plane. What the planes hold is not defined then.
  void Reshape(size_t width_arg, size_t height_arg, size_t channels_arg, uint64_t& memory_bytes);

  size_t PlaneSize() const { return width * height; }
  float* Plane(size_t channel) { return owned.data() + channel * room; }
  const float* Plane(size_t channel) const {
    return (view != nullptr ? view : owned.data()) + channel * room;
  }

  size_t width = 0;
  size_t height = 0;
  size_t channels = 0;
  size_t room = 0;

 private:
  FloatArray owned;
  const float* view = nullptr;
};

/// A layer that a model may hold but that does not compute.
template <int kCode>
class StoredLayer : public ChannelLayerOf<kCode> {
 public:
  using ChannelLayerOf<kCode>::ChannelLayerOf;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t /*frames*/, int /*in_dim*/) const override { return {0, 0}; }
};

class Conv2d final : public StoredLayer<0x301> {
 public:
  using StoredLayer::StoredLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
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
  int64_t kernel_count = 0;

 private:
  bool SetShape();

  int64_t blocks = 0;  // input channels x output channels / groups
};

/// Whole components that a layer consists of, in order.
struct ComponentList {
  std::vector<std::unique_ptr<Component>> components;

  /// Reads one component for each name; says in the log which one is missing.
  bool ReadComponents(FILE* fp, bool binary, std::span<const char* const> names,
                      uint64_t& memory_bytes);
  bool WriteComponents(FILE* fp) const;
  uint64_t CountParameters() const;
};

template <int kCode, const auto& kNames>
class CompositeLayer : public StoredLayer<kCode>, public ComponentList {
 public:
  using StoredLayer<kCode>::StoredLayer;
  bool ReadData(FILE* fp) override { return ReadTextData(fp, true); }
  bool ReadTextData(FILE* fp, bool binary) override {
    return ReadComponents(fp, binary, kNames, this->memory_bytes);
  }
  bool WriteData(FILE* fp) const override { return WriteComponents(fp); }
  uint64_t ParameterCount() const override { return CountParameters(); }
};

// What is expected at the positions of a composite.
inline constexpr std::array kConvBN2dParts = {"Conv2d", "BatchNorm2d", "PRelu2d"};
inline constexpr std::array kConvDW2dParts = {"Conv2d", "BatchNorm2d", "PRelu2d",
                                              "Conv2d", "BatchNorm2d", "PRelu2d"};
inline constexpr std::array kSeperableConv2dParts = {"Conv2d", "PRelu2d", "Conv2d"};

using ConvBN2d = CompositeLayer<0x302, kConvBN2dParts>;
using ConvDW2d = CompositeLayer<0x303, kConvDW2dParts>;
using SeperableConv2d = CompositeLayer<0x304, kSeperableConv2dParts>;

/// What the two simple convolutions have in common: three weights over the feature axis for every
/// output and input channel, and a bias.
template <int kCode>
class SimpleLayer : public ChannelLayerOf<kCode> {
 public:
  using ChannelLayerOf<kCode>::ChannelLayerOf;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  ParameterList MutableParameters() override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  FloatArray kernel;  // (output channel x input channels + input channel) x 3
  FloatArray bias_vector;

 protected:
  /// Output positions for so many input positions where the model sets none.
  virtual int64_t DefaultWidth(int64_t in_width) const = 0;
  /// Takes the widths of this call; false when there is nothing to compute.
  bool AdoptWidths(int64_t frames, int in_dim);
  /// Throws: the output width does not fit the input width.
  [[noreturn]] void ThrowWidths(int64_t out_width) const;

 private:
  int64_t OutWidth(int in_dim) const {
    return this->output_dim_set ? this->output_dim : DefaultWidth(in_dim);
  }
};

/// Halves the feature axis: out[x] = bias + the sum over input channels of
///   in[2x - 1] w0 + in[2x] w1 + in[2x + 1] w2,  a zero on either side of the row.
class SimpleConv2d1x3s2 final : public SimpleLayer<0x305> {
 public:
  using SimpleLayer::SimpleLayer;
  void Reserve(int64_t frames) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 protected:
  int64_t DefaultWidth(int64_t in_width) const override { return in_width / 2; }

 private:
  void Gather(const Tensor3& in, size_t out_width);

  /// The input values at 2x - 1, 2x and 2x + 1 for every output position.
  std::array<Tensor3, 3> taps;
};

/// Doubles the feature axis: in[x] adds in[x] w0 to out[2x - 1], in[x] w1 to out[2x] and in[x] w2
/// to out[2x + 1], channel by channel, position by position; out[-1] is cropped.
class SimpleDeconv2d1x3s2 final : public SimpleLayer<0x306> {
 public:
  using SimpleLayer::SimpleLayer;
  void Reserve(int64_t frames) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 protected:
  int64_t DefaultWidth(int64_t in_width) const override { return 2 * in_width; }

 private:
  void Gather(const Tensor3& in);

  /// The input, the input one position further, and a plane of 1 where that lies in the same row.
  Tensor3 here;
  Tensor3 next;
  Tensor3 has_next;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONVOLUTION_H_
