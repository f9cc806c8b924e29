#include "nnet/lstm.h"

#include <algorithm>
#include <cstring>

#include "nnet/recurrent-kernels.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kArraysPerDirection = 4;

// Of the four arrays of a direction the first two are matrices, which carry row sums in 8-bit form.
RowSums SumsOf(size_t index) {
  return index % kArraysPerDirection < 2 ? RowSums::kPerRow : RowSums::kNone;
}

}  // namespace

ParameterList LstmParameters::List(int32_t cell_dim, int32_t input_dim) {
  const size_t c = ToSize(cell_dim);
  return {{&input_weights, 4 * c, ToSize(input_dim)},
          {&recurrent_weights, 4 * c, c},
          {&input_bias, 1, 4 * c},
          {&recurrent_bias, 1, 4 * c}};
}

void LstmParameters::ReserveState(int32_t cell_dim, uint64_t& memory_bytes) {
  AllocateState(state, 4 * ToSize(cell_dim), memory_bytes);
}

void LstmParameters::Propagate(const float* in, size_t frames, size_t input_dim, size_t cell_dim,
                               Direction direction, float* gates, float* out, size_t stride) {
  const size_t gate_dim = 4 * cell_dim;
  InputGates(in, frames, input_dim, input_weights, input_bias, gate_dim, gates);
  float* cell = state.data() + cell_dim;
  const float* hidden = state.data();  // after the first step, the output row before
  for (size_t k = 0; k < frames; ++k) {
    const size_t t = StepIndex(direction, k, frames);
    float* gate = gates + t * gate_dim;
    mat_vec(recurrent_weights.data(), hidden, gate, gate_dim, cell_dim, 1.0F, 1.0F);
    float* row = out + t * stride;
    lstm_cell(gate, recurrent_bias.data(), cell_dim, cell, row);
    hidden = row;
  }
  std::copy_n(hidden, cell_dim, state.data());
}

ParameterList ProjectedLstmParameters::List(int32_t cell_dim, int32_t proj_dim, int32_t input_dim) {
  const size_t c = ToSize(cell_dim);
  const size_t p = ToSize(proj_dim);
  return {{&input_weights, 4 * c, ToSize(input_dim)},
          {&recurrent_weights, 4 * c, p},
          {&bias, 1, 4 * c},
          {&peephole_input, 1, c},
          {&peephole_forget, 1, c},
          {&peephole_output, 1, c},
          {&projection_weights, p, c},
          {&projection_bias, 1, p}};
}

void ProjectedLstmParameters::ReserveState(int32_t cell_dim, uint64_t& memory_bytes) {
  AllocateState(state, 8 * ToSize(cell_dim), memory_bytes);
}

void ProjectedLstmParameters::Propagate(const float* in, size_t frames, size_t input_dim,
                                        size_t cell_dim, size_t proj_dim, Direction direction,
                                        float* gates, float* out, size_t stride,
                                        Snapshot snapshot) {
  const size_t c = cell_dim;
  InputGates(in, frames, input_dim, input_weights, bias, 4 * c, gates);
  float* entering = state.data();
  float* computed = state.data() + 4 * c;
  for (size_t k = 0; k < frames; ++k) {
    const size_t t = StepIndex(direction, k, frames);
    float* gate = gates + t * 4 * c;
    mat_vec(recurrent_weights.data(), entering + 3 * c, gate, 4 * c, proj_dim, 1.0F, 1.0F);
    peephole_lstm_cell({gate, peephole_input.data(), peephole_forget.data(), peephole_output.data(),
                        entering, computed, computed + c, computed + 2 * c},
                       c);
    float* projected = computed + 3 * c;
    mat_vec(projection_weights.data(), computed + 2 * c, projected, proj_dim, c, 1.0F, 0.0F);
    add_vec_to_rows(projected, 1, proj_dim, projection_bias.data(), 1.0F);
    std::copy_n(projected, proj_dim, out + t * stride);
    if (snapshot.frame == static_cast<int64_t>(t)) std::copy_n(computed, 4 * c, snapshot.state);
    std::swap(entering, computed);
  }
  if (entering != state.data()) std::copy_n(entering, 4 * c, state.data());
}

// Lstm.

template <int kCode>
bool LstmLayer<kCode>::ReadShape(FILE* /*fp*/) {
  cell_dim = this->output_dim;
  return cell_dim >= 1 && this->input_dim >= 0;
}

template <int kCode>
void LstmLayer<kCode>::Reserve(int64_t frames) {
  ReserveGates(frames, 4 * ToSize(cell_dim), this->memory_bytes);
  ReserveState(cell_dim, this->memory_bytes);
}

