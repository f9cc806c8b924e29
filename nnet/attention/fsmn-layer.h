#ifndef NNET_ATTENTION_FSMN_LAYER_H_
#define NNET_ATTENTION_FSMN_LAYER_H_

// The feedforward sequential memory block (FSMN: Zhang et al. 2015), with the skip connection of
// its deep form (Zhang et al. 2018).

#include <cstdint>
#include <string>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Adds to every frame a memory: the sum, weighted per dimension, of the frames at fixed distances
/// around it. With a dependency it also adds the memory of an earlier block of the same network.
/// Consumes context: n frames become n - left - right, and a call that is not longer than its
/// context throws. Nothing is carried from call to call.
class Fsmn final : public LayerOf<0x107> {
 public:
  using LayerOf::LayerOf;

  int64_t LeftContext() const override { return int64_t{l_order} * stride; }
  int64_t RightContext() const override { return int64_t{r_order} * stride; }
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  void Reserve(int64_t frames) override;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override;
  BlockForm Form() const override { return {.opening = MatrixOpening::kLenient}; }
  bool ReadTextData(FILE* fp, bool binary) override;
  void Announce(NetworkLinks& links) override;
  std::string Links() const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// Makes this block add row i + `offset` of the memory of `source` to its output frame i. The
  /// source must be of the same network and run before this block. Throws when its rows have
  /// another width.
  void LinkTo(const Fsmn& source, int64_t offset);
  /// Undoes LinkTo; a block with a dependency throws until it is linked again.
  void Unlink();

  int32_t dim = 0;
  int32_t l_order = 0;  // taps before the current frame
  int32_t r_order = 0;  // taps after it
  int32_t stride = 1;   // frames between neighbouring taps
  int32_t depend = 0;   // -n: depends on the n-th block before this one
  FloatArray filter;    // (l_order + r_order + 1) x dim, the oldest tap first
  /// What LinkTo set; -1 and null without a link. The source is not owned.
  int64_t skip_offset = -1;
  const Fsmn* skip_source = nullptr;
  /// The memories alone, a row for each output frame of the last call.
  FloatArray memory_buffer;
  int64_t frame_capacity = 0;

 private:
  int64_t Taps() const { return int64_t{l_order} + r_order + 1; }
  /// Throws when the block it depends on has too few rows for out_frames output frames.
  void CheckSkip(int64_t out_frames) const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_FSMN_LAYER_H_
