#include "nnet/dense/affine.h"

#include <limits>

namespace tarev::nnet::handwriting_CTC {

// The bound keeps the rows in an int32 when they are rounded up.
bool LinearLayer::Validate(Refusal& why) {
  constexpr int32_t kRowGrain = 8;
  constexpr int32_t kMostRows = std::numeric_limits<int32_t>::max() / kRowGrain * kRowGrain;
  if (!why.AtLeast("input dimension", input_dim, 0) ||
      !why.AtLeast("output dimension", output_dim, 0) ||
      !why.AtMost("output dimension", output_dim, kMostRows)) {
    return false;
  }
  weight_rows = output_dim;
  weight_cols = input_dim;
  padded = weight_rows % kRowGrain != 0;
  row_capacity = weight_rows / kRowGrain * kRowGrain + (padded ? kRowGrain : 0);
  return true;
}

ParameterRef LinearLayer::Weights() {
  ParameterRef matrix = Matrix("weights", weights, weight_rows, weight_cols);
  matrix.text_first = true;
  return matrix;
}

void LinearLayer::Multiply(const float* in, int64_t frames, int in_dim, const ProductEnd& end,
                           float* out) {
  RequireWidth(weight_cols, in_dim);
  weights.Multiply({in, ToSize(weight_cols)}, ToSize(frames), end, {out, ToSize(weight_rows)});
}

void LinearLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  Multiply(in, frames, in_dim, {}, out);
}

ParameterList AffineLayer::MutableParameters() {
  return {Vector("bias", bias, weight_rows), Weights()};
}

void AffineLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  Multiply(in, frames, in_dim, {.bias = bias.data()}, out);
}

void EmbeddingLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                  int /*call_id*/) {
  Multiply(in, frames, in_dim, {.scale = scale}, out);
}

// The image holds the rows of the header alone, so a mapped layer has no room for more.
bool AffineTransform::MapData(const char** cursor) {
  if (!MapBlock(cursor, *this)) return false;
  row_capacity = weight_rows;
  return true;
}

}  // namespace tarev::nnet::handwriting_CTC