template <int kCode>
void LstmLayer<kCode>::Reset() {
  ClearState(state, 2 * ToSize(cell_dim));
}

template <int kCode>
void LstmLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                    int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  const size_t c = ToSize(cell_dim);
  LstmParameters::Propagate(in, ToSize(frames), ToSize(in_dim), c, Direction::kForward,
                            gate_buffer.data(), out, c);
}

// Projected LSTM.

template <int kCode>
bool ProjectedLstmLayer<kCode>::SetShape() {
  proj_dim = this->output_dim;
  gate_dim = static_cast<int32_t>(4 * int64_t{cell_dim});
  return cell_dim >= 1 && proj_dim >= 1 && proj_dim <= cell_dim && this->input_dim >= 0;
}

template <int kCode>
bool ProjectedLstmLayer<kCode>::ReadShape(FILE* fp) {
  return ReadValues(fp, cell_dim) && SetShape();
}

template <int kCode>
bool ProjectedLstmLayer<kCode>::ReadTextShape(FILE* fp) {
  ReadCellDim(fp, ClipProperty::kIgnored, &cell_dim);
  return SetShape();
}

template <int kCode>
bool ProjectedLstmLayer<kCode>::WriteShape(FILE* fp) const {
  return WriteValues(fp, cell_dim);
}

template <int kCode>
void ProjectedLstmLayer<kCode>::Reserve(int64_t frames) {
  ReserveGates(frames, 4 * ToSize(cell_dim), this->memory_bytes);
  ReserveState(cell_dim, this->memory_bytes);
  AllocateState(saved_state, 4 * ToSize(cell_dim), this->memory_bytes);
}

template <int kCode>
void ProjectedLstmLayer<kCode>::Reset() {
  ClearState(state, 4 * ToSize(cell_dim));
  ClearState(saved_state, 4 * ToSize(cell_dim));
}

template <int kCode>
void ProjectedLstmLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim,
                                             float* out, int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  std::copy_n(saved_state.data(), saved_state.size(), state.data());
  ProjectedLstmParameters::Propagate(
      in, ToSize(frames), ToSize(in_dim), ToSize(cell_dim), ToSize(proj_dim), Direction::kForward,
      gate_buffer.data(), out, ToSize(proj_dim), {frames - 1 - overlap_frames, saved_state.data()});
}

// Bidirectional LSTM.

template <int kCode>
bool BlstmLayer<kCode>::ShapeFits() const {
  return cell_dim >= 1 && 2 * int64_t{cell_dim} == this->output_dim && this->input_dim >= 0;
}

template <int kCode>
bool BlstmLayer<kCode>::ReadShape(FILE* fp) {
  return ReadValues(fp, cell_dim) && ShapeFits();
}

template <int kCode>
bool BlstmLayer<kCode>::WriteShape(FILE* fp) const {
  return WriteValues(fp, cell_dim);
}

template <int kCode>
ParameterList BlstmLayer<kCode>::MutableParameters() {
  return Join(forward.List(cell_dim, this->input_dim), backward.List(cell_dim, this->input_dim));
}

template <int kCode>
void BlstmLayer<kCode>::Reserve(int64_t frames) {
  if (shared_gates == nullptr) ReserveGates(frames, 4 * ToSize(cell_dim), this->memory_bytes);
  forward.ReserveState(cell_dim, this->memory_bytes);
  backward.ReserveState(cell_dim, this->memory_bytes);
}

template <int kCode>
void BlstmLayer<kCode>::Reset() {
  ClearState(forward.state, forward.state.size());
  ClearState(backward.state, backward.state.size());
}

template <int kCode>
void BlstmLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  const size_t n = ToSize(frames);
  const size_t c = ToSize(cell_dim);
  FloatArray& gates = shared_gates != nullptr ? *shared_gates : gate_buffer;
  gates.Grow(n * 4 * c, this->memory_bytes);
  forward.Propagate(in, n, ToSize(in_dim), c, Direction::kForward, gates.data(), out, 2 * c);
  backward.Propagate(in, n, ToSize(in_dim), c, Direction::kBackward, gates.data(), out + c, 2 * c);
}

bool Blstm::ReadData(FILE* fp) {
  return ReadShape(fp) && ReadHalfFloats(fp, MutableParameters(), memory_bytes);
}

bool Blstm::MapData(const char** cursor) {
  std::memcpy(&cell_dim, *cursor, sizeof(cell_dim));
  if (!ShapeFits()) return false;
  *cursor += sizeof(cell_dim);
  return MapFloats(cursor, MutableParameters(), memory_bytes);
}

