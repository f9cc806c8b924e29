#include "nnet/recurrent/gru.h"

#include <algorithm>

#include "nnet/base/products.h"
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

// The input part of all gates is one product over all frames. Per frame the recurrent part of r and
// z is added onto the gate row, that of n goes to a vector of its own, because r is applied to it
// before it is added. The output row is the state: the next step reads h where this one wrote it,
// and only the last row is copied to the state.
void GruParameters::Propagate(const float* in, size_t frames, const RecurrentShape& shape,
                              Direction direction, float* gates, OutputRows out) {
  const size_t h = shape.cells;
  InputGates(in, frames, shape.input, input_weights, input_bias, 3 * h, gates);
  const float* candidate_weights = recurrent_weights.data() + 2 * h * h;
  float* candidate = state.data() + h;
  const float* hidden = state.data();  // after the first step, the output row before
  for (size_t k = 0; k < frames; ++k) {
    const size_t t = StepIndex(direction, k, frames);
    float* gate = gates + t * 3 * h;
    mat_vec(recurrent_weights.data(), hidden, gate, 2 * h, h, 1.0F, 1.0F);
    mat_vec(candidate_weights, hidden, candidate, h, h, 1.0F, 0.0F);
    float* row = out.data + t * out.stride;
    gru_cell({gate, candidate, recurrent_bias.data(), hidden, row}, h);
    hidden = row;
  }
  std::copy_n(hidden, h, state.data());
}

template class ForwardLayer<GruParameters>;
template class BidirectionalLayer<GruParameters>;

}  // namespace tarev::nnet::handwriting_CTC
