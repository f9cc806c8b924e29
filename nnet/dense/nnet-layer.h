#ifndef NNET_DENSE_NNET_LAYER_H_
#define NNET_DENSE_NNET_LAYER_H_

// Layers on the rows of a frame matrix without learned matrices: stacking neighbouring frames, one
// vector for all rows, a weighted sum of the blocks of a row.

#include <cstdint>
#include <vector>

#include "nnet/contract/nnet-component.h"
#include "nnet/dense/activation.h"

namespace tarev::nnet::handwriting_CTC {

/// Stacks each frame t with its neighbours at fixed offsets: an output row is the input rows at
/// these offsets from t, one after another, for t from the left context on. Consumes the context
/// that the first and the last offset reach into: n frames become n - left - right, and a call with
/// no more frames than its context throws.
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
  // The offsets as int32, as many as output_dim / input_dim; no count is stored.
  bool ReadPart(FILE* fp, Refusal& why) override;
  bool ReadTextPart(FILE* fp, Refusal& why) override;
  bool WritePart(FILE* fp) const override;
  /// Checks the dimensions and sets offset_count; the reader needs it before Validate runs.
  bool ValidateOffsetCount(Refusal& why);
};

/// The base of layers with one value for each column. memory_bytes does not count these values.
class ColumnVectorLayer : public ColumnLayer {
 public:
  bool Validate(Refusal& why) override;
  BlockForm Form() const override { return {.opening = MatrixOpening::kLenient}; }

  int32_t dim = 0;

 protected:
  using ColumnLayer::ColumnLayer;
};

/// y = x + shift, column by column. Works in place: after a call the input rows hold the output.
class AddShift final : public LayerOf<0x402, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  ParameterList MutableParameters() override { return {Uncounted(Vector("shift", shift, dim))}; }
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray shift;  // D
};

/// y = x scale, column by column. Works in place: after a call the input rows hold the output.
class Rescale final : public LayerOf<0x403, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  ParameterList MutableParameters() override { return {Uncounted(Vector("scale", scale, dim))}; }
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray scale;  // D
};

/// y = x - prior, column by column: log posteriors become scaled log likelihoods. The text form
/// holds prior weights, which the read turns into logarithms of probabilities; the binary form
/// holds those.
class Prior final : public LayerOf<0x600, ColumnVectorLayer> {
 public:
  using LayerOf::LayerOf;
  bool ReadTextData(FILE* fp, bool binary) override;
  ParameterList MutableParameters() override { return {Uncounted(Vector("prior", prior, dim))}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray prior;  // D natural logarithms
};

/// The weighted sum of the equal blocks of a row, D = input_num O:
///   y[j] = Σ over k of weights[k] x[k O + j].
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
  FloatArray weights;  // input_num
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_NNET_LAYER_H_
