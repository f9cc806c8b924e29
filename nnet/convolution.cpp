#include "nnet/convolution.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "nnet/convolution-kernels.h"
#include "nnet/parameter-block.h"
#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

void Tensor3::Reshape(size_t width_arg, size_t height_arg, size_t channels_arg,
                      uint64_t& memory_bytes) {
  width = width_arg;
  height = height_arg;
  channels = channels_arg;
  room = PlaneRoom(PlaneSize());
  owned.Grow(channels * room, memory_bytes);
}

// What is stored only.

template <int kCode>
void StoredLayer<kCode>::PropagateFnc(const float* /*in*/, int64_t /*frames*/, int /*in_dim*/,
                                      float* /*out*/, int /*call_id*/) {
  ThrowError(Here(), "propagate function of [%s] is not implemented!", this->TypeMarker().c_str());
}

bool Conv2d::SetShape() {
  if (kernel_height < 0 || kernel_width < 0 || groups < 1 || input_channel < 0 ||
      output_channel < 0) {
    return false;
  }
  const int64_t pairs = int64_t{input_channel} * output_channel;
  blocks = pairs / groups;
  return pairs % groups == 0 &&
         !__builtin_mul_overflow(blocks, int64_t{kernel_height} * kernel_width, &kernel_count);
}

ParameterList Conv2d::MutableParameters() {
  ParameterList list = {{&kernel, ToSize(blocks), ToSize(int64_t{kernel_height} * kernel_width)}};
  if (has_bias != 0) list.push_back({&bias_vector, 1, ToSize(output_channel)});
  return list;
}

bool Conv2d::ReadData(FILE* fp) {
  return ReadValues(fp, kernel_height, kernel_width, stride_height, stride_width, padding_top,
                    padding_bottom, padding_left, padding_right, dilation_height, dilation_width,
                    groups, has_bias) &&
         SetShape() && ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool Conv2d::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<KernelHeight>", "i:", &kernel_height);
  AddProperty(properties, "<KernelWidth>", "i:", &kernel_width);
  AddProperty(properties, "<StrideHeight>", "i", &stride_height);
  AddProperty(properties, "<StrideWidth>", "i", &stride_width);
  AddProperty(properties, "<Top>", "i", &padding_top);
  AddProperty(properties, "<Bottom>", "i", &padding_bottom);
  AddProperty(properties, "<Left>", "i", &padding_left);
  AddProperty(properties, "<Right>", "i", &padding_right);
  AddProperty(properties, "<DilationHeight>", "i", &dilation_height);
  AddProperty(properties, "<DilationWidth>", "i", &dilation_width);
  AddProperty(properties, "<Groups>", "i", &groups);
  AddProperty(properties, "<Bias>", "i", &has_bias);
  ReadProperties(fp, properties);
  if (!SetShape()) return false;
  ReadTextMatrices(fp, kernel, ToSize(blocks), kernel_height, kernel_width, memory_bytes);
  if (has_bias != 0) {
    ReadTextFloats(fp, {MutableParameters().back()}, MatrixOpening::kStrict, memory_bytes);
  }
  return true;
}

bool Conv2d::WriteData(FILE* fp) const {
  return WriteValues(fp, kernel_height, kernel_width, stride_height, stride_width, padding_top,
                     padding_bottom, padding_left, padding_right, dilation_height, dilation_width,
                     groups, has_bias) &&
         WriteFloats(fp, Parameters());
}

bool ComponentList::ReadComponents(FILE* fp, bool binary, std::span<const char* const> names,
                                   uint64_t& memory_bytes) {
  for (const char* name : names) {
    std::unique_ptr<Component> component(Component::Read(fp, binary));
    if (component == nullptr) {
      LogWarning(Here(), "Failed to read %s layer!", name);
      return false;
    }
    memory_bytes += component->MemoryBytes();
    components.push_back(std::move(component));
  }
  return true;
}

bool ComponentList::WriteComponents(FILE* fp) const {
  return std::ranges::all_of(components,
                             [fp](const auto& component) { return component->Write(fp); });
}

uint64_t ComponentList::CountParameters() const {
  uint64_t count = 0;
  for (const auto& component : components) count += component->ParameterCount();
  return count;
}

template class StoredLayer<0x301>;
template class StoredLayer<0x302>;
template class StoredLayer<0x303>;
template class StoredLayer<0x304>;

// What both simple convolutions have in common.

template <int kCode>
ParameterList SimpleLayer<kCode>::MutableParameters() {
  const size_t out = ToSize(this->output_channel);
  return {{&kernel, out * ToSize(this->input_channel), 3}, {&bias_vector, 1, out}};
}

template <int kCode>
bool SimpleLayer<kCode>::ReadData(FILE* fp) {
  return this->input_channel >= 0 && this->output_channel >= 0 &&
         ReadFloats(fp, MutableParameters(), this->memory_bytes);
}

