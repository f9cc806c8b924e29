#ifndef NNET_CONVOLUTION_CONV1D_H_
#define NNET_CONVOLUTION_CONV1D_H_

// Convolution, transposed convolution and pooling along the frame axis of a call. D is the input
// dimension (input channels), O the output dimension (output channels), k the number of taps. The
// parameter structs know nothing of calls: streaming layers use them too and decide themselves
// which frames a call sees.

#include <algorithm>
#include <cstdint>
#include <vector>

#include "nnet/contract/nnet-component.h"
#include "nnet/convolution/conv1d-kernels.h"

namespace tarev::nnet::handwriting_CTC {

/// A window of taps that slides over the frames, and the frames of padding around them.
/// ValidateWindow sets effective_kernel; the functions below need it.
struct WindowParameters {
  int32_t kernel_size = 0;
  int32_t stride = 1;
  int32_t padding_left = 0;
  int32_t padding_right = 0;
  int32_t dilation = 1;
  /// Frames that the taps span, (k - 1) dilation + 1; not positive without taps.
  int64_t effective_kernel = 0;

  /// Positions at which the whole window lies within `frames` frames and their padding; less than 1
  /// when there is none.
  int64_t WindowPositions(int64_t frames) const {
    return frames + padding_left + padding_right - effective_kernel + 1;
  }
  /// Every stride-th of them; 0 when there is none.
  int64_t WindowFrames(int64_t frames) const;
  /// Whether that is one for each frame, however many frames there are.
  bool KeepsFrames() const {
    return stride == 1 && int64_t{padding_left} + padding_right == effective_kernel - 1;
  }

 protected:
  /// The fields of the window, in file order.
  FieldList WindowFields();
  /// Checks the fields and derives the span. False, with the reason in `why` and in the log.
  bool ValidateWindow(Refusal& why);
};

/// In which order a sum runs over taps and input channels: which of the two is the outer loop.
enum class TermOrder { kTapsFirst, kChannelsFirst };

/// What both convolutions store beside the window. After reading, the kernel is held in compute
/// order only (see ConvolutionShape); a write restores the order of the file.
struct ConvolutionParameters : WindowParameters, ArrayOrder {
  int64_t kernel_rows = 0;  // D x O / groups, each row k values
  int32_t groups = 1;
  int32_t in_per_group = 0;
  int32_t out_per_group = 0;
  int32_t has_bias = 0;
  FloatArray kernel;
  FloatArray bias_vector;  // O
  bool kernel_transposed = false;

  /// The arrays in file order with the shapes that they have in the file.
  ParameterList Arrays();

 protected:
  /// What a row of the stored kernel belongs to: output channel by output channel, or input channel
  /// by input channel.
  enum class RowOrder { kByOutput, kByInput };
  ConvolutionParameters(RowOrder rows, TermOrder terms) : row_order_(rows), term_order_(terms) {}

  /// Checks the fields against the layer's dimensions and derives the rest. False, with the reason
  /// in `why` and in the log.
  bool ValidateShape(const Component& layer, Refusal& why);

  ptrdiff_t InDim() const { return ptrdiff_t{groups} * in_per_group; }
  ptrdiff_t OutDim() const { return ptrdiff_t{groups} * out_per_group; }
  /// Taps `first`, `first` + spacing, … of the kernel. For the first output frame of a run they
  /// read the input frames in_frame, in_frame + in_step, …
  struct Taps {
    int64_t first;
    int64_t count;
    int64_t spacing;
    int64_t in_frame;
    int64_t in_step;
  };
  /// Computes a run of which everything but the loops over its terms is filled in. run.in is the
  /// call's first input row; without taps the frames get the bias.
  void Run(ConvolutionRun run, const Taps& taps) const;

 private:
  /// Pairs the index in compute order and the index in the file of every weight.
  template <class Visit>
  void ForEachWeight(const Visit& visit) const;
  size_t HeldFloats() const override { return shape_.Weights(); }
  bool Hold(const NextRows& next, float* held) const override;
  bool HoldByOutput(const NextRows& next, float* held) const;
  bool HoldByInput(const NextRows& next, float* held) const;
  static void Turn(const float* rows, size_t stride, size_t count, const ChannelBlock& block,
                   size_t step, float* to);
  /// Whether the outer loop of the sums over several input channels is that over the taps.
  bool TapsFirst() const { return term_order_ == TermOrder::kTapsFirst && in_per_group > 1; }
  std::vector<float> Stored(const FloatArray& held) const override;

  RowOrder row_order_;
  TermOrder term_order_;
  ConvolutionShape shape_;
};

/// Output frame t, channel o: bias[o] + the sum over taps j and channels c of o's group of
///   kernel[o][c][j] in[t stride - padding + j dilation][c].
struct Conv1dParameters : ConvolutionParameters {
  explicit Conv1dParameters(TermOrder terms = TermOrder::kTapsFirst)
      : ConvolutionParameters(RowOrder::kByOutput, terms) {}

