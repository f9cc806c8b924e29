#include "nnet/attention.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstring>
#include <limits>

#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Query rows whose scores are formed at a time: they stay in the cache until the context is formed.
constexpr int64_t kQueryTile = 128;

// Layers that carry frames past the network's order or change their number, whatever their
// dimensions: statistics and windows, registers and shapes, everything that streams.
bool IsFrameForFrameType(int code) {
  constexpr int kPrior = 0x600;
  switch (code >> 8) {
    case 0x06:
    case 0x0b:
      return code == kPrior || code == FixedTypeOf(kPrior);
    case 0x07:
    case 0x0d:
    case 0x10:
    case 0x11:
    case 0x18:
    case 0x19:
      return false;
    default:
      return true;
  }
}

bool MapsFrameForFrame(const Component& layer) {
  constexpr int64_t kProbes[] = {1, 2, 3, 16, 1000};
  return !layer.is_2d && IsFrameForFrameType(layer.GetType()) && layer.InputChannel() == 1 &&
         layer.OutputChannel() == 1 && layer.LeftContext() == 0 && layer.RightContext() == 0 &&
         std::ranges::all_of(kProbes, [&](int64_t n) { return layer.CalcOutputFrames(n) == n; });
}

bool IsFeedForward(const NestedGroup& group) { return std::strcmp(group.name, "ff") == 0; }

void RunFrameForFrame(Component& layer, std::span<const float> in, int64_t frames, int in_dim,
                      std::span<float> out, int call_id) {
  layer.PropagateWithin(in, frames, in_dim, out, call_id);
  if (layer.OutputFrames() != frames) {
    ThrowError(Here(), "nested layer[%s] does not map frame to frame! [%" PRId64 " -> %" PRId64 "]",
               layer.TypeMarker().c_str(), frames, layer.OutputFrames());
  }
}

}  // namespace

void GrowBlock(FloatArray& buffer, uint64_t floats, uint64_t& memory_bytes) {
  if (floats > kMaxBlockFloats) {
    ThrowError(Here(), "attention buffer too large! [%" PRIu64 " > %" PRIu64 " floats]", floats,
               kMaxBlockFloats);
  }
  buffer.Grow(floats, memory_bytes);
}

void AttentionHeads::ReserveScores(int64_t queries, int64_t keys, uint64_t& memory_bytes) {
  // The whole matrix counts, although it is formed in tiles: its size bounds the time of a call.
  if (BlockFloats(1, queries, keys) > kMaxBlockFloats) {
    ThrowError(Here(), "attention over too many frames! [%" PRId64 " x %" PRId64 "]", queries,
               keys);
  }
  GrowBlock(scores, BlockFloats(1, std::min(queries, kQueryTile), keys), memory_bytes);
}

void AttentionHeads::Attend(const float* query, int64_t queries, const float* key,
                            const float* value, int64_t keys, float* context) {
  const size_t d = ToSize(model_dim);
  const size_t n = ToSize(keys);
  const size_t width = ToSize(head_dim);
  const float scale = 1.0F / std::sqrt(static_cast<float>(head_dim));
  if (n == 0) return zero_vec(context, ToSize(queries) * d);
  for (int64_t first = 0; first < queries; first += kQueryTile) {
    const size_t rows = ToSize(std::min(kQueryTile, queries - first));
    for (size_t column = 0; column < d; column += width) {
      const size_t at = ToSize(first) * d + column;
      matmul_trans_b({query + at, d}, {key + column, d}, {scores.data(), n}, rows, n, width, scale,
                     0.0F);
      fast_softmax(scores.data(), rows, n, scores.data());
      matmul({scores.data(), n}, {value + column, d}, {context + at, d}, rows, width, n, 1.0F,
             0.0F);
    }
  }
}

template <int kCode>
std::vector<const Component*> AttentionLayer<kCode>::Nested() const {
  std::vector<const Component*> nested;
  for (const NestedGroup& group : const_cast<AttentionLayer*>(this)->Groups()) {
    for (const NestedLayer& layer : group.layers) {
      if (layer != nullptr) nested.push_back(layer.get());
    }
  }
  return nested;
}

template <int kCode>
bool AttentionLayer<kCode>::SetShape(std::source_location where) {
  model_dim = this->input_dim;
  if (model_dim < 1 || this->output_dim != model_dim) {
    LogWarning(where, "mismatched dimensions! layer[%s] [%d -> %d]", this->TypeMarker().c_str(),
               model_dim, this->output_dim);
    return false;
  }
  if (head_num < 1 || model_dim % head_num != 0) {
    LogWarning(where, "wrong head number! [%d] for dimension [%d]", head_num, model_dim);
    return false;
  }
  head_dim = model_dim / head_num;
  return true;
}