bool Blstm::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  ReadCellDim(fp, ClipProperty::kIgnored, &cell_dim);
  if (!ShapeFits()) return false;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kStrict, memory_bytes);
  return true;
}

bool Blstm::WriteData(FILE* fp) const {
  return WriteShape(fp) && WriteHalfFloats(fp, Parameters());
}

bool Blstm::WriteFixedData(FILE* fp) const {
  if (!WriteShape(fp)) return false;
  const ConstParameterList list = Parameters();
  for (size_t i = 0; i < list.size(); ++i) {
    if (!WriteAsymmetricBlock(fp, list[i], SumsOf(i))) return false;
  }
  return true;
}

bool FixedBlstm::ReadData(FILE* fp) {
  if (!ReadShape(fp)) return false;
  const ParameterList list = MutableParameters();
  blocks.assign(list.size(), {});
  for (size_t i = 0; i < list.size(); ++i) {
    if (!ReadAsymmetricBlock(fp, list[i], SumsOf(i), blocks[i], memory_bytes)) return false;
  }
  return true;
}

bool FixedBlstm::ReadTextData(FILE* fp, bool binary) { return binary && ReadData(fp); }

bool FixedBlstm::WriteData(FILE* fp) const {
  const ConstParameterList list = Parameters();
  if (blocks.size() != list.size() || !WriteShape(fp)) return false;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!WriteAsymmetricBlock(fp, list[i], blocks[i])) return false;
  }
  return true;
}

// Bidirectional projected LSTM.

template <int kCode>
bool ProjectedBlstmLayer<kCode>::SetShape() {
  proj_dim = this->output_dim / 2;
  gate_dim = static_cast<int32_t>(4 * int64_t{cell_dim});
  return cell_dim >= 1 && proj_dim >= 1 && proj_dim <= cell_dim &&
         2 * int64_t{proj_dim} == this->output_dim && this->input_dim >= 0;
}

template <int kCode>
bool ProjectedBlstmLayer<kCode>::ReadShape(FILE* fp) {
  return ReadValues(fp, cell_dim) && SetShape();
}

template <int kCode>
bool ProjectedBlstmLayer<kCode>::ReadTextShape(FILE* fp) {
  ReadCellDim(fp, ClipProperty::kIgnored, &cell_dim);
  return SetShape();
}

template <int kCode>
bool ProjectedBlstmLayer<kCode>::WriteShape(FILE* fp) const {
  return WriteValues(fp, cell_dim);
}

template <int kCode>
ParameterList ProjectedBlstmLayer<kCode>::MutableParameters() {
  return Join(forward.List(cell_dim, proj_dim, this->input_dim),
              backward.List(cell_dim, proj_dim, this->input_dim));
}

template <int kCode>
void ProjectedBlstmLayer<kCode>::Reserve(int64_t frames) {
  ReserveGates(frames, 4 * ToSize(cell_dim), this->memory_bytes);
  forward.ReserveState(cell_dim, this->memory_bytes);
  backward.ReserveState(cell_dim, this->memory_bytes);
}

template <int kCode>
void ProjectedBlstmLayer<kCode>::Reset() {
  ClearState(forward.state, 4 * ToSize(cell_dim));
  ClearState(backward.state, 4 * ToSize(cell_dim));
}

template <int kCode>
void ProjectedBlstmLayer<kCode>::PropagateFnc(const float* in, int64_t frames, int in_dim,
                                              float* out, int /*call_id*/) {
  this->RequireWidth(this->input_dim, in_dim);
  if (frames <= 0) return;
  Reserve(frames);
  const size_t n = ToSize(frames);
  const size_t p = ToSize(proj_dim);
  forward.Propagate(in, n, ToSize(in_dim), ToSize(cell_dim), p, Direction::kForward,
                    gate_buffer.data(), out, 2 * p, {});
  backward.Propagate(in, n, ToSize(in_dim), ToSize(cell_dim), p, Direction::kBackward,
                     gate_buffer.data(), out + p, 2 * p, {});
}

template class LstmLayer<0x103>;
template class LstmLayer<0x803>;
template class ProjectedLstmLayer<0x106>;
template class ProjectedLstmLayer<0x806>;
template class BlstmLayer<0x10e>;
template class BlstmLayer<0x80e>;
template class ProjectedBlstmLayer<0x10c>;
template class ProjectedBlstmLayer<0x80c>;

}  // namespace tarev::nnet::handwriting_CTC
