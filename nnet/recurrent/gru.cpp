#include "nnet/recurrent/gru.h"

#include <algorithm>

#include "nnet/recurrent/recurrent-kernels.h"

namespace tarev::nnet::handwriting_CTC {

ParameterList GruParameters::List(const RecurrentShape& shape) {
  const size_t gates = kGates * shape.cells;
  return {Matrix("input_weights", input_weights, gates, shape.input),
          Matrix("recurrent_weights", recurrent_weights, gates, shape.cells),
          Vector("input_bias", input_bias, gates), Vector("recurrent_bias", recurrent_bias, gates)};
}

void GruParameters::ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes) {
  AllocateState(state, 2 * shape.cells, memory_bytes);
}

// The input part of all gates is one product for a block of frames. Per frame the recurrent part is
// added onto the gate row, but for block n, where r is applied to the recurrent part alone: the
// input part moves to the scratch before and leaves zeros behind. The output row is the state: the
// next step reads h where this one wrote it, and only the last row is copied to the state.
void GruParameters::Propagate(const float* in, size_t frames, const RecurrentShape& shape,
                              Direction direction, float* gates, OutputRows out) {
  const size_t h = shape.cells;
  float* input_candidate = state.data() + h;
  const float* hidden = state.data();  // after the first step, the output row before
  ForEachGateBlock(direction, frames, [&](size_t first, size_t count) {
    input_weights.Multiply({in + first * shape.input, shape.input}, count,
                           {.bias = input_bias.data()}, {gates, 3 * h});
    for (size_t k = 0; k < count; ++k) {
      const size_t t = StepIndex(direction, k, count);
      float* gate = gates + t * 3 * h;
      float* candidate = gate + 2 * h;
      std::copy_n(candidate, h, input_candidate);
      std::fill_n(candidate, h, 0.0F);
      recurrent_weights.Multiply({hidden, h}, 1, {.bias = gate}, {gate, 3 * h});
      float* row = out.data + (first + t) * out.stride;
      PrefetchRows(in, frames, shape, direction, out, first + t);
      gru_cell({gate, input_candidate, recurrent_bias.data(), hidden, row}, h);
      hidden = row;
    }
  });
  std::copy_n(hidden, h, state.data());
}

template class ForwardLayer<GruParameters>;
template class BidirectionalLayer<GruParameters>;

}  // namespace tarev::nnet::handwriting_CTC
