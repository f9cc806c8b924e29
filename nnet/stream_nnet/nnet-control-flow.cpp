#include "nnet/stream_nnet/nnet-control-flow.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <string_view>

#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

float* CopyRows(const float* rows, int64_t count, int32_t width, float* out) {
  return std::copy_n(rows, BlockFloats(1, width, count), out);
}

float* FillRows(float value, int64_t count, int32_t width, float* out) {
  return std::fill_n(out, BlockFloats(1, width, count), value);
}

// Rows side by side with those of other parts; returns the place of the next row.
float* CopyToColumn(const float* rows, int64_t count, size_t width, float* column, size_t step) {
  for (int64_t r = 0; r < count; ++r, rows += width, column += step) {
    std::copy_n(rows, width, column);
  }
  return column;
}

// Digits and a minus sign make a number wherever they stand; other characters are skipped.
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

bool StreamRegisterComponent::ReadData(FILE* fp) {
  return fread_string(fp, register_name) && !register_name.empty();
}

bool StreamRegisterComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<RegisterName>", "s:", &register_name);
  ReadProperties(fp, properties);
  return true;
}

bool StreamRegisterComponent::WriteData(FILE* fp) const { return fwrite_string(fp, register_name); }

void StreamRegisterComponent::Reserve(int64_t frames) {
  register_buffer.Reserve(0, frames, memory_bytes);
}

void StreamRegisterComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/,
                                           float* out, int /*call_id*/) {
  RequireEqualDims(*this);
  stored_frames = 0;
  register_buffer.Clear();
  register_buffer.Append(in, frames, memory_bytes);
  stored_frames = register_buffer.rows();
  CopyRows(in, frames, input_dim, out);
}

// The concatenation.

bool StreamConcatenateComponent::MakeQueues() {
  for (int32_t part = 0; part < part_count; ++part) pending.emplace_back(input_dim);
  return true;
}

bool StreamConcatenateComponent::ReadData(FILE* fp) { return ReadBlock(fp) && MakeQueues(); }

bool StreamConcatenateComponent::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadData(fp) : ReadTextBlock(fp) && MakeQueues();
}

void StreamConcatenateComponent::Reset() {
  for (RowQueue& queue : pending) queue.Clear();
}

void StreamConcatenateComponent::CheckParts() const {
  RequireLinked(registers.size());
  for (const Register* part : registers) {
    if (part->input_dim == input_dim && part->output_dim == input_dim) continue;
    ThrowError(Here(), "mismatched concentrate dimension! [%d != %d]", part->output_dim, input_dim);
  }
  const int64_t width = int64_t{part_count} * input_dim;
  if (width != output_dim) {
    ThrowError(Here(), "mismatched concentrate dimension! [%" PRId64 " != %d]", width, output_dim);
  }
}

// Calls visit(part, its rows of this call, how many).
template <class Visit>
void StreamConcatenateComponent::ForEachPart(const float* in, int64_t frames, Visit visit) const {
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    if (IsInput(part)) {
      visit(ToSize(part), in, std::max<int64_t>(frames, 0));
    } else {
      const Register& source = **next++;
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

CallExtent StreamConcatenateComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {UsesInput() ? BlockFloats(1, input_dim, frames) : 0,
          BlockFloats(1, output_dim, CompleteFrames(frames))};
}

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
      column = CopyToColumn(queue.Row(0), waited, width, column, ToSize(output_dim));
      CopyToColumn(rows, taken, width, column, ToSize(output_dim));
    }
    queue.DropFront(waited);
    queue.Append(rows + ToSize(taken) * width, arrived - taken, memory_bytes);
  });
  output_frames = complete;
}

// Reflection.

bool StreamReflectionPad::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddPaddingProperties(properties);
  ReadProperties(fp, properties);
  return PaddingIsSound();
}

void StreamReflectionPad::Reset() {
  ChunkLayerOf::Reset();
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

CallExtent StreamReflectionPad::Extent(int64_t frames, int /*in_dim*/) const {
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t start = first_chunk ? head.rows() + padding_left : 0;
  return {BlockFloats(1, input_dim, n),
          BlockFloats(1, input_dim, Waits(n) ? 0 : start + n + padding_right)};
}

void StreamReflectionPad::KeepTail(const float* in, int64_t frames) {
  const int64_t kept = std::min(frames, int64_t{padding_right} + 1);
  tail.DropFront(tail.rows() + kept - padding_right - 1);
  tail.Append(in + ToSize(frames - kept) * tail.width(), kept, memory_bytes);
}

// The mirrored frames, then those that have waited for them.
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
  RequireEqualDims(*this);
  RequireWidth(input_dim, in_dim);
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

// Padding with one value.

bool StreamConstantPad::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadBlock(fp) : ReadTextBlock(fp);
}

int64_t StreamConstantPad::CalcStreamOutputFrames(int64_t in_frames) const {
  return PaddedFrames(std::max<int64_t>(in_frames, 0));
}

void StreamConstantPad::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  RequireEqualDims(*this);
  RequireWidth(input_dim, in_dim);
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

// The slice.

void StreamSliceComponent::SetStarts() {
  std::string_view rest = index_text;
  for (bool more = true; more;) {
    const size_t comma = rest.find(',');
    const std::string_view item = rest.substr(0, comma);
    starts.push_back(ParseNumber(item.substr(0, item.find(':'))));
    more = comma != rest.npos;
    if (more) rest.remove_prefix(comma + 1);
  }
}

bool StreamSliceComponent::ReadData(FILE* fp) {
  if (!fread_string(fp, index_text)) return false;
  SetStarts();
  return true;
}

bool StreamSliceComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<Index>", "s:", &index_text);
  ReadProperties(fp, properties);
  SetStarts();
  return true;
}

bool StreamSliceComponent::WriteData(FILE* fp) const { return fwrite_string(fp, index_text); }

void StreamSliceComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                        int /*call_id*/) {
  RequireEqualDims(*this);
  RequireWidth(input_dim, in_dim);
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t dropped = std::clamp<int64_t>(starts.front() - frames_seen, 0, n);
  CopyRows(in + ToSize(dropped) * ToSize(input_dim), n - dropped, input_dim, out);
  output_frames = n - dropped;
  frames_seen += n;
}

}  // namespace tarev::nnet::handwriting_CTC
