#ifndef NNET_FLOW_NNET_CONTROL_FLOW_SHAPES_H_
#define NNET_FLOW_NNET_CONTROL_FLOW_SHAPES_H_

// The frame shapes of the control flow: layers that pick, add or re-cut frames, and move between
// frame rows and planes. None computes. D is the input dimension, O the output dimension, n the
// frames of a call. (Messages carry a file's name up to its first dot, the same for both parts of
// the family.)

#include <cstdint>
#include <string>
#include <vector>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Planes to rows: row t is the rows t of all input channels, one after another. O is
/// input_channels D.
class FlattenComponent final : public LayerOf<0x704> {
 public:
  using LayerOf::LayerOf;
  int InputChannel() const override { return input_channels; }
  FieldList Fields() override { return {{"<InputChannel>", &input_channels, FieldUse::kRequired}}; }
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  bool TakesPlanes() const override { return true; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t input_channels = 0;
};

/// Rows to planes, the inverse. D is output_channels O.
class DeflattenComponent final : public LayerOf<0x705> {
 public:
  using LayerOf::LayerOf;
  int OutputChannel() const override { return output_channels; }
  FieldList Fields() override {
    return {{"<OutputChannel>", &output_channels, FieldUse::kRequired}};
  }
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  bool GivesPlanes() const override { return true; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t output_channels = 0;
};

/// The frame of the given index; a negative one counts from the end of the call. A call that has
/// frames but not that one throws.
class SliceComponent final : public LayerOf<0x706> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return {{"<Index>", &index_text, FieldUse::kRequired}}; }
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  std::string index_text;
  std::vector<int32_t> indexes;
};

/// The parameter block of a padding: how many frames are added at either end of a call.
struct FramePadding {
  int32_t padding_left = 0;
  int32_t padding_right = 0;

  FieldList PaddingFields() { return {{"<Left>", &padding_left}, {"<Right>", &padding_right}}; }
  bool ValidatePadding(Refusal& why) const {
    return why.AtLeast("<Left>", padding_left, 0) && why.AtLeast("<Right>", padding_right, 0);
  }
  /// Frames with the padding at both ends.
  int64_t PaddedFrames(int64_t frames) const { return frames + padding_left + padding_right; }
};

/// Adds the mirror images of the frames next to each end, not of the end itself:
///   frames L, L - 1, …, 1 before and n - 2, …, n - 1 - R after.
/// A call that has frames, but not more than max(L, R), throws.
class ReflectionPad final : public LayerOf<0x707>, public FramePadding {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return PaddingFields(); }
  bool Validate(Refusal& why) override {
    return ValidatePadding(why) && why.SameWidth(input_dim, output_dim);
  }
  bool MapsFrameForFrame() const override { return false; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// The same with the value that the frames hold.
struct ConstantPadParameters : FramePadding {
  float value = 0.0F;

  FieldList ConstantPadFields();
};

/// Adds frames that hold one value. A call without frames gives the added ones.
class ConstantPad final : public LayerOf<0x708>, public ConstantPadParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return ConstantPadFields(); }
  bool Validate(Refusal& why) override {
    return ValidatePadding(why) && why.SameWidth(input_dim, output_dim);
  }
  bool MapsFrameForFrame() const override { return false; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// Reads the same floats as rows of O values: floor(D n / O) of them. What does not fill a last row
/// is dropped.
class ViewComponent final : public LayerOf<0x500> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool Validate(Refusal& why) override { return why.AtLeast("output dimension", output_dim, 1); }
  bool MapsFrameForFrame() const override { return input_dim == output_dim; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// n rows of D values become D rows of n; the output dimension follows the frames of every call.
class TransposeComponent final : public LayerOf<0x501> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool MapsFrameForFrame() const override { return false; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FLOW_NNET_CONTROL_FLOW_SHAPES_H_
