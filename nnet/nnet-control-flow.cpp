#include "nnet/nnet-control-flow.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

void GrowAhead(FloatArray& buffer, uint64_t floats, uint64_t& memory_bytes) {
  if (floats <= kMaxFloatsAhead) buffer.Grow(floats, memory_bytes);
}

// A list of one frame index in decimal digits, or of none. What exceeds an int32 stays out of
// reach.
std::vector<int32_t> ParseIndexes(const std::string& text) {
  if (text.empty()) return {};
  const long index = std::strtol(text.c_str(), nullptr, 10);
  return {static_cast<int32_t>(std::clamp<long>(index, std::numeric_limits<int32_t>::min(),
                                                std::numeric_limits<int32_t>::max()))};
}

// The frames of a call that the indexes name. Throws before anything is copied.
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

// Throws unless channels x dim is the width of a row.
void RequireProduct(const Component& layer, int32_t channels, int32_t dim, int32_t row) {
  if (int64_t{channels} * dim == row) return;
  ThrowError(Here(), "mismatched dimensions! layer[%s] [%d] channels x [%d] for rows of [%d]",
             layer.TypeMarker().c_str(), channels, dim, row);
}

void CopyRows(const float* src, int64_t rows, int64_t src_step, int64_t width, float* dst,
              int64_t dst_step) {
  for (int64_t row = 0; row < rows; ++row, src += src_step, dst += dst_step) {
    std::copy_n(src, width, dst);
  }
}

using Token = char[kTokenSize];

// The next token of a line and the place behind it; false when the line has ended.
bool NextWord(char*& line, Token& token) {
  while (line != nullptr && (*line == ' ' || *line == '\t')) ++line;
  if (line == nullptr || *line == '\0') return false;
  line = get_next_token(line, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong property format!");
  return true;
}

bool HasNegativeDim(const Component& layer) { return layer.input_dim < 0 || layer.output_dim < 0; }

bool ReadName(FILE* fp, std::string& name) { return fread_string(fp, name) && !name.empty(); }

}  // namespace

void RequireEqualDims(const Component& layer) {
  if (layer.input_dim == layer.output_dim) return;
  ThrowError(Here(), "mismatched dimensions! layer[%s] input [%d] output [%d]",
             layer.TypeMarker().c_str(), layer.input_dim, layer.output_dim);
}

// Registers.

void RegisterComponent::SetIndexes() {
  indexes = ParseIndexes(slice_index);
  stored_frames = static_cast<int64_t>(indexes.size());
  GrowAhead(register_buffer, BlockFloats(1, input_dim, stored_frames), memory_bytes);
}

bool RegisterComponent::ReadData(FILE* fp) {
  if (HasNegativeDim(*this) || !ReadName(fp, register_name)) return false;
  constexpr size_t kMarkSize = 3;
  char mark[kMarkSize];
  const size_t got = std::fread(mark, 1, kMarkSize, fp);
  if (got == kMarkSize && std::memcmp(mark, "EXT", kMarkSize) == 0) {
    if (!fread_string(fp, slice_index)) return false;
    SetIndexes();
    return true;
  }
  // A block without the extension: what was read belongs to the next component.
  return std::fseek(fp, -static_cast<long>(got), SEEK_CUR) == 0;
}

bool RegisterComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (HasNegativeDim(*this)) return false;
  PropertyTable properties;
  AddProperty(properties, "<RegisterName>", "s:", &register_name);
  AddProperty(properties, "<SliceIndex>", "s", &slice_index);
  ReadProperties(fp, properties);
  SetIndexes();
  return true;
}

bool RegisterComponent::WriteData(FILE* fp) const {
  if (!fwrite_string(fp, register_name)) return false;
  return slice_index.empty() || (WriteValues(fp, 'E', 'X', 'T') && fwrite_string(fp, slice_index));
}

void RegisterComponent::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  if (indexes.empty()) {
    GrowAhead(register_buffer, BlockFloats(1, input_dim, frames), memory_bytes);
  }
  frame_capacity = frames;
}

CallExtent RegisterComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames), BlockFloats(1, output_dim, frames)};
}

int64_t RegisterComponent::HeldFrames() const {
  if (output_dim < 1) return stored_frames;
  return std::min(stored_frames, static_cast<int64_t>(register_buffer.size()) / output_dim);
}

void RegisterComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                     int /*call_id*/) {
  RequireEqualDims(*this);
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

bool Register2dComponent::ReadData(FILE* fp) { return ReadName(fp, register_name); }

bool Register2dComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!input_dim_set || !output_dim_set) {
    LogWarning(Here(), "<InputDim> or <OutputDim> is not set!");
    return false;
  }
  PropertyTable properties;
  AddProperty(properties, "<RegisterName>", "s:", &register_name);
  ReadProperties(fp, properties);
  return true;
}

