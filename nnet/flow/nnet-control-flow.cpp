#include "nnet/flow/nnet-control-flow.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>

#include "nnet/flow/frame-copy.h"
#include "utils/file-io.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

using Token = char[kTokenSize];

// Room ahead of a call, up to what a header alone may ask for; the call that brings the rows makes
// the rest.
void GrowAhead(FloatArray& buffer, uint64_t floats, uint64_t& memory_bytes) {
  if (floats <= kMaxFloatsAhead) buffer.Grow(floats, memory_bytes);
}

// The next token of a line and the place after it; false when the line has ended.
bool NextWord(char*& line, Token& token) {
  while (line != nullptr && (*line == ' ' || *line == '\t')) ++line;
  if (line == nullptr || *line == '\0') return false;
  line = get_next_token(line, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong property format!");
  return true;
}

// A count before as many entries of at least 4 bytes each, checked against the rest of the file.
bool ReadCount(FILE* fp, const char* name, int32_t& count, Refusal& why) {
  constexpr size_t kLeastBytes = 4;
  return why.Read(fp, name, &count, sizeof(count)) && why.AtLeast(name, count, 0) &&
         why.FileHolds(fp, name, ToSize(count) * kLeastBytes);
}

}  // namespace

// Frame indexes, of registers and slices.

// What exceeds an int32 stays out of reach.
std::vector<int32_t> ParseIndexes(const std::string& text) {
  if (text.empty()) return {};
  const long index = std::strtol(text.c_str(), nullptr, 10);
  return {static_cast<int32_t>(std::clamp<long>(index, std::numeric_limits<int32_t>::min(),
                                                std::numeric_limits<int32_t>::max()))};
}

int64_t FrameAt(const Component& layer, int32_t index, int64_t frames) {
  const int64_t frame = index < 0 ? index + frames : index;
  if (frame < 0 || frame >= frames) {
    ThrowError(Here(), "frame index out of range! layer[%s] [%d] of [%" PRId64 "] frames",
               layer.TypeMarker().c_str(), index, frames);
  }
  return frame;
}

void CheckIndexes(const Component& layer, const std::vector<int32_t>& indexes, int64_t frames) {
  for (const int32_t index : indexes) FrameAt(layer, index, frames);
}

// Registers.

FieldList RegisterComponent::Fields() {
  return {{"<RegisterName>", &register_name, FieldUse::kRequired},
          {"<SliceIndex>", &slice_index, FieldUse::kTextOnly},
          {"slice index", this, FieldUse::kBinaryOnly}};
}

bool RegisterComponent::ReadPart(FILE* fp, Refusal& why) {
  constexpr size_t kMarkSize = 3;
  char mark[kMarkSize];
  const size_t got = std::fread(mark, 1, kMarkSize, fp);
  if (got == kMarkSize && std::memcmp(mark, "EXT", kMarkSize) == 0) {
    return why.ReadString(fp, "slice index", slice_index);
  }
  // The block has no extension: what was read belongs to the next component.
  if (std::fseek(fp, -static_cast<long>(got), SEEK_CUR) != 0) {
    return why.Because("the stream cannot be read again from before the next component");
  }
  return got == kMarkSize || RemainingBytes(fp) < kMarkSize ||
         why.Because("slice index: cannot be read");
}

bool RegisterComponent::WritePart(FILE* fp) const {
  return slice_index.empty() || (WriteValues(fp, 'E', 'X', 'T') && fwrite_string(fp, slice_index));
}

bool RegisterComponent::Validate(Refusal& why) {
  if (!why.AtLeast("input dimension", input_dim, 0) ||
      !why.AtLeast("output dimension", output_dim, 0) || !why.SameWidth(input_dim, output_dim) ||
      !why.Require(!register_name.empty(), "<RegisterName> is empty")) {
    return false;
  }
  indexes = ParseIndexes(slice_index);
  stored_frames = static_cast<int64_t>(indexes.size());
  GrowAhead(register_buffer, BlockFloats(1, input_dim, stored_frames), memory_bytes);
  return true;
}

void RegisterComponent::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  if (indexes.empty()) {
    GrowAhead(register_buffer, BlockFloats(1, input_dim, frames), memory_bytes);
  }
  frame_capacity = frames;
}

// A register that picks frames has their number from the start, since room is made for a
// concatenation before the first call; what the buffer really holds bounds what is read of it.
int64_t RegisterComponent::HeldFrames() const {
  if (output_dim < 1) return stored_frames;
  return std::min(stored_frames, static_cast<int64_t>(register_buffer.size()) / output_dim);
}

void RegisterComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  AdoptSameWidth(in_dim);
  stored_frames = 0;
  if (frames < 1) return;
  CheckIndexes(*this, indexes, frames);
  const size_t width = ToSize(input_dim);
  const size_t rows = indexes.empty() ? ToSize(frames) : indexes.size();
  register_buffer.Grow(rows * width, memory_bytes);
  if (indexes.empty()) {
    std::copy_n(in, rows * width, register_buffer.data());
  } else {
    for (size_t k = 0; k < rows; ++k) {
      const size_t frame = ToSize(FrameAt(*this, indexes[k], frames));
      std::copy_n(in + frame * width, width, register_buffer.data() + k * width);
    }
  }
  stored_frames = static_cast<int64_t>(rows);
  std::copy_n(in, ToSize(frames) * width, out);
}

bool Register2dComponent::Validate(Refusal& why) {
  return why.Require(!register_name.empty(), "<RegisterName> is empty") &&
         why.SameChannels(input_channel, output_channel) &&
         why.SameWidth(input_dim_set ? input_dim : 0, output_dim_set ? output_dim : 0);
}

// The text form must give both dimensions.
bool Register2dComponent::ReadTextData(FILE* fp, bool binary) {
  if (!binary && (!input_dim_set || !output_dim_set)) {
    return refusal_.LogBecause(Here(), "<InputDim> or <OutputDim> is not set!");
  }
  return LayerOf::ReadTextData(fp, binary);
}

void Register2dComponent::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  GrowAhead(register_buffer, BlockFloats(input_channel, input_dim, frames), memory_bytes);
  frame_capacity = frames;
}

CallPlan Register2dComponent::Plan(int64_t frames, int in_dim) const {
  const int width = CallInputDim(in_dim);
  return {CalcOutputFrames(frames), BlockFloats(input_channel, width, frames),
          BlockFloats(output_channel, width, frames)};
}

void Register2dComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                       int /*call_id*/) {
  AdoptSameWidth(in_dim);
  const size_t floats = BlockFloats(input_channel, input_dim, frames);
  register_buffer.Grow(floats, memory_bytes);
  std::copy_n(in, floats, register_buffer.data());
  stored_frames = frames;
  std::copy_n(in, floats, out);
}

// What all concatenations store.

bool ConcatenationParts::ReadPart(FILE* fp, Refusal& why) {
  int32_t names = 0;
  if (!ReadCount(fp, "register names", names, why)) return false;
  for (int32_t i = 0; i < names; ++i) {
    std::string& name = register_names.emplace_back();
    if (!why.ReadString(fp, "register name", name)) return false;
    if (name.empty()) return why.Because("register name [%d] of [%d] is empty", i, names);
  }
  int32_t positions = 0;
  if (!ReadCount(fp, "input positions", positions, why)) return false;
  if (__builtin_add_overflow(names, positions, &part_count)) {
    return why.Because("too many parts [%d + %d]", names, positions);
  }
  input_positions.resize(ToSize(positions));
  return why.Read(fp, "input positions", input_positions.data(),
                  input_positions.size() * sizeof(int32_t));
}

bool ConcatenationParts::ReadTextPart(FILE* fp, Refusal& why) {
  Token token;
  const int separator = get_next_token(fp, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong property format!");
  std::string rest = separator == '\n' ? std::string() : ReadRestOfLine(fp);
  char* line = rest.data();
  do {
    if (std::strcmp(token, "<Input>") == 0) {
      input_positions.push_back(part_count);
    } else if (std::strcmp(token, "<RegisterName>") == 0) {
      if (!NextWord(line, token)) ThrowError(Here(), "wrong property format!");
      register_names.emplace_back(token);
    } else {
      return why.LogBecause(Here(), "unknown property name [%s]", token);
    }
    ++part_count;
  } while (NextWord(line, token));
  return true;
}

bool ConcatenationParts::WritePart(FILE* fp) const {
  if (!WriteValues(fp, static_cast<int32_t>(register_names.size()))) return false;
  for (const std::string& name : register_names) {
    if (!fwrite_string(fp, name)) return false;
  }
  return WriteValues(fp, static_cast<int32_t>(input_positions.size())) &&
         WriteArray(fp, std::span<const int32_t>(input_positions));
}

bool ConcatenationParts::ValidateParts(Refusal& why) {
  part_is_input_.assign(ToSize(part_count), false);
  for (const int32_t position : input_positions) {
    if (position < 0 || position >= part_count || IsInput(position)) {
      return why.Because("input position [%d] of [%d] parts", position, part_count);
    }
    part_is_input_[ToSize(position)] = true;
  }
  return true;
}

std::string ConcatenationParts::Describe() const {
  std::string text;
  auto name = register_names.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    text += text.empty() ? "joins " : ", ";
    text += IsInput(part) ? "input" : *name++;
  }
  return text;
}

