#ifndef NNET_FLOW_NNET_CONTROL_FLOW_H_
#define NNET_FLOW_NNET_CONTROL_FLOW_H_

// Layers that let a chain of layers branch and rejoin: a register keeps a copy of the frames that
// pass through it under a name; a concatenation after it joins the rows of registers and its own
// input. They find each other by name when the network is linked. D is the input dimension, O the
// output dimension.

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "nnet/contract/nnet-component.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

/// A list of one frame index in decimal digits, or of none.
std::vector<int32_t> ParseIndexes(const std::string& text);

/// The frame of a call of so many that the index names; negative ones count from the end. Throws
/// when there is none.
int64_t FrameAt(const Component& layer, int32_t index, int64_t frames);
/// Throws unless the call has all frames that the indexes name.
void CheckIndexes(const Component& layer, const std::vector<int32_t>& indexes, int64_t frames);

/// The registers of one kind in a network by their names; the layers belong to the network.
template <class Register>
using RegisterMap = std::map<std::string, const Register*>;

/// Enters a register under its name. Throws when the name is taken.
template <class Register>
void AnnounceRegister(NetworkLinks& links, const Register& entry) {
  RegisterMap<Register>& known = links.Shared<RegisterMap<Register>>();
  if (known.emplace(entry.register_name, &entry).second) return;
  ThrowError(links.place(), "insert %s failed! maybe %s name is duplicated [%s]", Register::kKind,
             Register::kKind, entry.register_name.c_str());
}

/// Gives its input unchanged and keeps a copy under its name until its next call: all rows, or the
/// one row that the slice index names; a negative index counts from the end. A call without frames
/// keeps none. A call that lacks the named frame throws.
class RegisterComponent final : public LayerOf<0x700>, public CustomPart {
 public:
  /// What messages call this kind of register.
  static constexpr const char* kKind = "register";

  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  void Announce(NetworkLinks& links) override { AnnounceRegister(links, *this); }
  bool MapsFrameForFrame() const override { return false; }
  std::string Links() const override { return "register " + register_name; }
  CallPlan Plan(int64_t frames, int in_dim) const override { return SameRowsPlan(frames, in_dim); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// Rows of O values that the buffer holds for a concatenation; never more than were stored.
  int64_t HeldFrames() const;

  std::string register_name;
  std::string slice_index;
  std::vector<int32_t> indexes;  // of slice_index, one or none
  FloatArray register_buffer;    // stored_frames x O
  int64_t stored_frames = 0;
  int64_t frame_capacity = 0;

 private:
  // The optional extension of the binary form that carries the slice index: the bytes "EXT" and a
  // string. A block without it is followed by the next component, whose first bytes are then left
  // in the stream.
  bool ReadPart(FILE* fp, Refusal& why) override;
  bool WritePart(FILE* fp) const override;
};

/// Gives its planes unchanged and keeps a copy of all of them under its name until its next call.
class Register2dComponent final : public LayerOf<0x701, ChannelComponent> {
 public:
  static constexpr const char* kKind = "register2d";

  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  FieldList Fields() override { return {{"<RegisterName>", &register_name, FieldUse::kRequired}}; }
  bool Validate(Refusal& why) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  void Announce(NetworkLinks& links) override { AnnounceRegister(links, *this); }
  std::string Links() const override { return "register " + register_name; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  std::string register_name;
  FloatArray register_buffer;  // output_channel planes of stored_frames x O
  int64_t stored_frames = 0;
  int64_t frame_capacity = 0;
};

/// The parameter block of a concatenation: which parts an output row consists of, in order. The
/// text form is one line of "<RegisterName> name" and "<Input>".
struct ConcatenationParts : CustomPart {
  std::vector<std::string> register_names;
  /// Numbers of the parts that are the layer's own input; the others are the registers in order.
  std::vector<int32_t> input_positions;
  int32_t part_count = 0;

  bool ReadPart(FILE* fp, Refusal& why) override;
  bool ReadTextPart(FILE* fp, Refusal& why) override;
  bool WritePart(FILE* fp) const override;