bool Register2dComponent::WriteData(FILE* fp) const { return fwrite_string(fp, register_name); }

void Register2dComponent::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  GrowAhead(register_buffer, BlockFloats(input_channel, input_dim, frames), memory_bytes);
  frame_capacity = frames;
}

CallExtent Register2dComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(input_channel, input_dim, frames),
          BlockFloats(output_channel, output_dim, frames)};
}

void Register2dComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                       int /*call_id*/) {
  RequireEqualDims(*this);
  if (input_channel != output_channel) {
    ThrowError(Here(), "mismatched channels! layer[%s] input [%d] output [%d]",
               TypeMarker().c_str(), input_channel, output_channel);
  }
  const size_t floats = BlockFloats(input_channel, input_dim, frames);
  register_buffer.Grow(floats, memory_bytes);
  std::copy_n(in, floats, register_buffer.data());
  stored_frames = frames;
  std::copy_n(in, floats, out);
}

// What both concatenations store.

bool ConcatenationParts::SetPositions() {
  part_is_input.assign(ToSize(part_count), false);
  for (const int32_t position : input_positions) {
    if (position < 0 || position >= part_count || IsInput(position)) return false;
    part_is_input[ToSize(position)] = true;
  }
  return true;
}

bool ConcatenationParts::ReadBlock(FILE* fp) {
  constexpr size_t kLeastBytes = 4;  // of a name and of a position
  int32_t count = 0;
  if (!ReadValues(fp, count) || count < 0 || !FileHolds(fp, ToSize(count), kLeastBytes)) {
    return false;
  }
  for (int32_t i = 0; i < count; ++i) {
    if (!ReadName(fp, register_names.emplace_back())) return false;
  }
  int32_t positions = 0;
  if (!ReadValues(fp, positions) || positions < 0 ||
      !FileHolds(fp, ToSize(positions), kLeastBytes) ||
      __builtin_add_overflow(count, positions, &part_count)) {
    return false;
  }
  input_positions.resize(ToSize(positions));
  return ReadArray(fp, std::span<int32_t>(input_positions)) && SetPositions();
}

bool ConcatenationParts::ReadTextBlock(FILE* fp) {
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
      LogWarning(Here(), "unknown property name [%s]", token);
      return false;
    }
    ++part_count;
  } while (NextWord(line, token));
  return SetPositions();
}

bool ConcatenationParts::WriteBlock(FILE* fp) const {
  if (!WriteValues(fp, static_cast<int32_t>(register_names.size()))) return false;
  for (const std::string& name : register_names) {
    if (!fwrite_string(fp, name)) return false;
  }
  return WriteValues(fp, static_cast<int32_t>(input_positions.size())) &&
         WriteArray(fp, std::span<const int32_t>(input_positions));
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

void ConcatenationParts::RequireLinked(size_t linked) const {
  if (linked == register_names.size()) return;
  ThrowError(Here(), "registers are not linked! [%zu of %zu]", linked, register_names.size());
}

// Concatenation of rows.

bool ConcatenateComponent::ReadData(FILE* fp) { return !HasNegativeDim(*this) && ReadBlock(fp); }

bool ConcatenateComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  return !HasNegativeDim(*this) && ReadTextBlock(fp);
}

int64_t ConcatenateComponent::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  if (UsesInput() || registers.empty() || registers.front()->indexes.empty()) return in_frames;
  return static_cast<int64_t>(registers.front()->indexes.size());
}

// The frames that the next call joins.
int64_t ConcatenateComponent::RowFrames(int64_t frames) const {
  if (UsesInput()) return std::max<int64_t>(frames, 0);
  return registers.empty() ? 0 : registers.front()->stored_frames;
}

int64_t ConcatenateComponent::RowWidth() const {
  int64_t width = static_cast<int64_t>(input_positions.size()) * input_dim;
  for (const Register* part : registers) width += part->output_dim;
  return width;
}

CallExtent ConcatenateComponent::Extent(int64_t frames, int /*in_dim*/) const {
  const int64_t out_frames = std::max(CalcOutputFrames(frames), RowFrames(frames));
  return {UsesInput() ? BlockFloats(1, input_dim, frames) : 0,
          BlockFloats(1, RowWidth(), out_frames)};
}

