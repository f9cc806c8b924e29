#include "nnet/convolution/convolution.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "nnet/contract/parameter-block.h"
#include "nnet/convolution/convolution-kernels.h"
#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

void Tensor3::Reshape(size_t width_arg, size_t height_arg, size_t channels_arg,
                      uint64_t& memory_bytes) {
  width = width_arg;
  height = height_arg;
  channels = channels_arg;
  room = PlaneRoom(PlaneSize());
  owned_.Grow(channels * room, memory_bytes);
}

// Layers that are stored only.

void StoredLayer::PropagateFnc(const float* /*in*/, int64_t /*frames*/, int /*in_dim*/,
                               float* /*out*/, int /*call_id*/) {
  ThrowError(Here(), "propagate function of [%s] is not implemented!", TypeMarker().c_str());
}

FieldList Conv2d::Fields() {
  return {{"<KernelHeight>", &kernel_height, FieldUse::kRequired},
          {"<KernelWidth>", &kernel_width, FieldUse::kRequired},
          {"<StrideHeight>", &stride_height},
          {"<StrideWidth>", &stride_width},
          {"<Top>", &padding_top},
          {"<Bottom>", &padding_bottom},
          {"<Left>", &padding_left},
          {"<Right>", &padding_right},
          {"<DilationHeight>", &dilation_height},
          {"<DilationWidth>", &dilation_width},
          {"<Groups>", &groups},
          {"<Bias>", &has_bias}};
}

bool Conv2d::Validate(Refusal& why) {
  if (!why.AtLeast("<KernelHeight>", kernel_height, 0) ||
      !why.AtLeast("<KernelWidth>", kernel_width, 0) || !why.AtLeast("<Groups>", groups, 1) ||
      !why.AtLeast("input channels", input_channel, 0) ||
      !why.AtLeast("output channels", output_channel, 0)) {
    return false;
  }
  const int64_t pairs = int64_t{input_channel} * output_channel;
  blocks_ = pairs / groups;
  return why.Equal("pairs of channels modulo <Groups>", pairs % groups, "wanted", 0) &&
         why.Require(
             !__builtin_mul_overflow(blocks_, int64_t{kernel_height} * kernel_width, &kernel_count),
             "kernel too large");
}

ParameterList Conv2d::MutableParameters() {
  ParameterList list = {Matrices("kernel", kernel, blocks_, {kernel_height, kernel_width})};
  if (has_bias != 0) {
    list.push_back(Uncounted(Vector("bias_vector", bias_vector, output_channel)));
  }
  return list;
}

NestedList CompositeLayer::Nested() {
  components.resize(Names().size());
  NestedList nested;
  for (size_t i = 0; i < components.size(); ++i) nested.push_back({Names()[i], &components[i]});
  return nested;
}

bool CompositeLayer::AcceptNested(size_t index, Refusal& why) {
  return components[index] != nullptr ||
         why.LogBecause(Here(), "Failed to read %s layer!", Names()[index]);
}

// What both simple convolutions have in common.

bool SimpleLayer::Validate(Refusal& why) {
  return why.AtLeast("input channels", input_channel, 0) &&
         why.AtLeast("output channels", output_channel, 0);
}

ParameterList SimpleLayer::MutableParameters() {
  const int64_t pairs = int64_t{output_channel} * input_channel;
  return {Matrices("kernel", kernel, pairs, {1, 3}),
          Vector("bias_vector", bias_vector, output_channel)};
}

CallPlan SimpleLayer::Plan(int64_t frames, int in_dim) const {
  return {CalcOutputFrames(frames), BlockFloats(input_channel, CallInputDim(in_dim), frames),
          BlockFloats(output_channel, OutWidth(in_dim), frames)};
}

bool SimpleLayer::AdoptWidths(int64_t frames, int in_dim) {
  const int64_t out_width = OutWidth(in_dim);
  if (out_width > std::numeric_limits<int32_t>::max()) ThrowWidths(out_width);
  if (!input_dim_set) input_dim = in_dim;
  output_dim = static_cast<int32_t>(out_width);
  return frames > 0 && input_dim > 0 && out_width > 0 && output_channel > 0;
}

void SimpleLayer::ThrowWidths(int64_t out_width) const {
  ThrowError(Here(), "mismatched widths! layer[%s] input [%d] output [%" PRId64 "]",
             TypeMarker().c_str(), input_dim, out_width);
}

// Halving. The kernel reads the values at 2x - 1, 2x and 2x + 1 for every output position x. Read
// from the input they lie two apart and end at the edges of a row; gathered once into three stacks
// of planes, with the zeros of the padding in them, they are whole vectors for every output
// channel.

void SimpleConv2d1x3s2::Reserve(int64_t frames) {
  if (BlockFloats(input_channel, output_dim, frames) > kMaxFloatsAhead) return;
  for (Tensor3& tap : taps_) {
    tap.Reshape(ToSize(output_dim), ToSize(frames), ToSize(input_channel), memory_bytes);
  }
}