  bool UsesInput() const { return !input_positions.empty(); }
  bool IsInput(int32_t part) const { return part_is_input_[ToSize(part)]; }
  /// The parts in order, as text for a reader.
  std::string Describe() const;

 protected:
  FieldList PartFields() { return {{"parts", this}}; }
  /// Refuses input positions that are no part number or repeat; IsInput is valid afterwards.
  bool ValidateParts(Refusal& why);

 private:
  std::vector<bool> part_is_input_;
};

/// The same with the registers of those names. Their sizes and the input's add up to the output's:
/// dimensions of rows or channels of planes, which the pointers to members tell.
template <class Register>
struct LinkedParts : ConcatenationParts {
  using Size = int32_t Component::*;

  std::vector<const Register*> registers;

 protected:
  /// The size that the parts have together.
  int64_t TotalSize(const Component& layer, Size input, Size output) const {
    int64_t size = static_cast<int64_t>(input_positions.size()) * (layer.*input);
    for (const Register* part : registers) size += part->*output;
    return size;
  }
  /// Looks the names up among the announced registers. Throws when one is missing or the sizes do
  /// not add up.
  void FindRegisters(NetworkLinks& links, const Component& layer, Size input, Size output) {
    registers.clear();
    const RegisterMap<Register>& known = links.Shared<RegisterMap<Register>>();
    for (const std::string& name : register_names) {
      const auto found = known.find(name);
      if (found == known.end()) {
        ThrowError(links.place(), "cannot find register with name [%s]", name.c_str());
      }
      registers.push_back(found->second);
    }
    RequireSize(links.place(), TotalSize(layer, input, output), layer.*output);
  }
  /// Throws unless every name is linked and the sizes still add up, right before a call: a register
  /// may have adopted another width since.
  void CheckSizes(std::source_location where, const Component& layer, Size input,
                  Size output) const {
    if (registers.size() != register_names.size()) {
      ThrowError(where, "registers are not linked! [%zu of %zu]", registers.size(),
                 register_names.size());
    }
    RequireSize(where, TotalSize(layer, input, output), layer.*output);
  }

 private:
  static void RequireSize(std::source_location where, int64_t size, int64_t wanted) {
    if (size == wanted) return;
    ThrowError(where, "mismatched concentrate dimension! [%" PRId64 " != %" PRId64 "]", size,
               wanted);
  }
};

/// Joins rows, frame by frame: D and the widths of the registers add up to O. With its own input
/// among the parts it has as many frames as that, otherwise as many as its first register. A call
/// throws when a register holds fewer; a register that runs after this layer still holds the rows
/// of the call before.
class ConcatenateComponent final : public LayerOf<0x702>, public LinkedParts<RegisterComponent> {
 public:
  using LayerOf::LayerOf;
  bool CheckInputDim() const override { return UsesInput(); }
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return PartFields(); }
  bool Validate(Refusal& why) override;
  void Link(NetworkLinks& links) override;
  bool MapsFrameForFrame() const override { return false; }
  std::string Links() const override { return Describe(); }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 private:
  /// The frames that the next call joins.
  int64_t RowFrames(int64_t frames) const;
  void CheckRegisters(int64_t frames) const;
};

/// Stacks planes along the channel axis. A call throws unless all registers hold planes of the
/// call's frames and of one width.
class Concatenate2dComponent final : public LayerOf<0x703, ChannelComponent>,
                                     public LinkedParts<Register2dComponent> {
 public:
  using LayerOf::LayerOf;
  bool CheckInputDim() const override { return UsesInput(); }
  FieldList Fields() override { return PartFields(); }
  bool Validate(Refusal& why) override { return ValidateParts(why); }
  void Link(NetworkLinks& links) override;
  std::string Links() const override { return Describe(); }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

 private:
  void CheckRegisters(int64_t frames) const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FLOW_NNET_CONTROL_FLOW_H_
