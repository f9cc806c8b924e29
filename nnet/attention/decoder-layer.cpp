#include "nnet/attention/decoder-layer.h"

#include <algorithm>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

NestedList Decoder::Nested() {
  NestedList nested;
  AddGroup(nested, "self_atten", self_atten_layers);
  AddGroup(nested, "self_atten", cross_atten_layers);
  AddGroup(nested, "ff", ff_layers);
  AddGroup(nested, "sub", sub_layers);
  return nested;
}

std::source_location Decoder::Place() const { return Here(); }

void Decoder::Reset() {
  AttentionLayer::Reset();
  step_count = 0;
  memory = nullptr;
  memory_frames = 0;
  memory_ready = false;
}

void Decoder::SetMemory(float* rows, int64_t frames) {
  if (frames < 0) ThrowWrongParameters(Here(), "SetMemory", "frames < 0");
  if (frames > 0 && rows == nullptr) {
    ThrowWrongParameters(Here(), "SetMemory", "frames > 0 && rows == __null");
  }
  memory = rows;
  memory_frames = frames;
  memory_ready = false;
}

// Beyond the room that was reserved the caches double, so that a step costs the same on average.
void Decoder::GrowBuffers(int64_t steps) {
  ReserveScores(1, std::max(steps, memory_frames));
  if (steps <= frame_capacity) return;
  const int64_t capacity = std::max(steps, 2 * frame_capacity);
  ReserveScores(1, capacity);
  GrowBlock(key_cache, RowFloats(capacity));
  GrowBlock(value_cache, RowFloats(capacity));
  GrowBlock(query, RowFloats(1));
  GrowBlock(cross_query, RowFloats(1));
  GrowBlock(context_buffer, std::max(RowFloats(1), HiddenFloats(1)));
  frame_capacity = capacity;
}

void Decoder::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  RequireWidth(model_dim, in_dim);
  if (frames <= 0) return;
  GrowBuffers(step_count + frames);
  auto* rows = const_cast<float*>(in);
  for (int64_t t = 0; t < frames; ++t) Step(rows + RowFloats(t), out + RowFloats(t));
}

// A step computes one row: keys and values of the steps before are kept, so the cost of a step
// grows with the length of the sequence only in the attention itself. `out` serves as the buffer
// between sub-layers; the sums are formed in the input row.
void Decoder::Step(float* row, float* out) {
  CountCall();
  RunNested(*sub_layers[0], row, 1, out);
  AttendToSteps(row, out);
  RunNested(*sub_layers[1], row, 1, out);
  AttendToMemory(row, out);
  RunNested(*sub_layers[2], row, 1, out);
  FeedForward(out, 1, context_buffer.data(), out);
  AddRows(out, 1, row);
}

// Causal attention over all steps, of which only the row of the newest step is needed. That one
// sees all steps, so no mask is.
void Decoder::AttendToSteps(float* row, float* out) {
  RunNested(*self_atten_layers[0], out, 1, query.data());
  RunNested(*self_atten_layers[1], out, 1, key_cache.data() + RowFloats(step_count));
  RunNested(*self_atten_layers[2], out, 1, value_cache.data() + RowFloats(step_count));
  ++step_count;
  Attend(query.data(), 1, key_cache.data(), value_cache.data(), step_count, context_buffer.data());
  RunNested(*self_atten_layers[3], context_buffer.data(), 1, out);
  AddRows(row, 1, out);
}

void Decoder::AttendToMemory(float* row, float* out) {
  RunNested(*cross_atten_layers[0], out, 1, cross_query.data());
  ProjectMemory();
  Attend(cross_query.data(), 1, memory_keys.data(), memory_values.data(), memory_frames,
         context_buffer.data());
  RunNested(*cross_atten_layers[3], context_buffer.data(), 1, out);
  AddRows(row, 1, out);
}

// Once for a memory, in the first step that sees it.
void Decoder::ProjectMemory() {
  if (memory_ready) return;
  if (memory_frames > 0) {
    GrowBlock(memory_keys, RowFloats(memory_frames));
    GrowBlock(memory_values, RowFloats(memory_frames));
    RunNested(*cross_atten_layers[1], memory, memory_frames, memory_keys.data());
    RunNested(*cross_atten_layers[2], memory, memory_frames, memory_values.data());
  }
  memory_ready = true;
}

}  // namespace tarev::nnet::handwriting_CTC
