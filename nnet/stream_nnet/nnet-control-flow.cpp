#include "nnet/stream_nnet/nnet-control-flow.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <string_view>

#include "nnet/flow/frame-copy.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

float* FillRows(float value, int64_t count, int32_t width, float* out) {
  return std::fill_n(out, BlockFloats(1, width, count), value);
}

// Lenient: digits and a minus sign make a number wherever they are; other characters are skipped.
// Limited to an int32.
int32_t ParseNumber(std::string_view text) {
  int64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') continue;
    number = std::min<int64_t>(number * 10 + (c - '0'), std::numeric_limits<int32_t>::max());
  }
  return static_cast<int32_t>(text.find('-') == text.npos ? number : -number);
}

}  // namespace

// The register.

bool StreamRegisterComponent::Validate(Refusal& why) {
  return why.Require(!register_name.empty(), "<RegisterName> is empty") &&
         why.SameWidth(input_dim, output_dim);
}

void StreamRegisterComponent::Announce(NetworkLinks& links) {
  AnnounceRegister(links, *this);
  reserved_frames.reset();
}

void StreamRegisterComponent::Reserve(int64_t frames) {
  register_buffer.Reserve(0, frames, memory_bytes);
  reserved_frames = frames;
}

void StreamRegisterComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                           int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  AdoptSameWidth(in_dim);
  stored_frames = 0;
  register_buffer.Clear();
  register_buffer.Append(in, frames, memory_bytes);
  stored_frames = register_buffer.rows();
  CopyRows(in, frames, input_dim, out);
}

// The concatenation.

bool StreamConcatenateComponent::Validate(Refusal& why) {
  if (!ValidateParts(why)) return false;
  for (int32_t part = 0; part < part_count; ++part) pending.emplace_back(input_dim);
  return true;
}

void StreamConcatenateComponent::Link(NetworkLinks& links) {
  place_ = links.place();
  FindRegisters(links, *this, &Component::input_dim, &Component::output_dim);
  CheckParts();
}

void StreamConcatenateComponent::Reset() {
  for (RowQueue& queue : pending) queue.Clear();
}

void StreamConcatenateComponent::CheckParts() const {
  for (const StreamRegisterComponent* part : registers) {
    if (part->input_dim == input_dim && part->output_dim == input_dim) continue;
    ThrowError(Here(), "mismatched concentrate dimension! [%d != %d]", part->output_dim, input_dim);
  }
  CheckSizes(Here(), *this, &Component::input_dim, &Component::output_dim);
}

// The fewest rows that any part can have: those in its queue and those that the call brings. How
// many a register brings is known from the room that was made for it, since it runs before this
// layer.
int64_t StreamConcatenateComponent::MostFrames(int64_t in_frames) const {
  int64_t most = std::numeric_limits<int64_t>::max();
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    int64_t arriving = in_frames;
    if (!IsInput(part)) {
      const StreamRegisterComponent& source = **next++;
      if (!source.reserved_frames) {
        ThrowError(place_, "cannot find register with name [%s]", source.register_name.c_str());
      }
      arriving = *source.reserved_frames;
    }
    most = std::min(most, arriving + pending[ToSize(part)].rows());
  }
  return part_count == 0 ? 0 : most;
}

// Calls visit(part, the rows that the call brings for it, how many) for every part in order.
template <class Visit>
void StreamConcatenateComponent::ForEachPart(const float* in, int64_t frames, Visit visit) const {
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    if (IsInput(part)) {
      visit(ToSize(part), in, std::max<int64_t>(frames, 0));
    } else {
      const StreamRegisterComponent& source = **next++;
      visit(ToSize(part), source.register_buffer.Row(0), source.stored_frames);
    }
  }
}

// The frames that every part has.
int64_t StreamConcatenateComponent::CompleteFrames(int64_t frames) const {
  if (registers.size() != register_names.size() || part_count == 0) return 0;
  int64_t complete = std::numeric_limits<int64_t>::max();
  ForEachPart(nullptr, frames, [&](size_t part, const float* /*rows*/, int64_t arrived) {
    complete = std::min(complete, pending[part].rows() + arrived);
  });
  return complete;
}

CallPlan StreamConcatenateComponent::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t complete = CompleteFrames(frames);
  return {complete, UsesInput() ? BlockFloats(1, input_dim, frames) : 0,
          BlockFloats(1, output_dim, complete)};
}

// The complete frames of a part come first from its queue, then from the rows of the call, which
// are copied into the output directly; only what is ahead of the other parts goes into the queue.
void StreamConcatenateComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/,
                                              float* out, int /*call_id*/) {
  CheckParts();
  const size_t width = ToSize(input_dim);
  const int64_t complete = CompleteFrames(frames);
  ForEachPart(in, frames, [&](size_t part, const float* rows, int64_t arrived) {
    RowQueue& queue = pending[part];
    const int64_t waited = std::min(queue.rows(), complete);
    const int64_t taken = complete - waited;
    if (complete > 0) {
      float* column = out + part * width;
      column = CopyRows(queue.Row(0), waited, input_dim, input_dim, column, output_dim);
      CopyRows(rows, taken, input_dim, input_dim, column, output_dim);
    }
    queue.DropFront(waited);
    queue.Append(rows + ToSize(taken) * width, arrived - taken, memory_bytes);
  });
  output_frames = complete;
}

