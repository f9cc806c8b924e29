#include "nnet/contract/nnet-component.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include "nnet/base/element-kernels.h"
#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

using Token = char[kTokenSize];

// The marker under which a code is registered; throws for an unknown code.
const std::string& MarkerOf(int code) {
  const auto entry = Component::component_map.find(code);
  if (entry == Component::component_map.end()) {
    ThrowError(Here(), "unknown or unimplemented nnet layer! [%04X]", static_cast<unsigned>(code));
  }
  return entry->second.first;
}

// The next token of a text component; returns the character that ended it.
int NextToken(FILE* fp, Token& token) {
  const int separator = get_next_token(fp, token);
  if (token[0] == '\0') ThrowError(Here(), "wrong nnet format!");
  return separator;
}

// A decimal number; what is none reads as 0, which the layer's own checks then see.
int NextNumber(FILE* fp) {
  Token token;
  NextToken(fp, token);
  return static_cast<int>(std::strtol(token, nullptr, 10));
}

bool StartsWith(const char* token, std::string_view keyword) {
  return std::string_view(token).starts_with(keyword);
}

bool NamesInput(const char* token) {
  return StartsWith(token, "<InputDim>") || StartsWith(token, "<InputChannel>");
}

bool NamesOutput(const char* token) {
  return StartsWith(token, "<OutputDim>") || StartsWith(token, "<OutputChannel>");
}

// The optional dimensions of a channel layer, in either order; a token that names neither is left
// in the stream.
void ReadChannelDims(FILE* fp, Component& layer) {
  Token token;
  const int separator = get_next_token(fp, token);
  if (separator == kTokenTooLong) ThrowError(Here(), "wrong nnet format!");
  if (StartsWith(token, "<InputDim>")) {
    layer.input_dim = NextNumber(fp);
    NextToken(fp, token);
    if (!StartsWith(token, "<OutputDim>")) {
      ThrowError(Here(), "<OutputDim> expected, but got [%s]", token);
    }
    layer.output_dim = NextNumber(fp);
  } else if (StartsWith(token, "<OutputDim>")) {
    layer.output_dim = NextNumber(fp);
    NextToken(fp, token);
    if (!StartsWith(token, "<InputDim>")) {
      ThrowError(Here(), "<InputDim> expected, but got [%s]", token);
    }
    layer.input_dim = NextNumber(fp);
  } else if (token[0] != '\0' && !UnreadToken(fp, token, separator)) {
    ThrowError(Here(), "wrong nnet format!");
  }
  layer.input_dim_set = layer.input_dim > 0;
  layer.output_dim_set = layer.output_dim > 0;
}

// The message says only what failed; the reason travels with the exception, for callers that want
// to name the place.
[[noreturn]] void ThrowRefused(std::source_location where, const char* message,
                               const Refusal& why) {
  LogWarning(where, "%s", message);
  throw ComponentRefused(message, why.text());
}

// A part of a header.
template <class... T>
void ReadHeader(std::source_location where, FILE* fp, T&... values) {
  Refusal why;
  if (!(why.Read(fp, "header", &values, sizeof(values)) && ...)) {
    ThrowRefused(where, "fread failed!", why);
  }
}

// The flags are bytes in the file; only 0 is false.
void ReadChannelHeader(std::source_location where, FILE* fp, Component& layer) {
  uint8_t input_set = 0;
  uint8_t output_set = 0;
  ReadHeader(where, fp, layer.input_dim, layer.output_dim, input_set, output_set);
  layer.input_dim_set = input_set != 0;
  layer.output_dim_set = output_set != 0;
}

constexpr const char* kRefused = "read component failed!";

// A container reads its components through the same reader that read it: the depth of that
// recursion is bounded, so that a file cannot exhaust the stack.
constexpr int kMaxNesting = 16;

class NestingGuard {
 public:
  NestingGuard() {
    if (depth_ == kMaxNesting)
      ThrowError(Here(), "components nested too deeply! [%d]", kMaxNesting);
    ++depth_;
  }
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;
  ~NestingGuard() { --depth_; }

 private:
  static thread_local int depth_;
};

thread_local int NestingGuard::depth_ = 0;