void ConcatenateComponent::CheckRegisters(int64_t frames) const {
  RequireLinked(registers.size());
  if (RowWidth() != output_dim) {
    ThrowError(Here(), "mismatched concentrate dimension! [%" PRId64 " != %d]", RowWidth(),
               output_dim);
  }
  for (const Register* part : registers) {
    if (part->HeldFrames() >= frames) continue;
    ThrowError(Here(),
               "too few frames in a register! layer[%s] register[%s] [%" PRId64 " < %" PRId64 "]",
               TypeMarker().c_str(), part->register_name.c_str(), part->HeldFrames(), frames);
  }
}

void ConcatenateComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                        int /*call_id*/) {
  const int64_t rows = RowFrames(frames);
  CheckRegisters(rows);
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    if (IsInput(part)) {
      CopyRows(in, rows, input_dim, input_dim, out, output_dim);
      out += input_dim;
    } else {
      const Register& source = **next++;
      CopyRows(source.register_buffer.data(), rows, source.output_dim, source.output_dim, out,
               output_dim);
      out += source.output_dim;
    }
  }
  output_frames = rows;
}

// Concatenation of planes.

bool Concatenate2dComponent::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadBlock(fp) : ReadTextBlock(fp);
}

CallExtent Concatenate2dComponent::Extent(int64_t frames, int in_dim) const {
  const int width = CallInputDim(in_dim);
  return {UsesInput() ? BlockFloats(input_channel, width, frames) : 0,
          BlockFloats(output_channel, output_dim_set ? output_dim : width, frames)};
}

void Concatenate2dComponent::CheckRegisters(int64_t frames) const {
  RequireLinked(registers.size());
  if (UsesInput()) RequireEqualDims(*this);
  int64_t channels = static_cast<int64_t>(input_positions.size()) * input_channel;
  for (const Register* part : registers) channels += part->output_channel;
  if (channels != output_channel) {
    ThrowError(Here(), "mismatched concentrate dimension! [%" PRId64 " != %d]", channels,
               output_channel);
  }
  for (const Register* part : registers) {
    if (part->stored_frames == frames && part->output_dim == output_dim) continue;
    ThrowError(Here(),
               "mismatched planes! layer[%s] register[%s] [%" PRId64 " x %d] for [%" PRId64
               " x %d]",
               TypeMarker().c_str(), part->register_name.c_str(), part->stored_frames,
               part->output_dim, frames, output_dim);
  }
}

void Concatenate2dComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                          int /*call_id*/) {
  AdoptWidth(in_dim);
  CheckRegisters(frames);
  auto next = registers.begin();
  for (int32_t part = 0; part < part_count; ++part) {
    const bool is_input = IsInput(part);
    const Register* source = is_input ? nullptr : *next++;
    const int32_t channels = is_input ? input_channel : source->output_channel;
    const uint64_t floats = BlockFloats(channels, output_dim, frames);
    out = std::copy_n(is_input ? in : source->register_buffer.data(), floats, out);
  }
}

// Between planes and rows.

bool FlattenComponent::ReadData(FILE* fp) {
  return ReadValues(fp, input_channels) && input_channels >= 1;
}

bool FlattenComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<InputChannel>", "i:", &input_channels);
  ReadProperties(fp, properties);
  return input_channels >= 1;
}

bool FlattenComponent::WriteData(FILE* fp) const { return WriteValues(fp, input_channels); }

CallExtent FlattenComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(input_channels, input_dim, frames), BlockFloats(1, output_dim, frames)};
}

void FlattenComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                    int /*call_id*/) {
  RequireProduct(*this, input_channels, input_dim, output_dim);
  if (frames < 1 || input_dim < 1) return;
  for (int64_t c = 0; c < input_channels; ++c) {
    CopyRows(in + c * frames * input_dim, frames, input_dim, input_dim, out + c * input_dim,
             output_dim);
  }
}

bool DeflattenComponent::ReadData(FILE* fp) {
  return ReadValues(fp, output_channels) && output_channels >= 1;
}

bool DeflattenComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<OutputChannel>", "i:", &output_channels);
  ReadProperties(fp, properties);
  return output_channels >= 1;
}

bool DeflattenComponent::WriteData(FILE* fp) const { return WriteValues(fp, output_channels); }

CallExtent DeflattenComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames), BlockFloats(output_channels, output_dim, frames)};
}

void DeflattenComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  RequireProduct(*this, output_channels, output_dim, input_dim);
  if (frames < 1 || output_dim < 1) return;
  for (int64_t c = 0; c < output_channels; ++c) {
    CopyRows(in + c * output_dim, frames, input_dim, output_dim, out + c * frames * output_dim,
             output_dim);
  }
}

// Picking and adding frames.

bool SliceComponent::SetIndexes() {
  indexes = ParseIndexes(index_text);
  return !indexes.empty();
}

bool SliceComponent::ReadData(FILE* fp) { return fread_string(fp, index_text) && SetIndexes(); }

