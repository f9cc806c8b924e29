#include "nnet/flow/nnet-control-flow.shapes.h"

#include <algorithm>
#include <cinttypes>

#include "nnet/base/element-kernels.h"
#include "nnet/flow/frame-copy.h"
#include "nnet/flow/nnet-control-flow.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Rows that hold all channels of planes of rows of `dim` values.
bool HoldsAllChannels(Refusal& why, const char* name, int32_t channels, int32_t dim, int32_t row) {
  return why.AtLeast(name, channels, 1) &&
         (int64_t{channels} * dim == row ||
          why.Because("%s [%d] of rows of [%d], which make no rows of [%d]", name, channels, dim,
                      row));
}

}  // namespace

// Between planes and rows: each channel is one strided copy, a band of columns of the rows.

bool FlattenComponent::Validate(Refusal& why) {
  return HoldsAllChannels(why, "<InputChannel>", input_channels, input_dim, output_dim);
}

CallPlan FlattenComponent::Plan(int64_t frames, int /*in_dim*/) const {
  return {CalcOutputFrames(frames), BlockFloats(input_channels, input_dim, frames),
          BlockFloats(1, output_dim, frames)};
}

void FlattenComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                    int /*call_id*/) {
  if (frames < 1 || input_dim < 1) return;
  for (int64_t c = 0; c < input_channels; ++c) {
    CopyRows(in + c * frames * input_dim, frames, input_dim, input_dim, out + c * input_dim,
             output_dim);
  }
}

bool DeflattenComponent::Validate(Refusal& why) {
  return HoldsAllChannels(why, "<OutputChannel>", output_channels, output_dim, input_dim);
}

CallPlan DeflattenComponent::Plan(int64_t frames, int /*in_dim*/) const {
  return {CalcOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(output_channels, output_dim, frames)};
}

void DeflattenComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  if (frames < 1 || output_dim < 1) return;
  for (int64_t c = 0; c < output_channels; ++c) {
    CopyRows(in + c * output_dim, frames, input_dim, output_dim, out + c * frames * output_dim,
             output_dim);
  }
}

// Picking frames.

bool SliceComponent::Validate(Refusal& why) {
  indexes = ParseIndexes(index_text);
  return why.Require(!indexes.empty(), "<Index> is empty") && why.SameWidth(input_dim, output_dim);
}

int64_t SliceComponent::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : static_cast<int64_t>(indexes.size());
}

void SliceComponent::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                  int /*call_id*/) {
  AdoptSameWidth(in_dim);
  if (frames < 1) return;
  CheckIndexes(*this, indexes, frames);
  const size_t width = ToSize(input_dim);
  for (const int32_t index : indexes) {
    out = std::copy_n(in + ToSize(FrameAt(*this, index, frames)) * width, width, out);
  }
}

// Adding frames.

int64_t ReflectionPad::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : PaddedFrames(in_frames);
}

void ReflectionPad::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                 int /*call_id*/) {
  AdoptSameWidth(in_dim);
  if (frames < 1) return;
  if (frames <= padding_left || frames <= padding_right) {
    ThrowError(Here(), "too few input frames! [frames:%" PRId64 ", padding:%d,%d]", frames,
               padding_left, padding_right);
  }
  const int64_t width = std::max(input_dim, 0);
  // A negative step walks from frame L back to frame 1, and from frame n - 2 back.
  out = CopyRows(in + padding_left * width, padding_left, -width, width, out, width);
  out = std::copy_n(in, frames * width, out);
  if (padding_right > 0) {
    CopyRows(in + (frames - 2) * width, padding_right, -width, width, out, width);
  }
  output_frames = PaddedFrames(frames);
}

FieldList ConstantPadParameters::ConstantPadFields() {
  FieldList fields = PaddingFields();
  fields.push_back({"<Value>", &value});
  return fields;
}

int64_t ConstantPad::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, PaddedFrames(in_frames));
}

CallPlan ConstantPad::Plan(int64_t frames, int in_dim) const {
  const int width = CallInputDim(in_dim);
  return {CalcOutputFrames(frames), BlockFloats(1, width, frames),
          BlockFloats(1, width, PaddedFrames(std::max<int64_t>(frames, 0)))};
}

void ConstantPad::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  AdoptSameWidth(in_dim);
  const int64_t n = std::max<int64_t>(frames, 0);
  const size_t width = ToSize(input_dim);
  out = std::fill_n(out, ToSize(padding_left) * width, value);
  out = std::copy_n(in, ToSize(n) * width, out);
  std::fill_n(out, ToSize(padding_right) * width, value);
  output_frames = PaddedFrames(n);
}

// Reading the same floats in other rows, and exchanging rows and columns.

int64_t ViewComponent::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1 || input_dim < 1 || output_dim < 1) return 0;
  return in_frames * input_dim / output_dim;
}

CallPlan ViewComponent::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t out_frames = CalcOutputFrames(frames);
  return {out_frames, BlockFloats(1, input_dim, frames), BlockFloats(1, output_dim, out_frames)};
}

void ViewComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                 int /*call_id*/) {
  output_frames = CalcOutputFrames(frames);
  std::copy_n(in, BlockFloats(1, output_dim, output_frames), out);
}

int64_t TransposeComponent::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : std::max(input_dim, 0);
}

CallPlan TransposeComponent::Plan(int64_t frames, int /*in_dim*/) const {
  const uint64_t floats = BlockFloats(1, input_dim, frames);
  return {CalcOutputFrames(frames), floats, floats};
}

void TransposeComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  transpose(in, out, ToSize(frames), ToSize(input_dim));
  output_dim = static_cast<int32_t>(std::max<int64_t>(frames, 0));
  output_frames = CalcOutputFrames(frames);
}

}  // namespace tarev::nnet::handwriting_CTC
