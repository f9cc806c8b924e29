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

}  // namespace tarev::nnet::handwriting_CTC
