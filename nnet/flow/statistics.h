#ifndef NNET_FLOW_STATISTICS_H_
#define NNET_FLOW_STATISTICS_H_

// Layers that turn a sequence of frames into statistics over windows of frames. Cutting into
// windows, forming sums and pooling them gives one vector for each window. D is the input
// dimension, O the output dimension.

#include <cstdint>
#include <memory>

#include "nnet/contract/nnet-component.h"
#include "utils/rectify_feats.h"

namespace tarev::nnet::handwriting_CTC {

/// Row r becomes [count, sums of x, sums of x²] (without variance [count, sums of x]) over the
/// frames r, r + input_period, … of a span of output_period frames. Up to 128 frames are added in
/// their order; spans of more take two additions a value, whatever their length. n frames become n - right
/// context, and a call of no more frames than that throws. With variance the input rows are left
/// squared.
class StatisticsExtraction final : public LayerOf<0x601> {
 public:
  using LayerOf::LayerOf;
  int64_t RightContext() const override { return int64_t{output_period} - input_period; }
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  uint64_t ExtraWork(int64_t frames, int in_dim) const override;
  bool ChangesInput() const override { return include_variance; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t input_period = 1;
  int32_t output_period = 1;
  bool include_variance = true;

 private:
  /// Values of an output row.
  int64_t RowWidth() const { return 1 + (include_variance ? 2 : 1) * int64_t{input_dim}; }
  void SumLongSpans(float* rows, size_t count, size_t width);

  FloatArray running_;
};

/// Pools blocks of `pool_frames` rows of statistics (0: all rows of a call; the last block takes
/// what remains) into one row each: means and, in place of the second half,
/// sqrt(max(variance_floor, mean of squares - mean²)). The sums are formed in the input rows. The
/// periods and contexts of the block are stored only.
class StatisticsPooling final : public LayerOf<0x602> {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  void Announce(NetworkLinks& links) override;
  std::string Links() const override;
  bool ChangesInput() const override { return true; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t input_period = 1;
  int32_t left_context = -1;
  int32_t right_context = -1;
  /// Leading values of an output row, which stay 0; with any, no deviations are formed.
  int32_t num_log_count_features = 0;
  bool output_stddevs = true;
  float variance_floor = 1.0e-10F;
  /// The window of the layer before this one, when that cuts windows; set when the network is
  /// linked.
  int32_t pool_frames = 0;

 private:
  /// Pools `count` rows into one output row; the sums are left in the first of them.
  void PoolBlock(float* rows, int64_t count, float* out) const;
};

/// Cuts the stream into windows of `window_size` frames, `hop_size` apart, and gives their frames
/// one window after another. Frames of windows that are not complete wait for the next call; a call
/// with a negative call_id ends the stream. Reading throws "Wrong parameter(s)!" for sizes that
/// make no window.
class SlidingWindow final : public LayerOf<0x603> {
 public:
  using LayerOf::LayerOf;
  /// Always throws: the number depends on what earlier calls left.
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  /// An estimate from the frames alone; windows that overlap may give more, which Plan allows for.
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void Reset() override;
  void Announce(NetworkLinks& links) override;
  FieldList Fields() override;
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return false; }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  void PropagateChunk(const float* in, int64_t frames, int in_dim, float* out,
                      int call_id) override;

  int32_t window_size = 0;
  int32_t hop_size = 0;
  int32_t sliding_mode = 0;
  /// Calls of PropagateFnc since the last reset, which pass it as call_id.
  int32_t chunk_count = 0;
  std::unique_ptr<feats_win_generator_t> generator;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FLOW_STATISTICS_H_
