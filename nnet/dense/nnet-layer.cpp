#include "nnet/dense/nnet-layer.h"

#include <algorithm>
#include <cinttypes>
#include <numeric>
#include <span>

#include "nnet/base/element-kernels.h"
#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

// Splice.

bool Splice::ValidateOffsetCount(Refusal& why) {
  if (!why.AtLeast("input dimension", input_dim, 1) ||
      !why.AtLeast("output dimension", output_dim, 1) ||
      !why.Equal("output dimension modulo input dimension", output_dim % input_dim, "wanted", 0)) {
    return false;
  }
  offset_count = output_dim / input_dim;
  return true;
}

bool Splice::ReadPart(FILE* fp, Refusal& why) {
  if (!ValidateOffsetCount(why)) return false;
  const size_t bytes = ToSize(offset_count) * sizeof(int32_t);
  if (!why.FileHolds(fp, "offsets", bytes)) return false;
  offsets.resize(ToSize(offset_count));
  return why.Read(fp, "offsets", offsets.data(), bytes);
}

bool Splice::ReadTextPart(FILE* fp, Refusal& why) {
  if (!ValidateOffsetCount(why)) return false;
  offsets = ReadTextIntegers(fp, 1, offset_count, MatrixOpening::kLenient);
  return true;
}

bool Splice::WritePart(FILE* fp) const { return WriteArray(fp, std::span<const int32_t>(offsets)); }

bool Splice::Validate(Refusal& why) {
  return why.Require(std::ranges::adjacent_find(offsets, std::greater_equal<>()) == offsets.end(),
                     "offsets do not ascend") &&
         why.AtMost("first offset", offsets.front(), 0) &&
         why.AtLeast("last offset", offsets.back(), 0);
}

void Splice::Announce(NetworkLinks& links) { links.ConsumeContext(LeftContext() + RightContext()); }

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

bool ColumnVectorLayer::Validate(Refusal& why) {
  dim = input_dim;
  return ColumnLayer::Validate(why) && why.AtLeast("input dimension", dim, 0);
}

// The three layers below go row by row, so that the second step finds a row still in the cache.

void AddShift::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                            int /*call_id*/) {
  const size_t width = RequireRow(in_dim);
  float* row = const_cast<float*>(in);  // works in place
  for (int64_t t = 0; t < frames; ++t, row += dim) {
    add_vec_to_rows(row, 1, width, shift.data(), 1.0F);
    out = std::copy_n(row, dim, out);
  }
}

void Rescale::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  const size_t width = RequireRow(in_dim);
  float* row = const_cast<float*>(in);  // works in place
  for (int64_t t = 0; t < frames; ++t, row += dim) {
    mul_vec_to_rows(row, 1, width, scale.data(), 1.0F);
    out = std::copy_n(row, dim, out);
  }
}

// The text form has weights. They become what the binary form has: logarithms of the weights
// divided by their sum.
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
  const size_t width = RequireRow(in_dim);
  for (int64_t t = 0; t < frames; ++t, in += dim, out += dim) {
    std::copy_n(in, dim, out);
    add_vec_to_rows(out, 1, width, prior.data(), -1.0F);
  }
}

// AddComponent.

bool AddComponent::Validate(Refusal& why) {
  return why.AtLeast("<InputNum>", input_num, 1) &&
         why.AtLeast("output dimension", output_dim, 1) &&
         why.Equal("<InputNum> x output dimension", int64_t{input_num} * output_dim,
                   "input dimension", input_dim);
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