bool SliceComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<Index>", "s:", &index_text);
  ReadProperties(fp, properties);
  return SetIndexes();
}

bool SliceComponent::WriteData(FILE* fp) const { return fwrite_string(fp, index_text); }

int64_t SliceComponent::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : static_cast<int64_t>(indexes.size());
}

CallExtent SliceComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames), BlockFloats(1, output_dim, CalcOutputFrames(frames))};
}

void SliceComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                  int /*call_id*/) {
  RequireEqualDims(*this);
  if (frames < 1) return;
  CheckIndexes(*this, indexes, frames);
  const size_t width = ToSize(input_dim);
  for (const int32_t index : indexes) {
    out = std::copy_n(in + ToSize(FrameAt(*this, index, frames)) * width, width, out);
  }
}

bool FramePadding::ReadPadding(FILE* fp) {
  return ReadValues(fp, padding_left, padding_right) && PaddingIsSound();
}

bool FramePadding::WritePadding(FILE* fp) const {
  return WriteValues(fp, padding_left, padding_right);
}

void FramePadding::AddPaddingProperties(PropertyTable& properties) {
  AddProperty(properties, "<Left>", "i", &padding_left);
  AddProperty(properties, "<Right>", "i", &padding_right);
}

bool ReflectionPad::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddPaddingProperties(properties);
  ReadProperties(fp, properties);
  return PaddingIsSound();
}

int64_t ReflectionPad::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : PaddedFrames(in_frames);
}

CallExtent ReflectionPad::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames), BlockFloats(1, output_dim, CalcOutputFrames(frames))};
}

void ReflectionPad::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                 int /*call_id*/) {
  RequireEqualDims(*this);
  if (frames < 1) return;
  if (frames <= padding_left || frames <= padding_right) {
    ThrowError(Here(), "too few input frames! [frames:%" PRId64 ", padding:%d,%d]", frames,
               padding_left, padding_right);
  }
  const int64_t width = std::max(input_dim, 0);
  CopyRows(in + padding_left * width, padding_left, -width, width, out, width);
  out += padding_left * width;
  out = std::copy_n(in, frames * width, out);
  if (padding_right > 0) {
    CopyRows(in + (frames - 2) * width, padding_right, -width, width, out, width);
  }
  output_frames = PaddedFrames(frames);
}

bool ConstantPadParameters::ReadBlock(FILE* fp) { return ReadPadding(fp) && ReadValues(fp, value); }

bool ConstantPadParameters::ReadTextBlock(FILE* fp) {
  PropertyTable properties;
  AddPaddingProperties(properties);
  AddProperty(properties, "<Value>", "f", &value);
  ReadProperties(fp, properties);
  return PaddingIsSound();
}

bool ConstantPadParameters::WriteBlock(FILE* fp) const {
  return WritePadding(fp) && WriteValues(fp, value);
}

bool ConstantPad::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadBlock(fp) : ReadTextBlock(fp);
}

int64_t ConstantPad::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, PaddedFrames(in_frames));
}

CallExtent ConstantPad::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames),
          BlockFloats(1, input_dim, PaddedFrames(std::max<int64_t>(frames, 0)))};
}

void ConstantPad::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                               int /*call_id*/) {
  const int64_t n = std::max<int64_t>(frames, 0);
  const size_t width = ToSize(input_dim);
  out = std::fill_n(out, ToSize(padding_left) * width, value);
  out = std::copy_n(in, ToSize(n) * width, out);
  std::fill_n(out, ToSize(padding_right) * width, value);
  output_frames = PaddedFrames(n);
}

// Re-cutting.

int64_t ViewComponent::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1 || input_dim < 1 || output_dim < 1) return 0;
  return in_frames * input_dim / output_dim;
}

CallExtent ViewComponent::Extent(int64_t frames, int /*in_dim*/) const {
  return {BlockFloats(1, input_dim, frames), BlockFloats(1, output_dim, CalcOutputFrames(frames))};
}

void ViewComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                 int /*call_id*/) {
  output_frames = CalcOutputFrames(frames);
  std::copy_n(in, BlockFloats(1, output_dim, output_frames), out);
}

int64_t TransposeComponent::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : std::max(input_dim, 0);
}

CallExtent TransposeComponent::Extent(int64_t frames, int /*in_dim*/) const {
  const uint64_t floats = BlockFloats(1, input_dim, frames);
  return {floats, floats};
}

void TransposeComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  transpose(in, out, ToSize(frames), ToSize(input_dim));
  output_dim = static_cast<int32_t>(std::max<int64_t>(frames, 0));
  output_frames = CalcOutputFrames(frames);
}

}  // namespace tarev::nnet::handwriting_CTC
