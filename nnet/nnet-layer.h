#ifndef NNET_NNET_LAYER_H_
#define NNET_NNET_LAYER_H_

// Layers on the rows of a frame matrix without learned matrices: stacking neighbouring frames, one
// vector for all rows, a weighted sum of the blocks of a row.

#include <cstdint>
#include <vector>

#include "nnet/activation.h"
#include "nnet/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Stacks each frame with its neighbours at fixed offsets. Consumes the context that the first and
/// the last offset reach into, so a call gives that many frames less.
class Splice : public LayerOf<0x401> {
 public:
  using LayerOf::LayerOf;
  int64_t LeftContext() const override;
  int64_t RightContext() const override;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t offset_count = 0;
  std::vector<int32_t> offsets;  // ascending, first <= 0 <= last

 private:
  bool SetOffsetCount();
  bool OffsetsAreValid() const;
};

/// One value per column. The arrays of the layers in this file are not part of memory_bytes.
template <int kCode>
class ColumnVectorLayer : public RowActivation<kCode> {
 public:
  using RowActivation<kCode>::RowActivation;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;

  int32_t dim = 0;

 protected:
  bool SetDim();
};

/// x + shift. Works in place: after a call the input rows hold the output.
class AddShift final : public ColumnVectorLayer<0x402> {
 public:
  using ColumnVectorLayer::ColumnVectorLayer;
  ParameterList MutableParameters() override { return {{&shift, 1, ToSize(dim)}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray shift;
};

/// x * scale. Works in place: after a call the input rows hold the output.
class Rescale final : public ColumnVectorLayer<0x403> {
 public:
  using ColumnVectorLayer::ColumnVectorLayer;
  ParameterList MutableParameters() override { return {{&scale, 1, ToSize(dim)}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray scale;
};

/// x - prior. The text form holds prior weights, which the read turns into logarithms of
/// probabilities; the binary form holds those.
class Prior final : public ColumnVectorLayer<0x600> {
 public:
  using ColumnVectorLayer::ColumnVectorLayer;
  bool ReadTextData(FILE* fp, bool binary) override;
  ParameterList MutableParameters() override { return {{&prior, 1, ToSize(dim)}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray prior;
};

/// The sum of the equal blocks of a row, each with a weight of its own.
class AddComponent final : public LayerOf<0x408> {
 public:
  using LayerOf::LayerOf;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  ParameterList MutableParameters() override { return {{&weights, 1, ToSize(input_num)}}; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t input_num = 0;
  FloatArray weights;

 private:
  bool BlocksFit() const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_NNET_LAYER_H_