void CheckReadable(FILE* fp, std::source_location where) {
  if (fp == nullptr) ThrowWrongParameters(where, "Read", "fp == __null");
  if (std::feof(fp) != 0) ThrowError(where, "end of file reached!");
}

std::unique_ptr<Component> ReadText(FILE* fp) {
  const NestingGuard guard;
  Token marker;
  NextToken(fp, marker);
  if (StartsWith(marker, "</Nnet>")) return nullptr;
  if (StartsWith(marker, "<Nnet>")) NextToken(fp, marker);
  int first = 0;
  int second = 0;
  const int code = ReadComponentHeader(fp, marker, &first, &second);
  std::unique_ptr<Component> layer(NewComponentOfType(code, first, second));
  if (layer->is_2d) ReadChannelDims(fp, *layer);
  if (!layer->ReadTextData(fp, false)) ThrowRefused(Here(), kRefused, layer->LastRefusal());
  return layer;
}

}  // namespace

Component::Component(int input_dim_arg, int output_dim_arg)
    : input_dim(input_dim_arg),
      output_dim(output_dim_arg),
      input_dim_set(input_dim_arg > 0),
      output_dim_set(output_dim_arg > 0) {}

Component::Component(ChannelForm /*form*/, int input_channel_arg, int output_channel_arg)
    : input_channel(input_channel_arg), output_channel(output_channel_arg), is_2d(true) {}

void Component::GetTypeMarker(std::string& out) const { out = TypeMarker(); }
void Component::GetFixedTypeMarker(std::string& out) const { out = FixedTypeMarker(); }
const std::string& Component::TypeMarker() const { return MarkerOf(GetType()); }
const std::string& Component::FixedTypeMarker() const { return MarkerOf(GetFixedType()); }

bool Component::AcceptNested(size_t index, Refusal& why) {
  return *Nested()[index].layer != nullptr ||
         why.Because("nested component [%zu] is missing", index);
}

// Whole blocks, with the widths that an adopting layer will have in this call.
CallPlan Component::Plan(int64_t frames, int in_dim) const {
  const int width = CallInputDim(in_dim);
  const int out_width = output_dim_set ? output_dim : width;
  const int64_t out_frames = CalcStreamOutputFrames(frames);
  return {out_frames, BlockFloats(input_channel, width, frames),
          BlockFloats(output_channel, out_width, out_frames)};
}

CallPlan Component::SameRowsPlan(int64_t frames, int in_dim) const {
  const uint64_t floats = BlockFloats(input_channel, CallInputDim(in_dim), frames);
  return {std::max<int64_t>(frames, 0), floats, floats};
}

uint64_t Component::ParameterCount() const {
  uint64_t count = 0;
  for (const ParameterRef& parameter : Parameters()) count += parameter.count();
  for (const NestedRef& nested : const_cast<Component*>(this)->Nested()) {
    if (*nested.layer != nullptr) count += (*nested.layer)->ParameterCount();
  }
  return count;
}

void Component::ThrowWidthMismatch(int wanted, int in_dim) const {
  ThrowError(Here(), "mismatched input dimension! layer[%s] [%d] vs [%d]", TypeMarker().c_str(),
             wanted, in_dim);
}

void Component::AdoptWidth(int in_dim) {
  if (!input_dim_set) input_dim = in_dim;
  if (!output_dim_set) output_dim = input_dim;
}

void Component::AdoptSameWidth(int in_dim) {
  if (!input_dim_set && output_dim_set) RequireWidth(output_dim, in_dim);
  AdoptWidth(in_dim);
}

void Component::Propagate(const float* in, int64_t frames, int in_dim, float* out, int* out_dim,
                          int call_id) {
  CheckWidth(in_dim);
  output_frames = CalcStreamOutputFrames(frames);
  PropagateChunk(in, frames, in_dim, out, call_id);
  *out_dim = output_dim;
}

// The checks of the executor for a layer that a container runs; the container's block cannot grow,
// so a layer that needs more is refused.
void Component::PropagateWithin(std::span<const float> in, int64_t frames, int in_dim,
                                std::span<float> out, int call_id) {
  CheckWidth(in_dim);
  const CallPlan plan = Plan(frames, in_dim);
  if (plan.reads > in.size()) {
    ThrowError(Here(), "too little input! nested layer[%s] reads [%" PRIu64 "] floats, given [%zu]",
               TypeMarker().c_str(), plan.reads, in.size());
  }
  if (plan.writes > out.size()) {
    ThrowError(Here(), "too little room! nested layer[%s] writes [%" PRIu64 "] floats, room [%zu]",
               TypeMarker().c_str(), plan.writes, out.size());
  }
  Run(plan, in.data(), frames, in_dim, out.data(), call_id);
  zero_vec(out.data() + plan.writes, out.size() - plan.writes);
}

