#include "nnet/gru.h"

#include <algorithm>

#include "nnet/recurrent-kernels.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kGates = 3;

int32_t GateDim(int32_t cell_dim) { return static_cast<int32_t>(int64_t{kGates} * cell_dim); }

}  // namespace

ParameterList GruParameters::List(int32_t cell_dim, int32_t input_dim) {
  const size_t h = ToSize(cell_dim);
  const size_t gates = kGates * h;
  return {{&input_weights, gates, ToSize(input_dim)},
          {&recurrent_weights, gates, h},
          {&input_bias, 1, gates},
          {&recurrent_bias, 1, gates}};
}

void GruParameters::ReserveState(int32_t cell_dim, uint64_t& memory_bytes) {
  AllocateState(state, 2 * ToSize(cell_dim), memory_bytes);
}

void GruParameters::Propagate(const float* in, size_t frames, size_t input_dim, size_t cell_dim,
                              Direction direction, float* gates, float* out, size_t stride) {
  const size_t gate_dim = kGates * cell_dim;
  InputGates(in, frames, input_dim, input_weights, input_bias, gate_dim, gates);
  const float* candidate_weights = recurrent_weights.data() + 2 * cell_dim * cell_dim;
  float* candidate = state.data() + cell_dim;
  const float* hidden = state.data();  // after the first step, the output row before
  for (size_t k = 0; k < frames; ++k) {
    const size_t t = StepIndex(direction, k, frames);
    float* gate = gates + t * gate_dim;
    mat_vec(recurrent_weights.data(), hidden, gate, 2 * cell_dim, cell_dim, 1.0F, 1.0F);
    mat_vec(candidate_weights, hidden, candidate, cell_dim, cell_dim, 1.0F, 0.0F);
    float* row = out + t * stride;
    gru_cell({gate, candidate, recurrent_bias.data(), hidden, row}, cell_dim);
    hidden = row;
  }
  std::copy_n(hidden, cell_dim, state.data());
}

// One direction.

template <int kCode>
bool GruLayer<kCode>::SetShape() {
  gate_dim = GateDim(cell_dim);
  return cell_dim >= 1 && cell_dim == this->output_dim && this->input_dim >= 0;
}

template <int kCode>
bool GruLayer<kCode>::ReadShape(FILE* fp) {
  return ReadValues(fp, cell_dim) && SetShape();
}

template <int kCode>
bool GruLayer<kCode>::ReadTextShape(FILE* fp) {
  ReadCellDim(fp, ClipProperty::kNone, &cell_dim);
  return SetShape();
}

template <int kCode>
bool GruLayer<kCode>::WriteShape(FILE* fp) const {
  return WriteValues(fp, cell_dim);
}

template <int kCode>
void GruLayer<kCode>::Reserve(int64_t frames) {
  ReserveGates(frames, kGates * ToSize(cell_dim), this->memory_bytes);
  ReserveState(cell_dim, this->memory_bytes);
}

template <int kCode>
void GruLayer<kCode>::Reset() {
  ClearState(state, ToSize(cell_dim));
}

template <int kCode>
void GruLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                   int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  const size_t h = ToSize(cell_dim);
  GruParameters::Propagate(in, ToSize(frames), ToSize(in_dim), h, Direction::kForward,
                           gate_buffer.data(), out, h);
}

// Both directions.

template <int kCode>
bool BGruLayer<kCode>::SetShape() {
  gate_dim = GateDim(cell_dim);
  return cell_dim >= 1 && 2 * int64_t{cell_dim} == this->output_dim && this->input_dim >= 0;
}

template <int kCode>
bool BGruLayer<kCode>::ReadShape(FILE* fp) {
  return ReadValues(fp, cell_dim) && SetShape();
}

template <int kCode>
bool BGruLayer<kCode>::ReadTextShape(FILE* fp) {
  ReadCellDim(fp, ClipProperty::kNone, &cell_dim);
  return SetShape();
}

template <int kCode>
bool BGruLayer<kCode>::WriteShape(FILE* fp) const {
  return WriteValues(fp, cell_dim);
}

template <int kCode>
ParameterList BGruLayer<kCode>::MutableParameters() {
  return Join(forward.List(cell_dim, this->input_dim), backward.List(cell_dim, this->input_dim));
}

template <int kCode>
void BGruLayer<kCode>::Reserve(int64_t frames) {
  ReserveGates(frames, kGates * ToSize(cell_dim), this->memory_bytes);
  forward.ReserveState(cell_dim, this->memory_bytes);
  backward.ReserveState(cell_dim, this->memory_bytes);
}

template <int kCode>
void BGruLayer<kCode>::Reset() {
  ClearState(forward.state, ToSize(cell_dim));
  ClearState(backward.state, ToSize(cell_dim));
}

template <int kCode>
void BGruLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                    int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  const size_t n = ToSize(frames);
  const size_t h = ToSize(cell_dim);
  forward.Propagate(in, n, ToSize(in_dim), h, Direction::kForward, gate_buffer.data(), out, 2 * h);
  backward.Propagate(in, n, ToSize(in_dim), h, Direction::kBackward, gate_buffer.data(), out + h,
                     2 * h);
}

template class GruLayer<0x10d>;
template class GruLayer<0x80d>;
template class BGruLayer<0x110>;
template class BGruLayer<0x810>;

}  // namespace tarev::nnet::handwriting_CTC