template <int kCode>
bool SimpleLayer<kCode>::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (this->input_channel < 0 || this->output_channel < 0) return false;
  const ParameterList list = MutableParameters();
  ReadTextMatrices(fp, kernel, list[0].rows, 1, 3, this->memory_bytes);
  ReadTextFloats(fp, {list[1]}, MatrixOpening::kStrict, this->memory_bytes);
  return true;
}

template <int kCode>
bool SimpleLayer<kCode>::WriteData(FILE* fp) const {
  return WriteFloats(fp, this->Parameters());
}

template <int kCode>
CallExtent SimpleLayer<kCode>::Extent(int64_t frames, int in_dim) const {
  return {BlockFloats(this->input_channel, this->CallInputDim(in_dim), frames),
          BlockFloats(this->output_channel, OutWidth(in_dim), frames)};
}

template <int kCode>
bool SimpleLayer<kCode>::AdoptWidths(int64_t frames, int in_dim) {
  const int64_t out_width = OutWidth(in_dim);
  if (out_width > std::numeric_limits<int32_t>::max()) ThrowWidths(out_width);
  if (!this->input_dim_set) this->input_dim = in_dim;
  this->output_dim = static_cast<int32_t>(out_width);
  return frames > 0 && this->input_dim > 0 && out_width > 0 && this->output_channel > 0;
}

template <int kCode>
void SimpleLayer<kCode>::ThrowWidths(int64_t out_width) const {
  ThrowError(Here(), "mismatched widths! layer[%s] input [%d] output [%" PRId64 "]",
             this->TypeMarker().c_str(), this->input_dim, out_width);
}

template class SimpleLayer<0x305>;
template class SimpleLayer<0x306>;

// Halving.

void SimpleConv2d1x3s2::Reserve(int64_t frames) {
  if (BlockFloats(input_channel, output_dim, frames) > kMaxFloatsAhead) return;
  for (Tensor3& tap : taps) {
    tap.Reshape(ToSize(output_dim), ToSize(frames), ToSize(input_channel), memory_bytes);
  }
}

void SimpleConv2d1x3s2::Gather(const Tensor3& in, size_t out_width) {
  for (Tensor3& tap : taps) tap.Reshape(out_width, in.height, in.channels, memory_bytes);
  // Positions whose last value lies inside the row; at most one is left, which sees the zero
  // behind.
  const size_t whole = std::min(out_width, in.width / 2);
  for (size_t c = 0; c < in.channels; ++c) {
    for (size_t t = 0; t < in.height; ++t) {
      const float* row = in.Plane(c) + t * in.width;
      float* before = taps[0].Plane(c) + t * out_width;
      float* at = taps[1].Plane(c) + t * out_width;
      float* behind = taps[2].Plane(c) + t * out_width;
      for (size_t x = 0; x < out_width; ++x) at[x] = row[2 * x];
      for (size_t x = 0; x < whole; ++x) behind[x] = row[2 * x + 1];
      std::fill(behind + whole, behind + out_width, 0.0F);
      before[0] = 0.0F;
      std::copy_n(behind, out_width - 1, before + 1);
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
                   taps[0].PlaneSize()},
                  taps[0].Plane(0), taps[1].Plane(0), taps[2].Plane(0), out);
}

// Doubling.

void SimpleDeconv2d1x3s2::Reserve(int64_t frames) {
  if (BlockFloats(input_channel, input_dim, frames) > kMaxFloatsAhead) return;
  const size_t width = ToSize(input_dim);
  const size_t height = ToSize(frames);
  here.Reshape(width, height, ToSize(input_channel), memory_bytes);
  next.Reshape(width, height, ToSize(input_channel), memory_bytes);
  has_next.Reshape(width, height, 1, memory_bytes);
}

void SimpleDeconv2d1x3s2::Gather(const Tensor3& in) {
  here.Reshape(in.width, in.height, in.channels, memory_bytes);
  next.Reshape(in.width, in.height, in.channels, memory_bytes);
  has_next.Reshape(in.width, in.height, 1, memory_bytes);
  for (size_t c = 0; c < in.channels; ++c) {
    std::copy_n(in.Plane(c), in.PlaneSize(), here.Plane(c));
    // The value that this takes from the row below has no weight.
    std::copy_n(in.Plane(c) + 1, in.PlaneSize() - 1, next.Plane(c));
  }
  std::fill_n(has_next.Plane(0), in.PlaneSize(), 1.0F);
  for (size_t t = 1; t <= in.height; ++t) has_next.Plane(0)[t * in.width - 1] = 0.0F;
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
                    here.Plane(0), next.Plane(0), has_next.Plane(0), out);
}

}  // namespace tarev::nnet::handwriting_CTC