// The header names the type, the registry creates the layer with its dimensions, and the layer
// reads its block. A channel layer has the second half of its header between the two.
Component* Component::Read(FILE* fp) {
  CheckReadable(fp, Here());
  const NestingGuard guard;
  int32_t first = 0;
  int32_t second = 0;
  uint32_t code = 0;
  ReadHeader(Here(), fp, first, second, code);
  std::unique_ptr<Component> layer(NewComponentOfType(static_cast<int>(code), first, second));
  if (layer->is_2d) ReadChannelHeader(Here(), fp, *layer);
  if (!layer->ReadData(fp)) ThrowRefused(Here(), kRefused, layer->LastRefusal());
  return layer.release();
}

Component* Component::Read(FILE* fp, bool binary) {
  CheckReadable(fp, Here());
  return binary ? Read(fp) : ReadText(fp).release();
}

bool Component::WriteHeader(FILE* fp, int code) const {
  const auto type = static_cast<uint32_t>(code);
  const bool written =
      is_2d ? WriteValues(fp, input_channel, output_channel, type, input_dim, output_dim,
                          static_cast<uint8_t>(input_dim_set), static_cast<uint8_t>(output_dim_set))
            : WriteValues(fp, input_dim, output_dim, type);
  if (!written) LogWarning(Here(), "fwrite failed!");
  return written;
}

bool Component::Write(FILE* fp) const {
  if (fp == nullptr) {
    PrintWrongParameters(Here(), "Write", "fp == __null");
    return false;
  }
  return WriteHeader(fp, GetType()) && WriteData(fp);
}

bool Component::WriteFixed(FILE* fp) const {
  if (fp == nullptr) {
    PrintWrongParameters(Here(), "WriteFixed", "fp == __null");
    return false;
  }
  return WriteHeader(fp, GetFixedType()) && WriteFixedData(fp);
}

Component* NewComponentOfType(int code, int first, int second) {
  const auto entry = Component::component_map.find(code);
  if (entry == Component::component_map.end()) {
    ThrowError(Here(), "unknown or unimplemented nnet layer! [%04X]", static_cast<unsigned>(code));
  }
  return entry->second.second(first, second);
}

// Three spellings: both values named, in either order, or both bare with the output first.
int ReadComponentHeader(FILE* fp, const char* marker, int* first, int* second) {
  const auto entry = Component::marker_map.find(marker);
  if (entry == Component::marker_map.end()) {
    ThrowError(Here(), "unknown or unimplemented nnet layer! [%s]", marker);
  }
  Token token;
  NextToken(fp, token);
  if (NamesInput(token)) {
    *first = NextNumber(fp);
    NextToken(fp, token);
    if (!NamesOutput(token)) {
      ThrowError(Here(), "<OutputDim> or <OutputChannel> expected, but got [%s]", token);
    }
    *second = NextNumber(fp);
  } else if (NamesOutput(token)) {
    *second = NextNumber(fp);
    NextToken(fp, token);
    if (!NamesInput(token)) {
      ThrowError(Here(), "<InputDim> or <InputChannel> expected, but got [%s]", token);
    }
    *first = NextNumber(fp);
  } else {
    *second = static_cast<int>(std::strtol(token, nullptr, 10));
    *first = NextNumber(fp);
  }
  return entry->second.first;
}

uint64_t BlockFloats(int64_t channels, int64_t dim, int64_t frames) {
  if (channels <= 0 || dim <= 0 || frames <= 0) return 0;
  const uint64_t row = static_cast<uint64_t>(channels) * static_cast<uint64_t>(dim);
  uint64_t floats = 0;
  return __builtin_mul_overflow(row, static_cast<uint64_t>(frames), &floats)
             ? std::numeric_limits<uint64_t>::max()
             : floats;
}

}  // namespace tarev::nnet::handwriting_CTC
