#include "nnet/recurrent/lstm.h"

#include <algorithm>

#include "nnet/recurrent/recurrent-kernels.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// The gate rows of all Blstm layers of a network, which run one after the other. The layers share
// the ownership, so the rows stay for as long as one of the layers does.
struct SharedGates {
  std::shared_ptr<FloatArray> rows = std::make_shared<FloatArray>();
};

}  // namespace

// One direction.

ParameterList LstmParameters::List(const RecurrentShape& shape) {
  const size_t gates = kGates * shape.cells;
  return {Matrix("input_weights", input_weights, gates, shape.input),
          Matrix("recurrent_weights", recurrent_weights, gates, shape.cells),
          Vector("input_bias", input_bias, gates), Vector("recurrent_bias", recurrent_bias, gates)};
}

void LstmParameters::ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes) {
  AllocateState(state, 4 * shape.cells, memory_bytes);
}

// The input part of all gates is one product for a block of frames; per frame there remain one
// product of a row and one pass over the gates. The output row is the state: the next step reads h
// where this one wrote it, and only the last row is copied to the state. The cell is updated in
// place.
void LstmParameters::Propagate(const float* in, size_t frames, const RecurrentShape& shape,
                               Direction direction, float* gates, OutputRows out) {
  const size_t c = shape.cells;
  float* cell = state.data() + c;
  const float* hidden = state.data();  // after the first step, the output row before
  ForEachGateBlock(direction, frames, [&](size_t first, size_t count) {
    input_weights.Multiply({in + first * shape.input, shape.input}, count,
                           {.bias = input_bias.data()}, {gates, 4 * c});
    for (size_t k = 0; k < count; ++k) {
      const size_t t = StepIndex(direction, k, count);
      float* gate = gates + t * 4 * c;
      recurrent_weights.Multiply({hidden, c}, 1, {.bias = gate}, {gate, 4 * c});
      float* row = out.data + (first + t) * out.stride;
      PrefetchRows(in, frames, shape, direction, out, first + t);
      lstm_cell(gate, recurrent_bias.data(), c, cell, row);
      hidden = row;
    }
  });
  std::copy_n(hidden, c, state.data());
}

ParameterList ProjectedLstmParameters::List(const RecurrentShape& shape) {
  const size_t c = shape.cells;
  const size_t p = shape.outputs;
  return {Matrix("input_weights", input_weights, kGates * c, shape.input),
          Matrix("recurrent_weights", recurrent_weights, kGates * c, p),
          Vector("bias", bias, kGates * c),
          Vector("peephole_input", peephole_input, c),
          Vector("peephole_forget", peephole_forget, c),
          Vector("peephole_output", peephole_output, c),
          Matrix("projection_weights", projection_weights, p, c),
          Vector("projection_bias", projection_bias, p)};
}

void ProjectedLstmParameters::ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes) {
  AllocateState(state, 8 * shape.cells, memory_bytes);
}

// The state enters a frame in one half and leaves it in the other, and the halves change places
// after every frame: the projection and the recurrence of the next frame read where this one wrote,
// without a copy. After an odd number of frames the last state lies in the second half and is
// copied once.
void ProjectedLstmParameters::Propagate(const float* in, size_t frames, const RecurrentShape& shape,
                                        Direction direction, float* gates, OutputRows out,
                                        StateSnapshot snapshot) {
  const size_t c = shape.cells;
  const size_t p = shape.outputs;
  float* entering = state.data();
  float* computed = state.data() + 4 * c;
  ForEachGateBlock(direction, frames, [&](size_t first, size_t count) {
    input_weights.Multiply({in + first * shape.input, shape.input}, count, {.bias = bias.data()},
                           {gates, 4 * c});
    for (size_t k = 0; k < count; ++k) {
      const size_t in_block = StepIndex(direction, k, count);
      const size_t t = first + in_block;
      float* gate = gates + in_block * 4 * c;
      recurrent_weights.Multiply({entering + 3 * c, p}, 1, {.bias = gate}, {gate, 4 * c});
      PrefetchRows(in, frames, shape, direction, out, t);
      peephole_lstm_cell(
          {gate, peephole_input.data(), peephole_forget.data(), peephole_output.data(), entering,
           computed, computed + c, computed + 2 * c},
          c);
      float* projected = computed + 3 * c;
      projection_weights.Multiply({computed + 2 * c, c}, 1, {.bias = projection_bias.data()},
                                  {projected, p});
      std::copy_n(projected, p, out.data + t * out.stride);
      if (snapshot.frame == static_cast<int64_t>(t)) std::copy_n(computed, 4 * c, snapshot.state);
      std::swap(entering, computed);
    }
  });
  if (entering != state.data()) std::copy_n(entering, 4 * c, state.data());
}

template class ForwardLayer<LstmParameters>;
template class ForwardLayer<ProjectedLstmParameters>;
template class BidirectionalLayer<LstmParameters>;
template class BidirectionalLayer<ProjectedLstmParameters>;

// Layers.

bool LstmLayer::Validate(Refusal& why) {
  cell_dim = output_dim;
  return ForwardLayer::Validate(why);
}

void ProjectedLstmLayer::Reserve(int64_t frames) {
  ForwardLayer::Reserve(frames);
  AllocateState(saved_state, 4 * ToSize(cell_dim), memory_bytes);
}

void ProjectedLstmLayer::Reset() {
  ForwardLayer::Reset();
  ClearState(saved_state);
}

// The saved state is where this call begins; the cell replaces it by the state after the frame that
// the next call will continue from, as it passes it.
void ProjectedLstmLayer::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                      int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  if (frames <= 0) return;
  const RecurrentShape shape = Shape();
  ReserveState(shape, memory_bytes);
  AllocateState(saved_state, 4 * shape.cells, memory_bytes);
  std::copy_n(saved_state.data(), saved_state.size(), state.data());
  ProjectedLstmParameters::Propagate(in, ToSize(frames), shape, Direction::kForward,
                                     Gates(frames, gate_dim, memory_bytes), {out, shape.outputs},
                                     {frames - 1 - overlap_frames, saved_state.data()});
}

void Blstm::Link(NetworkLinks& links) { shared_gates = links.Shared<SharedGates>().rows; }

}  // namespace tarev::nnet::handwriting_CTC