template <int kCode>
bool AttentionLayer<kCode>::Fits(const NestedGroup& group, size_t index,
                                 std::source_location where) const {
  const Component& layer = *group.layers[index];
  const std::string& marker = layer.TypeMarker();
  if (!MapsFrameForFrame(layer)) {
    LogWarning(where, "%s layer does not map frame to frame! layer[%s]", group.name,
               marker.c_str());
    return false;
  }
  const bool widens = IsFeedForward(group) && index == 0;
  const bool narrows = IsFeedForward(group) && index == 1;
  const int wanted_in = narrows ? group.layers[0]->OutputDim() : model_dim;
  const int wanted_out = widens ? layer.OutputDim() : model_dim;
  if (layer.InputDim() != wanted_in || layer.OutputDim() != wanted_out) {
    LogWarning(where, "mismatched dimensions! %s layer[%s] [%d -> %d], wanted [%d -> %d]",
               group.name, marker.c_str(), layer.InputDim(), layer.OutputDim(), wanted_in,
               wanted_out);
    return false;
  }
  if (widens && layer.OutputDim() < model_dim) {
    LogWarning(where, "hidden dimension is too small! layer[%s] [%d < %d]", marker.c_str(),
               layer.OutputDim(), model_dim);
    return false;
  }
  return true;
}

template <int kCode>
bool AttentionLayer<kCode>::ReadNested(FILE* fp, bool binary, std::source_location where) {
  for (const NestedGroup& group : Groups()) {
    for (size_t i = 0; i < group.layers.size(); ++i) {
      NestedLayer& layer = group.layers[i];
      layer.reset(Component::Read(fp, binary));
      if (layer == nullptr) {
        LogWarning(where, "%s layer is NULL", group.name);
        return false;
      }
      if (!Fits(group, i, where)) return false;
      this->memory_bytes += layer->MemoryBytes();
    }
  }
  return true;
}

template <int kCode>
bool AttentionLayer<kCode>::ReadBinary(FILE* fp, std::source_location where) {
  return ReadValues(fp, head_num) && SetShape(where) && ReadNested(fp, true, where);
}

template <int kCode>
bool AttentionLayer<kCode>::ReadText(FILE* fp, std::source_location where) {
  PropertyTable properties;
  AddProperty(properties, "<HeadNum>", "i", &head_num);
  ReadProperties(fp, properties);
  return SetShape(where) && ReadNested(fp, false, where);
}

template <int kCode>
bool AttentionLayer<kCode>::WriteData(FILE* fp) const {
  return WriteValues(fp, head_num) &&
         std::ranges::all_of(Nested(), [fp](const Component* layer) { return layer->Write(fp); });
}

template <int kCode>
bool AttentionLayer<kCode>::WriteFixedData(FILE* fp) const {
  return WriteValues(fp, head_num) && std::ranges::all_of(Nested(), [fp](const Component* layer) {
           return layer->WriteFixed(fp);
         });
}

template <int kCode>
uint64_t AttentionLayer<kCode>::ParameterCount() const {
  uint64_t count = 0;
  for (const Component* layer : Nested()) count += layer->ParameterCount();
  return count;
}

template <int kCode>
bool AttentionLayer<kCode>::HasFixedForm() const {
  return std::ranges::all_of(Nested(),
                             [](const Component* layer) { return layer->HasFixedForm(); });
}

// A width that a header claims and no parameters stand behind gets its room only when a call brings
// rows of it.
template <int kCode>
void AttentionLayer<kCode>::Reserve(int64_t frames) {
  if (frames <= frame_capacity || model_dim < 1) return;
  if (ParameterCount() >= ToSize(model_dim)) GrowBuffers(frames);
}

template <int kCode>
void AttentionLayer<kCode>::Reset() {
  propagate_count = 0;
  for (const NestedGroup& group : Groups()) {
    for (const NestedLayer& layer : group.layers) {
      if (layer != nullptr) layer->Reset();
    }
  }
}

template <int kCode>
uint64_t AttentionLayer<kCode>::HiddenFloats(int64_t frames) const {
  return ff_layers[0]->Extent(frames, model_dim).writes;
}

template <int kCode>
void AttentionLayer<kCode>::RunNested(Component& layer, const float* in, int64_t frames,
                                      float* out) {
  const size_t floats = RowFloats(frames);
  RunFrameForFrame(layer, {in, floats}, frames, model_dim, {out, floats}, propagate_count);
}

template <int kCode>
void AttentionLayer<kCode>::FeedForward(const float* in, int64_t frames, float* hidden,
                                        float* out) {
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

template <int kCode>
void AttentionLayer<kCode>::AddRows(float* rows, int64_t frames, const float* other) const {
  add_vec_to_rows(rows, 1, RowFloats(frames), other, 1.0F);
}

template <int kCode>
void AttentionLayer<kCode>::CountCall() {
  if (propagate_count < std::numeric_limits<int32_t>::max()) ++propagate_count;
}

template class AttentionLayer<0x109>;
template class AttentionLayer<0x10a>;

}  // namespace tarev::nnet::handwriting_CTC
