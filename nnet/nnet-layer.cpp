#include "nnet/nnet-layer.h"

#include <algorithm>
#include <cinttypes>
#include <numeric>
#include <span>

#include "nnet/parameter-block.h"
#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

// Splice.

bool Splice::SetOffsetCount() {
  offsets.clear();
  if (input_dim < 1 || output_dim < 1 || output_dim % input_dim != 0) return false;
  offset_count = output_dim / input_dim;
  return true;
}

bool Splice::OffsetsAreValid() const {
  return std::ranges::adjacent_find(offsets, std::greater_equal<>()) == offsets.end() &&
         offsets.front() <= 0 && offsets.back() >= 0;
}

bool Splice::ReadData(FILE* fp) {
  if (!SetOffsetCount() || !FileHolds(fp, ToSize(offset_count), sizeof(int32_t))) return false;
  offsets.resize(ToSize(offset_count));
  return ReadArray(fp, std::span<int32_t>(offsets)) && OffsetsAreValid();
}

bool Splice::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetOffsetCount()) return false;
  offsets = ReadTextIntegers(fp, 1, offset_count, MatrixOpening::kLenient);
  return OffsetsAreValid();
}

bool Splice::WriteData(FILE* fp) const { return WriteArray(fp, std::span<const int32_t>(offsets)); }

int64_t Splice::LeftContext() const { return offsets.empty() ? 0 : -int64_t{offsets.front()}; }

int64_t Splice::RightContext() const { return offsets.empty() ? 0 : offsets.back(); }

int64_t Splice::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  return std::max<int64_t>(0, in_frames - (LeftContext() + RightContext()));
}

void Splice::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                          int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  const int64_t left = LeftContext();
  const int64_t right = RightContext();
  if (left + right >= frames) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64 ", left:%" PRId64 ", right:%" PRId64 "]",
               frames, left, right);
  }
  const size_t width = ToSize(input_dim);
  for (int64_t t = left; t < frames - right; ++t) {
    for (const int32_t offset : offsets) {
      out = std::copy_n(in + ToSize(t + offset) * width, width, out);
    }
  }
  output_frames = frames - (left + right);
}

// Layers with one value per column.

template <int kCode>
bool ColumnVectorLayer<kCode>::SetDim() {
  dim = this->input_dim;
  return dim >= 0;
}

template <int kCode>
bool ColumnVectorLayer<kCode>::ReadData(FILE* fp) {
  uint64_t not_counted = 0;
  return SetDim() && ReadFloats(fp, this->MutableParameters(), not_counted);
}

template <int kCode>
bool ColumnVectorLayer<kCode>::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetDim()) return false;
  uint64_t not_counted = 0;
  ReadTextFloats(fp, this->MutableParameters(), MatrixOpening::kLenient, not_counted);
  return true;
}

template <int kCode>
bool ColumnVectorLayer<kCode>::WriteData(FILE* fp) const {
  return WriteFloats(fp, this->Parameters());
}

template class ColumnVectorLayer<0x402>;
template class ColumnVectorLayer<0x403>;
template class ColumnVectorLayer<0x600>;

// The three below go row by row, so that each row is touched while it is close.

void AddShift::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                            int /*call_id*/) {
  RequireWidth(dim, in_dim);
  float* row = const_cast<float*>(in);  // works in place
  for (int64_t t = 0; t < frames; ++t, row += dim) {
    add_vec_to_rows(row, 1, Width(), shift.data(), 1.0F);
    out = std::copy_n(row, dim, out);
  }
}

void Rescale::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  RequireWidth(dim, in_dim);
  float* row = const_cast<float*>(in);  // works in place
  for (int64_t t = 0; t < frames; ++t, row += dim) {
    mul_vec_to_rows(row, 1, Width(), scale.data(), 1.0F);
    out = std::copy_n(row, dim, out);
  }
}

bool Prior::ReadTextData(FILE* fp, bool binary) {
  if (!ColumnVectorLayer::ReadTextData(fp, binary)) return false;
  if (binary) return true;
  constexpr double kFloor = 1e-20;  // keeps the logarithm of a weight of 0 finite
  const std::span<float> weights = prior.values();
  const float sum = std::accumulate(weights.begin(), weights.end(), 0.0F);
  for (float& weight : weights) {
    weight = static_cast<float>(static_cast<double>(weight / sum) + kFloor);
  }
  fast_log(prior.data(), 1, prior.size(), prior.data());
  return true;
}

void Prior::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int /*call_id*/) {
  RequireWidth(dim, in_dim);
  for (int64_t t = 0; t < frames; ++t, in += dim, out += dim) {
    std::copy_n(in, dim, out);
    add_vec_to_rows(out, 1, Width(), prior.data(), -1.0F);
  }
}

// AddComponent.

bool AddComponent::BlocksFit() const {
  return input_num >= 1 && output_dim >= 1 && int64_t{input_num} * output_dim == input_dim;
}

bool AddComponent::ReadData(FILE* fp) {
  uint64_t not_counted = 0;
  return ReadValues(fp, input_num) && BlocksFit() &&
         ReadFloats(fp, MutableParameters(), not_counted);
}

bool AddComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<InputNum>", "i", &input_num);
  ReadProperties(fp, properties);
  if (!BlocksFit()) return false;
  uint64_t not_counted = 0;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kLenient, not_counted);
  return true;
}

bool AddComponent::WriteData(FILE* fp) const {
  return WriteValues(fp, input_num) && WriteFloats(fp, Parameters());
}

void AddComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  const size_t width = ToSize(output_dim);
  zero_vec(out, ToSize(frames) * width);
  for (int64_t t = 0; t < frames; ++t, out += width) {
    for (const float weight : weights.values()) {
      add_vec_to_rows(out, 1, width, in, weight);
      in += width;
    }
  }
}

}  // namespace tarev::nnet::handwriting_CTC
