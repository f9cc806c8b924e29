#ifndef NNET_STREAM_NNET_NNET_CONTROL_FLOW_H_
#define NNET_STREAM_NNET_NNET_CONTROL_FLOW_H_

// Registers, concatenation, padding and slicing along a stream. D is the input dimension, which is
// also the width of what comes out of all but the concatenation. An input begins with a reset.

#include <cstdint>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

#include "nnet/flow/nnet-control-flow.h"
#include "nnet/flow/nnet-control-flow.shapes.h"
#include "nnet/stream_nnet/chunk-layer.h"

namespace tarev::nnet::handwriting_CTC {

/// Gives its input unchanged and keeps the rows of the last call under its name, for the
/// concatenations that run after it.
class StreamRegisterComponent final : public LayerOf<0x1100> {
 public:
  static constexpr const char* kKind = "stream_register";

  using LayerOf::LayerOf;
  void Reserve(int64_t frames) override;
  void Reset() override { stored_frames = 0; }
  FieldList Fields() override { return {{"<RegisterName>", &register_name, FieldUse::kRequired}}; }
  bool Validate(Refusal& why) override;
  void Announce(NetworkLinks& links) override;
  bool MapsFrameForFrame() const override { return false; }
  std::string Links() const override { return "register " + register_name; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  std::string register_name;
  /// The rows of the last call, and how many there are.
  RowQueue register_buffer{input_dim};
  int64_t stored_frames = 0;
  /// Frames of the call for which room was made last; none before that. A concatenation asks for it
  /// while it estimates its own.
  std::optional<int64_t> reserved_frames;
};

/// Joins rows of registers and of its own input, each D wide, frame by frame of the stream. The
/// parts belong together by their number in the input: parts that are ahead of others wait in its
/// queues. A call gives the frames that all parts have by then.
class StreamConcatenateComponent final : public LayerOf<0x1101>,
                                         public LinkedParts<StreamRegisterComponent> {
 public:
  using LayerOf::LayerOf;
  bool CheckInputDim() const override { return UsesInput(); }
  void Reset() override;
  FieldList Fields() override { return PartFields(); }
  bool Validate(Refusal& why) override;
  void Link(NetworkLinks& links) override;
  bool MapsFrameForFrame() const override { return false; }
  std::string Links() const override { return Describe(); }
  int64_t MostFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// Throws unless the registers are linked, all parts are D wide and together fill the output.
  void CheckParts() const;

  /// Rows held over, a queue for each part.
  std::vector<RowQueue> pending;

 private:
  /// Frames that all parts have once the call has brought `frames`; 0 while not linked.
  int64_t CompleteFrames(int64_t frames) const;
  template <class Visit>
  void ForEachPart(const float* in, int64_t frames, Visit visit) const;

  std::source_location place_;  // of the executor: messages of linking carry it
};

/// ReflectionPad over a stream: mirrors the frames next to each end, not the end itself. Nothing
/// comes out before the frames that are mirrored at the start have arrived. At the end of an input
/// of no more than L or R frames the call throws; one without frames gives none.
class StreamReflectionPad final : public LayerOf<0x1102, ChunkLayer>, public FramePadding {
 public:
  using LayerOf::LayerOf;
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  void Reserve(int64_t frames) override;
  void Reset() override;
  FieldList Fields() override { return PaddingFields(); }
  bool Validate(Refusal& why) override {
    return ValidatePadding(why) && why.SameWidth(input_dim, output_dim);
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallPlan Plan(int64_t frames, int in_dim) const override;

  /// The first frames of the stream while they wait, at most padding_left.
  RowQueue head{input_dim};
  /// The last frames that have arrived, at most padding_right + 1.
  RowQueue tail{input_dim};

 private:
  /// Whether too few frames have arrived to mirror the start.
  bool Waits(int64_t frames) const { return first_chunk && head.rows() + frames <= padding_left; }
  /// Keeps the last frames of the call for the mirror at the end.
  void KeepTail(const float* in, int64_t frames);
  /// Writes the mirrored frames of the start and those that have waited; returns the end of them.
  float* EmitHead(const float* in, float* out);
  [[noreturn]] void ThrowTooShort(int64_t frames) const;
};

/// ConstantPad over a stream: the value's frames come with the first call and with the last.
class StreamConstantPad final : public LayerOf<0x1103, ChunkLayer>, public ConstantPadParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return ConstantPadFields(); }
  bool Validate(Refusal& why) override {
    return ValidatePadding(why) && why.SameWidth(input_dim, output_dim);
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// Drops the first frames of the stream, as many as the first number of the index text says. Unlike
/// SliceComponent it does not pick frames by index.
class StreamSliceComponent final : public LayerOf<0x1104> {
 public:
  using LayerOf::LayerOf;
  void Reset() override { frames_seen = 0; }
  FieldList Fields() override { return {{"<Index>", &index_text, FieldUse::kRequired}}; }
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  std::string index_text;
  /// The first numbers of the items of index_text; the first of them counts the frames to drop.
  std::vector<int32_t> starts;
  /// Frames of the stream that earlier calls brought.
  int64_t frames_seen = 0;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_STREAM_NNET_NNET_CONTROL_FLOW_H_
