#include "nnet/attention/positional-encoding.h"

#include <cmath>

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr float kMinusLn10000 = -9.2103405F;

}  // namespace

CallPlan PositionalEncoding::Plan(int64_t frames, int in_dim) const {
  const uint64_t floats = BlockFloats(1, in_dim, frames);
  return {CalcOutputFrames(frames), floats, floats};
}

// Column by column, so that each frequency is computed once. Sines and cosines are those of the
// standard library: the table is computed once and read by every call.
void PositionalEncoding::GrowTable(int64_t rows, int32_t dim) {
  if (dim != table_dim) {  // a layer without a width of its own was given another one
    table_rows = 0;
    table_dim = dim;
  }
  if (rows <= table_rows) return;
  position_table.Grow(BlockFloats(1, dim, rows), memory_bytes);
  const size_t width = ToSize(dim);
  for (size_t i = 0; i < width; ++i) {
    const auto pair = static_cast<float>(i & ~size_t{1});
    const float frequency = std::exp(kMinusLn10000 / static_cast<float>(dim) * pair);
    for (int64_t p = table_rows; p < rows; ++p) {
      const float angle = frequency * static_cast<float>(p);
      position_table[ToSize(p) * width + i] = i % 2 == 0 ? std::sin(angle) : std::cos(angle);
    }
  }
  table_rows = rows;
}

void PositionalEncoding::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                      int /*call_id*/) {
  AdoptSameWidth(in_dim);
  GrowTable(frames, in_dim);
  const size_t count = ToSize(frames) * ToSize(in_dim);
  for (size_t i = 0; i < count; ++i) out[i] = in[i] + position_table[i];
}

}  // namespace tarev::nnet::handwriting_CTC
