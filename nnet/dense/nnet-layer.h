#ifndef NNET_DENSE_NNET_LAYER_H_
#define NNET_DENSE_NNET_LAYER_H_

// Layers on the rows of a frame matrix without learned matrices: stacking neighbouring frames, one
// vector for all rows, a weighted sum of the blocks of a row.

#include <cstdint>
#include <vector>

#include "nnet/contract/nnet-component.h"
#include "nnet/dense/activation.h"

namespace tarev::nnet::handwriting_CTC {

/// Stacks each frame with its neighbours at fixed offsets. Consumes the context that the first and
/// the last offset reach into, so a call gives that many frames less.
class Splice : public LayerOf<0x401>, public CustomPart {
 public:
  using LayerOf::LayerOf;
  int64_t LeftContext() const override;
  int64_t RightContext() const override;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  void Announce(NetworkLinks& links) override;
  FieldList Fields() override { return {{"offsets", this}}; }
  bool Validate(Refusal& why) override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t offset_count = 0;
  std::vector<int32_t> offsets;  // ascending, first <= 0 <= last

 private:
  // The offsets, as many as the dimensions say.
  bool ReadPart(FILE* fp, Refusal& why) override;
  bool ReadTextPart(FILE* fp, Refusal& why) override;
  bool WritePart(FILE* fp) const override;
  bool ValidateOffsetCount(Refusal& why);
};

/// One value per column, which memory_bytes does not count.
class ColumnVectorLayer : public ColumnLayer {
 public:
  bool Validate(Refusal& why) override;
  BlockForm Form() const override { return {.opening = MatrixOpening::kLenient}; }

  int32_t dim = 0;

 protected:
  using ColumnLayer::ColumnLayer;
};

/// x + shift. Works in place: after a call the input rows hold the output.
class AddShift final : public LayerOf<0x402, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  ParameterList MutableParameters() override { return {Uncounted(Vector("shift", shift, dim))}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray shift;
};

/// x * scale. Works in place: after a call the input rows hold the output.
class Rescale final : public LayerOf<0x403, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  ParameterList MutableParameters() override { return {Uncounted(Vector("scale", scale, dim))}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray scale;
};

/// x - prior. The text form holds prior weights, which the read turns into logarithms of
/// probabilities; the binary form holds those.
class Prior final : public LayerOf<0x600, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  bool ReadTextData(FILE* fp, bool binary) override;
  ParameterList MutableParameters() override { return {Uncounted(Vector("prior", prior, dim))}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray prior;
};

/// The sum of the equal blocks of a row, each with a weight of its own.
class AddComponent final : public LayerOf<0x408> {
 public:
  using LayerOf::LayerOf;
  FieldList Fields() override { return {{"<InputNum>", &input_num}}; }
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override {
    return {Uncounted(Vector("weights", weights, input_num))};
  }
  BlockForm Form() const override { return {.opening = MatrixOpening::kLenient}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t input_num = 0;
  FloatArray weights;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_NNET_LAYER_H_