  /// The fields before the kernel, in file order.
  FieldList ConvolutionFields();
  /// Computes `out_frames` frames of O values from `frames` rows of D values, with `padding` frames
  /// of zeros before them. Taps outside the input add nothing.
  void Convolve(const float* in, int64_t frames, int64_t padding, int64_t out_frames,
                float* out) const;
};

/// The transpose of Conv1d: input frame t, channel i adds in[t][i] kernel[i][p][j] to output frame
///   t stride - padding + j dilation, channel p of i's group; then the bias is added everywhere.
/// The sum of an output value runs over input channels, then taps.
struct ConvTranspose1dParameters : ConvolutionParameters {
  ConvTranspose1dParameters()
      : ConvolutionParameters(RowOrder::kByInput, TermOrder::kChannelsFirst) {}

  int32_t output_padding = 0;

  /// The fields before the kernel, in file order.
  FieldList ConvolutionFields();
  bool ValidateShape(const Component& layer, Refusal& why);
  /// Output frames without any trimming, for at least one input frame.
  int64_t SpreadFrames(int64_t frames) const {
    return (frames - 1) * stride + (int64_t{kernel_size} - 1) * dilation + 1;
  }
  /// Computes frames [padding, padding + out_frames) of those from `frames` rows of D values.
  /// Frames that no tap reaches hold the bias.
  void Convolve(const float* in, int64_t frames, int64_t padding, int64_t out_frames,
                float* out) const;

 private:
  /// Output frames `frame`, `frame` + stride, …: `tap`, the first tap that reaches them, joins
  /// input frame `input` to the first of them.
  struct Phase {
    int64_t tap;
    int64_t frame;
    int64_t input;
  };
  void ConvolvePhase(const Phase& phase, const float* in, int64_t frames, int64_t out_frames,
                     float* out) const;
  void FillWithBias(int64_t out_frames, float* out) const;
};

/// Output frame t, every column: the largest in[t stride - padding + j dilation] over the taps j; a
/// tap in the padding counts as 0. Reads `frames` rows of `columns` values, writes `out_frames`.
/// Windows of more than 64 taps take a few comparisons a value, whatever their length.
struct MaxPool1dParameters : WindowParameters {
  void Pool(const float* in, int64_t frames, int64_t padding, size_t columns, int64_t out_frames,
            float* out, uint64_t& memory_bytes);
  /// Comparisons of a call.
  uint64_t PoolWork(int64_t out_frames, int64_t columns) const {
    return BlockFloats(std::min(kernel_size, kMostComparedInTurn), columns, out_frames);
  }

 private:
  static constexpr int32_t kMostComparedInTurn = 64;

  void PoolWide(const float* in, int64_t frames, int64_t padding, size_t columns,
                int64_t out_frames, float* out, uint64_t& memory_bytes);

  /// For every frame, the largest value from the beginning of its block of taps up to it, and from
  /// it up to the end of its block.
  FloatArray up_to_;
  FloatArray from_;
};

/// A convolution over the frames of each call by itself: n frames become as many as the window has
/// positions, every stride-th of them. A call that gives no frame throws.
class Conv1d final : public LayerOf<0x307>, public Conv1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return ConvolutionFields(); }
  bool Validate(Refusal& why) override { return ValidateShape(*this, why); }
  ParameterList MutableParameters() override { return Arrays(); }
  bool MapsFrameForFrame() const override { return KeepsFrames(); }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// A transposed convolution over each call by itself: n frames become
///   (n - 1) stride + (k - 1) dilation + 1 - padding_left - padding_right + output_padding.
/// A call that gives no frame throws.
class ConvTranspose1d : public LayerOf<0x308>, public ConvTranspose1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return ConvolutionFields(); }
  bool Validate(Refusal& why) override { return ValidateShape(*this, why); }
  ParameterList MutableParameters() override { return Arrays(); }
  bool MapsFrameForFrame() const override { return stride == 1 && CalcOutputFrames(1) == 1; }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

/// Pooling over the frames of each call by itself, column by column. Keeps the caller's width. Its
/// fixed-point code is its float code. A call that gives no frame throws.
class MaxPool1d : public LayerOf<0x309, Component, 0x309>, public MaxPool1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  FieldList Fields() override { return WindowFields(); }
  bool Validate(Refusal& why) override;
  bool MapsFrameForFrame() const override { return KeepsFrames(); }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  uint64_t ExtraWork(int64_t frames, int in_dim) const override {
    return PoolWork(CalcOutputFrames(frames), in_dim);
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONVOLUTION_CONV1D_H_