// Concatenation of rows.

bool ConcatenateComponent::Validate(Refusal& why) {
  return why.AtLeast("input dimension", input_dim, 0) &&
         why.AtLeast("output dimension", output_dim, 0) && ValidateParts(why);
}

void ConcatenateComponent::Link(NetworkLinks& links) {
  FindRegisters(links, *this, &Component::input_dim, &Component::output_dim);
}

int64_t ConcatenateComponent::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  if (UsesInput() || registers.empty() || registers.front()->indexes.empty()) return in_frames;
  return static_cast<int64_t>(registers.front()->indexes.size());
}

int64_t ConcatenateComponent::RowFrames(int64_t frames) const {
  if (UsesInput()) return std::max<int64_t>(frames, 0);
  return registers.empty() ? 0 : registers.front()->stored_frames;
}

// The registers have run by now, so the rows that will be joined are known; the announced frames
// may be fewer.
CallPlan ConcatenateComponent::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t out_frames = CalcOutputFrames(frames);
  const int64_t width = TotalSize(*this, &Component::input_dim, &Component::output_dim);
  return {out_frames, UsesInput() ? BlockFloats(1, input_dim, frames) : 0,
          BlockFloats(1, width, std::max(out_frames, RowFrames(frames)))};
}

// Right before the rows are copied, and not when linking: layers in between may change the number
// of frames, and a register may run after this layer or have had no call yet.
void ConcatenateComponent::CheckRegisters(int64_t frames) const {
  CheckSizes(Here(), *this, &Component::input_dim, &Component::output_dim);
  for (const RegisterComponent* part : registers) {
    if (part->HeldFrames() >= frames) continue;
    ThrowError(Here(),
               "too few frames in a register! layer[%s] register[%s] [%" PRId64 " < %" PRId64 "]",
               TypeMarker().c_str(), part->register_name.c_str(), part->HeldFrames(), frames);
  }
}

// Part by part, each a band of columns of the output rows.
void ConcatenateComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                        int /*call_id*/) {
  const int64_t rows = RowFrames(frames);
  CheckRegisters(rows);
  output_frames = rows;
  if (rows < 1) return;
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    const RegisterComponent* source = IsInput(part) ? nullptr : *next++;
    const float* part_rows = source == nullptr ? in : source->register_buffer.data();
    const int32_t width = source == nullptr ? input_dim : source->output_dim;
    CopyRows(part_rows, rows, width, width, out, output_dim);
    out += width;
  }
}

// Concatenation of planes.

void Concatenate2dComponent::Link(NetworkLinks& links) {
  FindRegisters(links, *this, &Component::input_channel, &Component::output_channel);
}

CallPlan Concatenate2dComponent::Plan(int64_t frames, int in_dim) const {
  const int width = CallInputDim(in_dim);
  return {CalcOutputFrames(frames), UsesInput() ? BlockFloats(input_channel, width, frames) : 0,
          BlockFloats(output_channel, output_dim_set ? output_dim : width, frames)};
}

void Concatenate2dComponent::CheckRegisters(int64_t frames) const {
  if (UsesInput() && input_dim != output_dim) {
    ThrowError(Here(), "mismatched dimensions! layer[%s] input [%d] output [%d]",
               TypeMarker().c_str(), input_dim, output_dim);
  }
  CheckSizes(Here(), *this, &Component::input_channel, &Component::output_channel);
  for (const Register2dComponent* part : registers) {
    if (part->stored_frames == frames && part->output_dim == output_dim) continue;
    ThrowError(Here(),
               "mismatched planes! layer[%s] register[%s] [%" PRId64 " x %d] for [%" PRId64
               " x %d]",
               TypeMarker().c_str(), part->register_name.c_str(), part->stored_frames,
               part->output_dim, frames, output_dim);
  }
}

// Planes of all parts one after another, each part in one copy.
void Concatenate2dComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                          int /*call_id*/) {
  AdoptWidth(in_dim);
  CheckRegisters(frames);
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    const Register2dComponent* source = IsInput(part) ? nullptr : *next++;
    const int32_t channels = source == nullptr ? input_channel : source->output_channel;
    const uint64_t floats = BlockFloats(channels, output_dim, frames);
    out = std::copy_n(source == nullptr ? in : source->register_buffer.data(), floats, out);
  }
}

}  // namespace tarev::nnet::handwriting_CTC
