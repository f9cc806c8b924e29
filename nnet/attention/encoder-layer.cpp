#include "nnet/attention/encoder-layer.h"

#include <algorithm>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

NestedList Encoder::Nested() {
  NestedList nested;
  AddGroup(nested, "self_atten", self_atten_layers);
  AddGroup(nested, "ff", ff_layers);
  AddGroup(nested, "sub", sub_layers);
  return nested;
}

std::source_location Encoder::Place() const { return Here(); }

void Encoder::GrowBuffers(int64_t frames) {
  ReserveScores(frames, frames);
  const uint64_t floats = RowFloats(frames);
  GrowBlock(query_buffer, floats);
  GrowBlock(key_buffer, floats);
  GrowBlock(value_buffer, floats);
  GrowBlock(hidden_buffer, std::max(floats, HiddenFloats(frames)));
  frame_capacity = std::max(frame_capacity, frames);
}

// The output block serves as the buffer of every intermediate result, so that only queries, keys,
// values and the context need room of their own; the sums are formed in the input rows. The hidden
// rows of the feed-forward layers take the place of the context.
void Encoder::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  RequireWidth(model_dim, in_dim);
  CountCall();
  if (frames <= 0) return;
  GrowBuffers(frames);
  auto* rows = const_cast<float*>(in);
  RunNested(*sub_layers[0], rows, frames, out);
  RunNested(*self_atten_layers[0], out, frames, query_buffer.data());
  RunNested(*self_atten_layers[1], out, frames, key_buffer.data());
  RunNested(*self_atten_layers[2], out, frames, value_buffer.data());
  Attend(query_buffer.data(), frames, key_buffer.data(), value_buffer.data(), frames,
         hidden_buffer.data());
  RunNested(*self_atten_layers[3], hidden_buffer.data(), frames, out);
  AddRows(rows, frames, out);
  RunNested(*sub_layers[1], rows, frames, out);
  FeedForward(out, frames, hidden_buffer.data(), out);
  AddRows(out, frames, rows);
}

}  // namespace tarev::nnet::handwriting_CTC
