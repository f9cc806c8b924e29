#ifndef NNET_NNET_CONTROL_FLOW_H_
#define NNET_NNET_CONTROL_FLOW_H_

// Layers that let a chain of layers branch and rejoin, pick, add or re-cut frames, and move between
// frame rows and planes. None computes. D is the input dimension, O the output dimension, n the
// frames of a call.
//
// A register keeps a copy of the frames that pass through it under a name; a concatenation behind
// it joins the rows of registers and its own input. The executor links the two by name.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "nnet/nnet-component.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

/// Throws unless rows leave a layer at the width at which they came.
void RequireEqualDims(const Component& layer);

/// Keeps all rows of a call, or those of the given frame indexes; negative ones count from the end.
class RegisterComponent final : public LayerOf<0x700> {
 public:
  /// What messages call this kind of register.
  static constexpr const char* kKind = "register";

  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  std::string Links() const override { return "register " + register_name; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  /// Rows of O values that the buffer holds for a concatenation.
  int64_t HeldFrames() const;

  std::string register_name;
  std::string slice_index;
  std::vector<int32_t> indexes;
  FloatArray register_buffer;
  int64_t stored_frames = 0;
  int64_t frame_capacity = 0;

 private:
  void SetIndexes();
};

/// Keeps all planes of a call.
class Register2dComponent final : public ChannelLayerOf<0x701> {
 public:
  static constexpr const char* kKind = "register2d";

  using ChannelLayerOf::ChannelLayerOf;
  void Reserve(int64_t frames) override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  std::string Links() const override { return "register " + register_name; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  std::string register_name;
  FloatArray register_buffer;
  int64_t stored_frames = 0;
  int64_t frame_capacity = 0;
};

/// The parameter block of a concatenation: which parts an output row consists of, in order.
struct ConcatenationParts {
  std::vector<std::string> register_names;
  /// Part numbers at which the layer's own input stands; the others are the registers in order.
  std::vector<int32_t> input_positions;
  int32_t part_count = 0;

  bool ReadBlock(FILE* fp);
  /// One line of "<RegisterName> name" and "<Input>".
  bool ReadTextBlock(FILE* fp);
  bool WriteBlock(FILE* fp) const;

  bool UsesInput() const { return !input_positions.empty(); }
  bool IsInput(int32_t part) const { return part_is_input[static_cast<size_t>(part)]; }
  std::string Describe() const;
  /// Throws unless every name has been linked to a register.
  void RequireLinked(size_t linked) const;

 private:
  bool SetPositions();

  std::vector<bool> part_is_input;
};

/// Joins rows, frame by frame. Without its own input it has as many frames as its first register.
class ConcatenateComponent final : public LayerOf<0x702>, public ConcatenationParts {
 public:
  using Register = RegisterComponent;

  using LayerOf::LayerOf;
  bool CheckInputDim() const override { return UsesInput(); }
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override { return WriteBlock(fp); }
  std::string Links() const override { return Describe(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  // What the executor adds up when it links: the parts must fill the output.
  int64_t InputUnits() const { return input_dim; }
  static int64_t RegisterUnits(const Register& part) { return part.output_dim; }
  int64_t OutputUnits() const { return output_dim; }

  std::vector<const Register*> registers;

 private:
  int64_t RowFrames(int64_t frames) const;
  int64_t RowWidth() const;
  void CheckRegisters(int64_t frames) const;
};

/// Stacks planes along the channel axis.
class Concatenate2dComponent final : public ChannelLayerOf<0x703>, public ConcatenationParts {
 public:
  using Register = Register2dComponent;

  using ChannelLayerOf::ChannelLayerOf;
  bool CheckInputDim() const override { return UsesInput(); }
  bool ReadData(FILE* fp) override { return ReadBlock(fp); }
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override { return WriteBlock(fp); }
  std::string Links() const override { return Describe(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  int64_t InputUnits() const { return input_channel; }
  static int64_t RegisterUnits(const Register& part) { return part.output_channel; }
  int64_t OutputUnits() const { return output_channel; }

  std::vector<const Register*> registers;

 private:
  void CheckRegisters(int64_t frames) const;
};

/// Planes to rows: row t is the rows t of all input channels, one after another.
class FlattenComponent final : public LayerOf<0x704> {
 public:
  using LayerOf::LayerOf;
  int InputChannel() const override { return input_channels; }
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  int32_t input_channels = 0;
};

/// Rows to planes, the inverse.
class DeflattenComponent final : public LayerOf<0x705> {
 public:
  using LayerOf::LayerOf;
  int OutputChannel() const override { return output_channels; }
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  int32_t output_channels = 0;
};

/// The frames of the given indexes; negative ones count from the end of the call.
class SliceComponent final : public LayerOf<0x706> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;

  std::string index_text;
  std::vector<int32_t> indexes;

 private:
  bool SetIndexes();
};

/// Frames that are added at both ends.
struct FramePadding {
  int32_t padding_left = 0;
  int32_t padding_right = 0;

  bool ReadPadding(FILE* fp);
  bool WritePadding(FILE* fp) const;
  void AddPaddingProperties(PropertyTable& properties);
  bool PaddingIsSound() const { return padding_left >= 0 && padding_right >= 0; }
  int64_t PaddedFrames(int64_t frames) const { return frames + padding_left + padding_right; }
};

/// Mirrors the frames next to each end, not the end itself.
class ReflectionPad final : public LayerOf<0x707>, public FramePadding {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override { return ReadPadding(fp); }
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override { return WritePadding(fp); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
};

/// The parameter block of a padding with one value.
struct ConstantPadParameters : FramePadding {
  float value = 0.0F;

  bool ReadBlock(FILE* fp);
  bool ReadTextBlock(FILE* fp);
  bool WriteBlock(FILE* fp) const;
};

class ConstantPad final : public LayerOf<0x708>, public ConstantPadParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override { return ReadBlock(fp); }
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override { return WriteBlock(fp); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
};

/// Reads the same floats as rows of O values. Values of a last row that is not full are dropped.
class ViewComponent final : public LayerOf<0x500> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* /*fp*/) override { return output_dim >= 1; }
  bool ReadTextData(FILE* fp, bool /*binary*/) override { return ReadData(fp); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
};

/// n rows of D values become D rows of n; the output dimension follows the frames of every call.
class TransposeComponent final : public LayerOf<0x501> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_NNET_CONTROL_FLOW_H_
