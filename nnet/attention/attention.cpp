#include "nnet/attention/attention.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <limits>

#include "nnet/base/element-kernels.h"
#include "nnet/base/panel-kernels.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Query rows whose scores are formed at a time: the scores stay in the cache until the context is
// formed, and need room for so many rows only, however long the call is.
constexpr int64_t kQueryTile = 128;

// Runs a nested layer within the given blocks. A layer that is said to map frames one to one is
// still held to it: what follows reads as many rows as went in.
void RunFrameForFrame(Component& layer, std::span<const float> in, int64_t frames, int in_dim,
                      std::span<float> out, int call_id) {
  layer.PropagateWithin(in, frames, in_dim, out, call_id);
  if (layer.OutputFrames() != frames) {
    ThrowError(Here(), "nested layer[%s] does not map frame to frame! [%" PRId64 " -> %" PRId64 "]",
               layer.TypeMarker().c_str(), frames, layer.OutputFrames());
  }
}

}  // namespace

void AddGroup(NestedList& nested, const char* name, std::span<NestedLayer> layers) {
  for (NestedLayer& layer : layers) nested.push_back({name, &layer});
}

void AttentionLayer::GrowBlock(FloatArray& buffer, uint64_t floats) {
  if (floats > kMaxBlockFloats) {
    ThrowError(Here(),
               "attention buffer too large! layer[%s] position[%zu] [%" PRIu64 " > %" PRIu64
               " floats]",
               TypeMarker().c_str(), position_, floats, kMaxBlockFloats);
  }
  buffer.Grow(floats, memory_bytes);
}

void AttentionLayer::ReserveScores(int64_t queries, int64_t keys) {
  GrowBlock(scores_, BlockFloats(1, std::min(queries, kQueryTile), keys));
  const auto padded = [](int64_t n) { return static_cast<int64_t>(PaddedOutputs(ToSize(n))); };
  GrowBlock(key_panels_, BlockFloats(1, head_dim, padded(keys)));
  GrowBlock(value_panels_, BlockFloats(1, padded(head_dim), keys));
}

// A head is a band of columns. Its keys and values become the panels of two products; then, for
// each tile of query rows, three steps: scores, softmax of each score row, weighted sum of the
// values. Queries and context are read and written in place.
void AttentionLayer::Attend(const float* query, int64_t queries, const float* key,
                            const float* value, int64_t keys, float* context) {
  const size_t d = ToSize(model_dim);
  const size_t n = ToSize(keys);
  const size_t width = ToSize(head_dim);
  const float scale = 1.0F / std::sqrt(static_cast<float>(head_dim));
  if (n == 0) return zero_vec(context, ToSize(queries) * d);
  for (size_t column = 0; column < d; column += width) {
    pack_outputs({key + column, d}, n, width, key_panels_.data());
    pack_inputs({value + column, d}, width, n, value_panels_.data());
    const Panels<float> keys_of_head{key_panels_.data(), n, width};
    const Panels<float> values_of_head{value_panels_.data(), width, n};
    for (int64_t first = 0; first < queries; first += kQueryTile) {
      const size_t rows = ToSize(std::min(kQueryTile, queries - first));
      const size_t at = ToSize(first) * d + column;
      panel_product({query + at, d}, rows, keys_of_head, {.scale = scale}, {scores_.data(), n});
      fast_softmax(scores_.data(), rows, n, scores_.data());
      panel_product({scores_.data(), n}, rows, values_of_head, {}, {context + at, d});
    }
  }
}

bool AttentionLayer::Validate(Refusal& why) {
  model_dim = input_dim;
  if (model_dim < 1 || output_dim != model_dim) {
    return why.LogBecause(Place(), "mismatched dimensions! layer[%s] [%d -> %d]",
                          TypeMarker().c_str(), model_dim, output_dim);
  }
  if (head_num < 1 || model_dim % head_num != 0) {
    return why.LogBecause(Place(), "wrong head number! [%d] for dimension [%d]", head_num,
                          model_dim);
  }
  head_dim = model_dim / head_num;
  return true;
}

