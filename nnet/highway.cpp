#include "nnet/highway.h"

#include <algorithm>

#include "nnet/highway-kernels.h"
#include "nnet/parameter-block.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// out (frames x n) = in weights' + bias, the product added onto the bias.
void AffineRows(const float* in, size_t frames, size_t n, const FloatArray& weights,
                const FloatArray& bias, float* out) {
  for (size_t t = 0; t < frames; ++t) std::copy_n(bias.data(), n, out + t * n);
  matmul_trans_b(in, weights.data(), out, frames, n, n, 1.0F, 1.0F);
}

}  // namespace

bool Highway::SetDim() {
  dim = input_dim;
  return dim >= 0 && dim == output_dim;
}

ParameterList Highway::MutableParameters() {
  const size_t n = ToSize(dim);
  return {{&transform_weights, n, n},
          {&gate_weights, n, n},
          {&transform_bias, 1, n},
          {&gate_bias, 1, n}};
}

bool Highway::ReadData(FILE* fp) {
  return SetDim() && ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool Highway::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetDim()) return false;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kStrict, memory_bytes);
  return true;
}

bool Highway::WriteData(FILE* fp) const { return WriteFloats(fp, Parameters()); }

bool Highway::WriteFixedData(FILE* fp) const { return WriteSymmetricBlocks(fp, Parameters()); }

void Highway::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  const size_t floats = ToSize(frames) * ToSize(dim);
  transform_buffer.Grow(floats, memory_bytes);
  gate_buffer.Grow(floats, memory_bytes);
  frame_capacity = frames;
}

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
