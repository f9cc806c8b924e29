#include "nnet/dense/highway.h"

#include <algorithm>

#include "nnet/base/products.h"
#include "nnet/dense/highway-kernels.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// out (frames x n) = in weights' + bias: the rows are filled with the bias, and the product is
// added to them.
void AffineRows(const float* in, size_t frames, size_t n, const FloatArray& weights,
                const FloatArray& bias, float* out) {
  for (size_t t = 0; t < frames; ++t) std::copy_n(bias.data(), n, out + t * n);
  matmul_trans_b(in, weights.data(), out, frames, n, n, 1.0F, 1.0F);
}

}  // namespace

bool Highway::Validate(Refusal& why) {
  dim = input_dim;
  return why.AtLeast("input dimension", dim, 0) &&
         why.Equal("output dimension", output_dim, "input dimension", dim);
}

ParameterList Highway::MutableParameters() {
  return {Matrix("transform_weights", transform_weights, dim, dim),
          Matrix("gate_weights", gate_weights, dim, dim),
          Vector("transform_bias", transform_bias, dim), Vector("gate_bias", gate_bias, dim)};
}

void Highway::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  const size_t floats = ToSize(frames) * ToSize(dim);
  transform_buffer.Grow(floats, memory_bytes);
  gate_buffer.Grow(floats, memory_bytes);
  frame_capacity = frames;
}

// Both affine parts of all rows, then one pass that mixes them.
void Highway::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  RequireWidth(dim, in_dim);
  Reserve(frames);
  const size_t rows = ToSize(frames);
  const size_t n = ToSize(dim);
  AffineRows(in, rows, n, transform_weights, transform_bias, transform_buffer.data());
  AffineRows(in, rows, n, gate_weights, gate_bias, gate_buffer.data());
  highway_mix(transform_buffer.data(), gate_buffer.data(), in, rows * n, out);
}

}  // namespace tarev::nnet::handwriting_CTC