// The kernel moves by two positions, which vectors cannot do on rows as they lie. So the three
// values that each output position sees are gathered once a call, into three stacks of planes of
// the output's shape. Every output channel then runs over these with whole vectors, and each sum
// keeps its order; the gathering is shared by all output channels.
void SimpleConv2d1x3s2::Gather(const Tensor3& in, size_t out_width) {
  for (Tensor3& tap : taps_) tap.Reshape(out_width, in.height, in.channels, memory_bytes);
  // Positions whose value at 2x + 1 lies inside the row. At most one position is left, which sees
  // the zero after the row.
  const size_t whole = std::min(out_width, in.width / 2);
  for (size_t c = 0; c < in.channels; ++c) {
    for (size_t t = 0; t < in.height; ++t) {
      const float* row = in.Plane(c) + t * in.width;
      float* before = taps_[0].Plane(c) + t * out_width;
      float* at = taps_[1].Plane(c) + t * out_width;
      float* after = taps_[2].Plane(c) + t * out_width;
      for (size_t x = 0; x < out_width; ++x) at[x] = row[2 * x];
      for (size_t x = 0; x < whole; ++x) after[x] = row[2 * x + 1];
      std::fill(after + whole, after + out_width, 0.0F);
      before[0] = 0.0F;
      std::copy_n(after, out_width - 1, before + 1);
    }
  }
}

void SimpleConv2d1x3s2::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  const bool any = AdoptWidths(frames, in_dim);
  if (output_dim > (int64_t{input_dim} + 1) / 2) ThrowWidths(output_dim);
  if (!any) return;
  const Tensor3 planes(in, ToSize(input_dim), ToSize(frames), ToSize(input_channel));
  Gather(planes, ToSize(output_dim));
  convolve_planes({kernel.data(), bias_vector.data(), planes.channels, ToSize(output_channel),
                   taps_[0].PlaneSize()},
                  taps_[0].Plane(0), taps_[1].Plane(0), taps_[2].Plane(0), out);
}

// Doubling. Output 2x has one term a channel, output 2x + 1 two: in[x] w2 and in[x + 1] w0. So the
// kernel reads the input and the input one position further. The input is copied, since the
// caller's planes have no spare room for whole vectors; the plane of ones tells where the next
// position is in the same row.

void SimpleDeconv2d1x3s2::Reserve(int64_t frames) {
  // Without an input channel there still is the plane that tells where a row goes on.
  if (BlockFloats(std::max(input_channel, 1), input_dim, frames) > kMaxFloatsAhead) return;
  const size_t width = ToSize(input_dim);
  const size_t height = ToSize(frames);
  here_.Reshape(width, height, ToSize(input_channel), memory_bytes);
  next_.Reshape(width, height, ToSize(input_channel), memory_bytes);
  has_next_.Reshape(width, height, 1, memory_bytes);
}

// Input position x feeds the outputs 2x - 1, 2x and 2x + 1. Seen from the outputs, 2x takes only x,
// and 2x + 1 takes x and then x + 1. So one pass over the input positions computes both: it reads
// the input, the input shifted by one position, and a plane that says where x + 1 still lies in the
// row.
void SimpleDeconv2d1x3s2::Gather(const Tensor3& in) {
  here_.Reshape(in.width, in.height, in.channels, memory_bytes);
  next_.Reshape(in.width, in.height, in.channels, memory_bytes);
  has_next_.Reshape(in.width, in.height, 1, memory_bytes);
  for (size_t c = 0; c < in.channels; ++c) {
    std::copy_n(in.Plane(c), in.PlaneSize(), here_.Plane(c));
    // At the end of a row this takes the first value of the next row, which has_next_ masks.
    std::copy_n(in.Plane(c) + 1, in.PlaneSize() - 1, next_.Plane(c));
  }
  std::fill_n(has_next_.Plane(0), in.PlaneSize(), 1.0F);
  for (size_t t = 1; t <= in.height; ++t) has_next_.Plane(0)[t * in.width - 1] = 0.0F;
}

void SimpleDeconv2d1x3s2::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                       int /*call_id*/) {
  const bool any = AdoptWidths(frames, in_dim);
  if (output_dim != 2 * int64_t{input_dim}) ThrowWidths(output_dim);
  if (!any) return;
  const Tensor3 planes(in, ToSize(input_dim), ToSize(frames), ToSize(input_channel));
  Gather(planes);
  deconvolve_planes({kernel.data(), bias_vector.data(), planes.channels, ToSize(output_channel),
                     planes.PlaneSize()},
                    here_.Plane(0), next_.Plane(0), has_next_.Plane(0), out);
}

}  // namespace tarev::nnet::handwriting_CTC