// Reflection. The start waits in `head` until frame L has arrived, which is the first one that
// comes out; `tail` always holds the last R + 1 frames, any of which may turn out to be mirrored at
// the end.

void StreamReflectionPad::Reset() {
  ChunkLayer::Reset();
  head.Clear();
  tail.Clear();
}

void StreamReflectionPad::Reserve(int64_t /*frames*/) {
  head.Reserve(0, padding_left, memory_bytes);
  tail.Reserve(int64_t{padding_right} + 1, 0, memory_bytes);
}

int64_t StreamReflectionPad::CalcStreamOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, in_frames + 2 * int64_t{padding_left} + padding_right);
}

// As if the call were the last one; its executor does not say so before it runs.
CallPlan StreamReflectionPad::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t start = first_chunk ? head.rows() + padding_left : 0;
  return {CalcStreamOutputFrames(frames), BlockFloats(1, input_dim, n),
          BlockFloats(1, input_dim, Waits(n) ? 0 : start + n + padding_right)};
}

void StreamReflectionPad::KeepTail(const float* in, int64_t frames) {
  const int64_t kept = std::min(frames, int64_t{padding_right} + 1);
  tail.DropFront(tail.rows() + kept - padding_right - 1);
  tail.Append(in + ToSize(frames - kept) * tail.width(), kept, memory_bytes);
}

// Frames L, …, 1 and then the frames that have waited. A mirrored frame is one of those, or of the
// call that has ended the wait.
float* StreamReflectionPad::EmitHead(const float* in, float* out) {
  const int64_t waited = head.rows();
  for (int64_t frame = padding_left; frame >= 1; --frame) {
    const float* row =
        frame < waited ? head.Row(frame) : in + ToSize(frame - waited) * head.width();
    out = CopyRows(row, 1, input_dim, out);
  }
  return CopyRows(head.Row(0), waited, input_dim, out);
}

void StreamReflectionPad::ThrowTooShort(int64_t frames) const {
  ThrowError(Here(), "too few input frames! [frames:%" PRId64 ", padding:%d,%d]", frames,
             padding_left, padding_right);
}

void StreamReflectionPad::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                       int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  AdoptSameWidth(in_dim);
  const int64_t n = std::max<int64_t>(frames, 0);
  output_frames = 0;
  KeepTail(in, n);
  if (Waits(n)) {
    head.Append(in, n, memory_bytes);
    if (last_chunk && head.rows() > 0) ThrowTooShort(head.rows());
    return;
  }
  if (last_chunk && tail.rows() <= padding_right) ThrowTooShort(tail.rows());
  if (first_chunk) out = EmitHead(in, out);
  out = CopyRows(in, n, input_dim, out);
  output_frames = n + (first_chunk ? head.rows() + padding_left : 0);
  if (last_chunk) {
    for (int64_t row = int64_t{padding_right} - 1; row >= 0; --row) {
      out = CopyRows(tail.Row(row), 1, input_dim, out);
    }
    output_frames += padding_right;
  }
  first_chunk = false;
  last_chunk = false;
}

// Padding with one value. It depends on no frame, so each end comes with the call that is at it.

int64_t StreamConstantPad::CalcStreamOutputFrames(int64_t in_frames) const {
  return PaddedFrames(std::max<int64_t>(in_frames, 0));
}

void StreamConstantPad::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  AdoptSameWidth(in_dim);
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t before = first_chunk ? padding_left : 0;
  const int64_t after = last_chunk ? padding_right : 0;
  out = FillRows(value, before, input_dim, out);
  out = CopyRows(in, n, input_dim, out);
  FillRows(value, after, input_dim, out);
  output_frames = before + n + after;
  first_chunk = false;
  last_chunk = false;
}

// The slice. A count of the frames seen is all that it carries.

bool StreamSliceComponent::Validate(Refusal& why) {
  starts.clear();
  std::string_view rest = index_text;
  for (bool more = true; more;) {
    const size_t comma = rest.find(',');
    const std::string_view item = rest.substr(0, comma);
    starts.push_back(ParseNumber(item.substr(0, item.find(':'))));
    more = comma != rest.npos;
    if (more) rest.remove_prefix(comma + 1);
  }
  return why.SameWidth(input_dim, output_dim);
}

void StreamSliceComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                        int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  AdoptSameWidth(in_dim);
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t dropped = std::clamp<int64_t>(starts.front() - frames_seen, 0, n);
  CopyRows(in + ToSize(dropped) * ToSize(input_dim), n - dropped, input_dim, out);
  output_frames = n - dropped;
  frames_seen += n;
}

}  // namespace tarev::nnet::handwriting_CTC