// Everything that a call relies on is checked as soon as a component is read: that it maps frames
// one to one, the widths of its rows, and that the hidden width is no smaller than model_dim.
bool AttentionLayer::AcceptNested(size_t index, Refusal& why) {
  const NestedRef nested = Nested()[index];
  if (*nested.layer == nullptr) return why.LogBecause(Place(), "%s layer is NULL", nested.name);
  const Component& layer = **nested.layer;
  const std::string& marker = layer.TypeMarker();
  if (!layer.MapsFrameForFrame()) {
    return why.LogBecause(Place(), "%s layer does not map frame to frame! layer[%s]", nested.name,
                          marker.c_str());
  }
  const bool widens = nested.layer == &ff_layers[0];
  const bool narrows = nested.layer == &ff_layers[1];
  const int wanted_in = narrows ? ff_layers[0]->OutputDim() : model_dim;
  const int wanted_out = widens ? layer.OutputDim() : model_dim;
  if (layer.InputDim() != wanted_in || layer.OutputDim() != wanted_out) {
    return why.LogBecause(
        Place(), "mismatched dimensions! %s layer[%s] [%d -> %d], wanted [%d -> %d]", nested.name,
        marker.c_str(), layer.InputDim(), layer.OutputDim(), wanted_in, wanted_out);
  }
  return !widens || layer.OutputDim() >= model_dim ||
         why.LogBecause(Place(), "hidden dimension is too small! layer[%s] [%d < %d]",
                        marker.c_str(), layer.OutputDim(), model_dim);
}

std::vector<const Component*> AttentionLayer::ReadComponents() const {
  std::vector<const Component*> components;
  for (const NestedRef& nested : const_cast<AttentionLayer*>(this)->Nested()) {
    if (*nested.layer != nullptr) components.push_back(nested.layer->get());
  }
  return components;
}

bool AttentionLayer::HasFixedForm() const {
  return std::ranges::all_of(ReadComponents(),
                             [](const Component* layer) { return layer->HasFixedForm(); });
}

// Room is made ahead only when the model file has parameters for the width that its header claims,
// and when a call could have that room; otherwise it is made by a call that really brings such
// rows.
void AttentionLayer::Reserve(int64_t frames) {
  if (frames <= frame_capacity || model_dim < 1 || ParameterCount() < ToSize(model_dim)) return;
  if (std::max(RowFloats(frames), HiddenFloats(frames)) <= kMaxBlockFloats) GrowBuffers(frames);
}

void AttentionLayer::Reset() {
  propagate_count = 0;
  if (nested_.empty()) nested_ = Nested();
  for (const NestedRef& nested : nested_) {
    if (*nested.layer != nullptr) (*nested.layer)->Reset();
  }
}

uint64_t AttentionLayer::HiddenFloats(int64_t frames) const {
  return ff_layers[0]->Plan(frames, model_dim).writes;
}

void AttentionLayer::RunNested(Component& layer, const float* in, int64_t frames, float* out) {
  const size_t floats = RowFloats(frames);
  RunFrameForFrame(layer, {in, floats}, frames, model_dim, {out, floats}, propagate_count);
}

void AttentionLayer::FeedForward(const float* in, int64_t frames, float* hidden, float* out) {
  const size_t floats = RowFloats(frames);
  const size_t hidden_floats = HiddenFloats(frames);
  Component& widen = *ff_layers[0];
  Component& narrow = *ff_layers[1];
  RunFrameForFrame(widen, {in, floats}, frames, model_dim, {hidden, hidden_floats},
                   propagate_count);
  relu(hidden, 1, hidden_floats, hidden);
  RunFrameForFrame(narrow, {hidden, hidden_floats}, frames, widen.OutputDim(), {out, floats},
                   propagate_count);
}

void AttentionLayer::AddRows(float* rows, int64_t frames, const float* other) const {
  add_vec_to_rows(rows, 1, RowFloats(frames), other, 1.0F);
}

void AttentionLayer::CountCall() {
  if (propagate_count < std::numeric_limits<int32_t>::max()) ++propagate_count;
}

}  // namespace tarev::nnet::handwriting_CTC
