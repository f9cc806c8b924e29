#include "nnet/dense/highway.h"

#include "nnet/dense/highway-kernels.h"

namespace tarev::nnet::handwriting_CTC {

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
  transform_weights.Multiply({in, n}, rows, {.bias = transform_bias.data()},
                             {transform_buffer.data(), n});
  gate_weights.Multiply({in, n}, rows, {.bias = gate_bias.data()}, {gate_buffer.data(), n});
  highway_mix(transform_buffer.data(), gate_buffer.data(), in, rows * n, out);
}

}  // namespace tarev::nnet::handwriting_CTC
