#include "nnet/recurrent/recurrent-layer.h"

#include "nnet/base/element-kernels.h"

namespace tarev::nnet::handwriting_CTC {

void GateBuffer::ReserveGates(int64_t frames, int32_t gate_dim, uint64_t& memory_bytes) {
  if (BlockFloats(1, gate_dim, frames) <= kMaxBlockFloats) Gates(frames, gate_dim, memory_bytes);
}

// Shared rows belong to no layer, so no layer counts them.
float* GateBuffer::Gates(int64_t frames, int32_t gate_dim, uint64_t& memory_bytes) {
  const int64_t rows = std::min(frames, static_cast<int64_t>(kGateFrames));
  const uint64_t floats = BlockFloats(1, gate_dim, rows);
  if (shared_gates != nullptr) {
    shared_gates->Grow(floats);
    return shared_gates->data();
  }
  gate_buffer.Grow(floats, memory_bytes);
  frame_capacity = std::max(frame_capacity, rows);
  return gate_buffer.data();
}

void AllocateState(FloatArray& state, size_t count, uint64_t& memory_bytes) {
  if (state.empty()) state.Allocate(1, count, memory_bytes);
}

void ClearState(FloatArray& state) { zero_vec(state.data(), state.size()); }

}  // namespace tarev::nnet::handwriting_CTC
