#include "nnet/recurrent-form.h"

namespace tarev::nnet::handwriting_CTC {

void ReadCellDim(FILE* fp, ClipProperty clip, int32_t* cell_dim) {
  PropertyTable properties;
  AddProperty(properties, "<CellDim>", "i", cell_dim);
  if (clip == ClipProperty::kIgnored) AddProperty(properties, "<ClipGradient>", "i", nullptr);
  ReadProperties(fp, properties);
}

void GateBuffer::ReserveGates(int64_t frames, size_t gate_dim, uint64_t& memory_bytes) {
  if (frames <= frame_capacity) return;
  gate_buffer.Grow(ToSize(frames) * gate_dim, memory_bytes);
  frame_capacity = frames;
}

ParameterList Join(ParameterList first, const ParameterList& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

void AllocateState(FloatArray& state, size_t count, uint64_t& memory_bytes) {
  if (state.empty()) state.Allocate(1, count, memory_bytes);
}

void ClearState(FloatArray& state, size_t count) {
  if (!state.empty()) zero_vec(state.data(), count);
}

void InputGates(const float* in, size_t frames, size_t input_dim, const FloatArray& weights,
                const FloatArray& bias, size_t gate_dim, float* gates) {
  matmul_trans_b(in, weights.data(), gates, frames, gate_dim, input_dim, 1.0F, 0.0F);
  add_vec_to_rows(gates, frames, gate_dim, bias.data(), 1.0F);
}

}  // namespace tarev::nnet::handwriting_CTC
