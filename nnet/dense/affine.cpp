#include "nnet/dense/affine.h"

#include <limits>

#include "nnet/base/element-kernels.h"
#include "nnet/base/products.h"

namespace tarev::nnet::handwriting_CTC {

// Rows are rounded up to a multiple of eight, the spare ones zeros; the bound keeps that in an
// int32.
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
  row_capacity = (weight_rows + kRowGrain - 1) / kRowGrain * kRowGrain;
  return true;
}

ParameterRef LinearLayer::Weights() {
  ParameterRef matrix = Matrix("weights", weights, weight_rows, weight_cols);
  matrix.spare_rows = ToSize(row_capacity - weight_rows);
  matrix.text_first = true;
  return matrix;
}

void LinearLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  RequireWidth(weight_cols, in_dim);
  matmul_trans_b(in, weights.data(), out, ToSize(frames), ToSize(weight_rows), ToSize(weight_cols),
                 1.0F, 0.0F);
}

ParameterList AffineLayer::MutableParameters() {
  return {Vector("bias", bias, weight_rows), Weights()};
}

void AffineLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int call_id) {
  LinearLayer::PropagateFnc(in, frames, in_dim, out, call_id);
  add_vec_to_rows(out, ToSize(frames), ToSize(weight_rows), bias.data(), 1.0F);
}

void EmbeddingLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                  int call_id) {
  LinearLayer::PropagateFnc(in, frames, in_dim, out, call_id);
  scale_vec(out, ToSize(frames) * ToSize(weight_rows), scale);
}

// The image holds the rows of the header alone, so a mapped layer has no spare rows.
bool AffineTransform::MapData(const char** cursor) {
  if (!MapBlock(cursor, *this)) return false;
  row_capacity = weight_rows;
  return true;
}

}  // namespace tarev::nnet::handwriting_CTC
