#include "nnet/dense/normalisation.h"

#include <algorithm>
#include <cmath>

#include "nnet/base/element-kernels.h"
#include "nnet/dense/normalisation-kernels.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Rows become scale * row + offset in place and are then copied out; row by row, so that the later
// steps find the row still in the cache.
void ScaleRowsInPlace(const float* in, size_t rows, size_t cols, const FloatArray& scale,
                      const FloatArray& offset, float* out) {
  float* row = const_cast<float*>(in);  // works in place
  for (size_t r = 0; r < rows; ++r, row += cols, out += cols) {
    mul_vec_to_rows(row, 1, cols, scale.data(), 1.0F);
    add_vec_to_rows(row, 1, cols, offset.data(), 1.0F);
    std::copy_n(row, cols, out);
  }
}

}  // namespace

// NormalizeComponent.

void NormalizeComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                      int /*call_id*/) {
  rms_norm(in, ToSize(frames), AdoptRow(in_dim), target_rms, out);
}

// BatchNormComponent.

FieldList BatchNormComponent::Fields() {
  return {{"<BlockDim>", &block_dim},
          {"<Epsilon>", &epsilon, FieldUse::kTextOnly},
          {"<TargetRms>", &target_rms, FieldUse::kTextOnly},
          {"<Count>", &count, FieldUse::kTextOnly}};
}

bool BatchNormComponent::Validate(Refusal& why) {
  return ColumnLayer::Validate(why) && why.AtLeast("<BlockDim>", block_dim, 0) &&
         why.Equal("<BlockDim>", block_dim, "input dimension", input_dim);
}

ParameterList BatchNormComponent::MutableParameters() {
  return {Vector("mean", mean, block_dim), Vector("variance", variance, block_dim)};
}

// The statistics become one scale and one offset for each column, so that a call is a product and a
// sum. Done in the first call and not when reading: until then a write repeats the block that was
// read.
void BatchNormComponent::Fold() {
  for (size_t i = 0; i < variance.size(); ++i) {
    const float scale = std::pow(variance[i] + epsilon, -0.5F) * target_rms;
    variance[i] = scale;
    mean[i] = static_cast<float>(-static_cast<double>(scale) * mean[i]);
  }
  folded = true;
}

void BatchNormComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                      int /*call_id*/) {
  if (!folded) Fold();
  ScaleRowsInPlace(in, ToSize(frames), RequireRow(in_dim), variance, mean, out);
}

// What BatchNorm1d and BatchNorm2d store. The root is formed in double and rounded once.

ParameterList BatchNormParameters::List(int32_t n) {
  return {Vector("mean", mean, n), Vector("variance", variance, n), Vector("gamma", gamma, n),
          Vector("beta", beta, n)};
}

float BatchNormParameters::Scale(size_t i) const {
  const float floored = variance[i] + epsilon;
  return static_cast<float>(gamma[i] / std::sqrt(static_cast<double>(floored)));
}

// BatchNorm1d.

bool BatchNorm1d::Validate(Refusal& why) {
  return ColumnLayer::Validate(why) && why.AtLeast("input dimension", input_dim, 0);
}

void BatchNorm1d::Fold() {
  for (size_t i = 0; i < gamma.size(); ++i) {
    gamma[i] = Scale(i);
    beta[i] = Shift(i, gamma[i]);
  }
  folded = true;
}

void BatchNorm1d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  if (!folded) Fold();
  ScaleRowsInPlace(in, ToSize(frames), RequireRow(in_dim), gamma, beta, out);
}

// BatchNorm2d.

bool BatchNorm2d::Validate(Refusal& why) {
  return PlaneLayer::Validate(why) && why.AtLeast("input channels", input_channel, 0);
}

void BatchNorm2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  AdoptSameWidth(in_dim);
  const size_t plane = ToSize(frames) * ToSize(input_dim);
  for (size_t c = 0; c < gamma.size(); ++c, in += plane, out += plane) {
    const float scale = Scale(c);
    scale_and_shift(in, plane, scale, Shift(c, scale), out);
  }
}

// LayerNorm.

LayerNorm::LayerNorm(int first, int second) : LayerOf(first, second), norm_dim(first) {}

FieldList LayerNorm::Fields() {
  return {{"normalised dimension", &norm_dim, FieldUse::kBinaryOnly}, {"<Epsilon>", &epsilon}};
}

bool LayerNorm::Validate(Refusal& why) {
  return ColumnLayer::Validate(why) && why.AtLeast("normalised dimension", norm_dim, 0) &&
         why.Equal("normalised dimension", norm_dim, "input dimension", input_dim);
}

ParameterList LayerNorm::MutableParameters() {
  return {Vector("gamma", gamma, norm_dim), Vector("beta", beta, norm_dim)};
}

void LayerNorm::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                             int /*call_id*/) {
  layer_norm(in, ToSize(frames), RequireRow(in_dim), gamma.data(), beta.data(), epsilon, out);
}

}  // namespace tarev::nnet::handwriting_CTC
