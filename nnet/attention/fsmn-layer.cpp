#include "nnet/attention/fsmn-layer.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <vector>

#include "nnet/attention/fsmn-kernels.h"
#include "nnet/base/element-kernels.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// A block of the network and the left contexts of all blocks up to it.
struct MetBlock {
  const Fsmn* block;
  int64_t left_contexts;
};

}  // namespace

int64_t Fsmn::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, in_frames - LeftContext() - RightContext());
}

void Fsmn::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  memory_buffer.Grow(BlockFloats(1, dim, frames), memory_bytes);
  frame_capacity = frames;
}

FieldList Fsmn::Fields() {
  return {{"<LOrder>", &l_order},
          {"<ROrder>", &r_order},
          {"<Stride>", &stride},
          {"<Depend>", &depend},
          IgnoredField("<LearnRateCoef>")};
}

// Counts beyond 32 bits are more than any call can carry.
bool Fsmn::Validate(Refusal& why) {
  constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
  dim = input_dim;
  return why.Require(depend <= 0, "Fsmn layer _depend must <= 0!") &&
         why.AtLeast("input dimension", dim, 1) &&
         why.Equal("output dimension", output_dim, "input dimension", dim) &&
         why.AtLeast("<LOrder>", l_order, 0) && why.AtLeast("<ROrder>", r_order, 0) &&
         why.AtLeast("<Stride>", stride, 0) && why.AtMost("taps", Taps(), kMost) &&
         why.AtMost("left context", LeftContext(), kMost) &&
         why.AtMost("right context", RightContext(), kMost);
}

ParameterList Fsmn::MutableParameters() { return {Matrix("filter", filter, Taps(), dim)}; }

// Only the text form says in the log that a block cannot depend on a later one.
bool Fsmn::ReadTextData(FILE* fp, bool binary) {
  const bool read = LayerOf::ReadTextData(fp, binary);
  if (!binary && depend > 0) LogWarning(Here(), "%s", LastRefusal().text().c_str());
  return read;
}

// Blocks are announced in network order, and a block depends on one before it, so one visit is
// enough. Its first output row is a later frame of the input than that of the other block, by the
// left contexts of all blocks after the other one up to this: that is the offset between their
// rows.
void Fsmn::Announce(NetworkLinks& links) {
  std::vector<MetBlock>& met = links.Shared<std::vector<MetBlock>>();
  const int64_t left_contexts = LeftContext() + (met.empty() ? 0 : met.back().left_contexts);
  met.push_back({this, left_contexts});
  Unlink();
  if (depend == 0) return;
  const int64_t source = static_cast<int64_t>(met.size()) - 1 + depend;
  if (source < 0 || source >= static_cast<int64_t>(met.size())) {
    ThrowError(links.place(), "fsmn 'depend' out of scope! [%d]", static_cast<int>(source));
  }
  const MetBlock& other = met[ToSize(source)];
  LinkTo(*other.block, left_contexts - other.left_contexts);
}

std::string Fsmn::Links() const {
  return depend == 0 ? std::string() : "memory of Fsmn " + std::to_string(depend);
}

void Fsmn::LinkTo(const Fsmn& source, int64_t offset) {
  if (source.dim != dim) {
    ThrowError(Here(), "mismatched fsmn memory! layer[%s] [%d] vs [%d]", TypeMarker().c_str(), dim,
               source.dim);
  }
  skip_source = &source;
  skip_offset = offset;
}

void Fsmn::Unlink() {
  skip_source = nullptr;
  skip_offset = -1;
}

// Layers between two blocks may change the number of frames, so the rows are counted on every call.
void Fsmn::CheckSkip(int64_t out_frames) const {
  if (depend == 0) return;
  if (skip_source == nullptr) {
    ThrowError(Here(), "fsmn is not linked to its dependency! [%d]", depend);
  }
  if (out_frames + skip_offset > skip_source->output_frames) {
    ThrowError(Here(), "too few fsmn memory rows! [needed:%" PRId64 ", produced:%" PRId64 "]",
               out_frames + skip_offset, skip_source->output_frames);
  }
}

// Output frame i is input frame i + left context. The memories stay in a buffer of their own for
// the blocks that depend on this one; the memory that this block depends on is added last, so the
// own memory is without it.
void Fsmn::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int /*call_id*/) {
  output_frames = 0;  // until the rows are there: other blocks rely on it
  RequireWidth(dim, in_dim);
  const int64_t out_frames = frames - LeftContext() - RightContext();
  if (out_frames <= 0) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64 ", left:%" PRId64 ", right:%" PRId64 "]",
               frames, LeftContext(), RightContext());
  }
  CheckSkip(out_frames);
  Reserve(frames);
  const size_t n = ToSize(out_frames);
  const size_t width = ToSize(dim);
  fsmn_frames({filter.data(), ToSize(Taps()), ToSize(l_order), ToSize(stride), width}, in, n,
              memory_buffer.data(), out);
  if (skip_source != nullptr) {
    const float* skip = skip_source->memory_buffer.data() + ToSize(skip_offset) * width;
    add_vec_to_rows(out, 1, n * width, skip, 1.0F);
  }
  output_frames = out_frames;
}

}  // namespace tarev::nnet::handwriting_CTC
