#ifndef NNET_CONV1D_H_
#define NNET_CONV1D_H_

// Convolution, transposed convolution and pooling along the frame axis of a call. D is the input
// dimension (input channels), O the output dimension (output channels), k the number of taps. The
// parameter blocks know nothing of calls: streaming layers own them too and say themselves which
// frames a call sees.

#include <cstdint>
#include <cstdio>

#include "nnet/conv1d-kernels.h"
#include "nnet/nnet-component.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

/// A window of taps that slides over the frames, and the frames of padding around them.
struct WindowParameters {
  int32_t kernel_size = 0;
  int32_t stride = 1;
  int32_t padding_left = 0;
  int32_t padding_right = 0;
  int32_t dilation = 1;
  /// Frames that the taps span, (k - 1) dilation + 1.
  int64_t effective_kernel = 0;

  /// Frames at which the window finds all its taps in `frames` frames and their padding.
  int64_t WindowPositions(int64_t frames) const {
    return frames + padding_left + padding_right - effective_kernel + 1;
  }
  /// Every stride-th of them; 0 when there is none.
  int64_t WindowFrames(int64_t frames) const;

 protected:
  void AddWindowProperties(PropertyTable& properties);
  /// Checks the fields, with a logged reason, and derives the span.
  bool SetWindow();
};

/// In which order a sum runs over taps and input channels.
enum class TermOrder { kTapsFirst, kChannelsFirst };

/// What both convolutions store beside the window. After reading, the kernel is held in compute
/// order alone; a write restores the order of the file.
struct ConvolutionParameters : WindowParameters {
  int64_t kernel_rows = 0;  // D x O / groups rows of k values
  int32_t groups = 1;
  int32_t in_per_group = 0;
  int32_t out_per_group = 0;
  int32_t has_bias = 0;
  FloatArray kernel;
  FloatArray bias_vector;  // O
  bool kernel_transposed = false;

  /// The arrays in file order with the shapes that they have in the file.
  ParameterList List();

 protected:
  /// What a row of the stored kernel belongs to: output channel by output channel, or input channel
  /// by input channel.
  enum class RowOrder { kByOutput, kByInput };
  ConvolutionParameters(RowOrder rows, TermOrder terms) : row_order(rows), term_order(terms) {}

  /// Checks the fields against the layer's dimensions, with a logged reason, and derives the rest.
  bool SetShape(const Component& layer);
  bool ReadKernel(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool ReadTextKernel(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool WriteKernel(FILE* fp) const;

  ptrdiff_t InDim() const { return ptrdiff_t{groups} * in_per_group; }
  ptrdiff_t OutDim() const { return ptrdiff_t{groups} * out_per_group; }
  /// Taps `first`, `first` + spacing, … of the kernel. For the first output frame of a run they
  /// look at the input frames in_frame, in_frame + in_step, …
  struct Taps {
    int64_t first;
    int64_t count;
    int64_t spacing;
    int64_t in_frame;
    int64_t in_step;
  };
  /// Computes a run of which everything but the terms is filled in; run.in is the call's input.
  void Run(ConvolutionRun run, const Taps& taps) const;

 private:
  template <class Visit>
  void ForEachWeight(Visit visit) const;
  void PutIntoComputeOrder();

  RowOrder row_order;
  TermOrder term_order;
  ConvolutionShape shape;
};

/// Output frame t, channel o: bias[o] + the sum over taps j and channels c of o's group of
///   kernel[o][c][j] in[t stride - padding + j dilation][c].
struct Conv1dParameters : ConvolutionParameters {
  explicit Conv1dParameters(TermOrder terms = TermOrder::kTapsFirst)
      : ConvolutionParameters(RowOrder::kByOutput, terms) {}

  bool ReadBlock(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool ReadTextBlock(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool WriteBlock(FILE* fp) const;
  /// Computes `out_frames` frames from `frames` frames that `padding` frames stand before. Taps
  /// outside the input add nothing.
  void Convolve(const float* in, int64_t frames, int64_t padding, int64_t out_frames,
                float* out) const;
};

/// The transpose: input frame t, channel i adds in[t][i] kernel[i][p][j] to output frame
///   t stride - padding + j dilation, channel p of i's group; then the bias is added everywhere.
/// The sum of an output value runs over input channels, then taps.
struct ConvTranspose1dParameters : ConvolutionParameters {
  ConvTranspose1dParameters()
      : ConvolutionParameters(RowOrder::kByInput, TermOrder::kChannelsFirst) {}

  int32_t output_padding = 0;

  bool ReadBlock(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool ReadTextBlock(FILE* fp, const Component& layer, uint64_t& memory_bytes);
  bool WriteBlock(FILE* fp) const;
  /// Output frames without any trimming, for at least one input frame.
  int64_t SpreadFrames(int64_t frames) const {
    return (frames - 1) * stride + (int64_t{kernel_size} - 1) * dilation + 1;
  }
  /// Computes frames [padding, padding + out_frames) of those.
  void Convolve(const float* in, int64_t frames, int64_t padding, int64_t out_frames,
                float* out) const;

 private:
  /// Output frames `frame`, `frame` + stride, …: tap `tap`, the first one that reaches them, brings
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

/// Output frame t, every column: the largest in[t stride - padding + j dilation] over the taps j;
/// a tap in the padding counts as 0.
struct MaxPool1dParameters : WindowParameters {
  bool ReadBlock(FILE* fp);
  bool ReadTextBlock(FILE* fp);
  bool WriteBlock(FILE* fp) const;
  void Pool(const float* in, int64_t frames, int64_t padding, size_t columns, int64_t out_frames,
            float* out) const;
};

class Conv1d final : public LayerOf<0x307>, public Conv1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
  ParameterList MutableParameters() override { return List(); }
};

class ConvTranspose1d : public LayerOf<0x308>, public ConvTranspose1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
  ParameterList MutableParameters() override { return List(); }
};

/// Keeps the caller's width. Its fixed-point code is its float code.
class MaxPool1d : public LayerOf<0x309, 0x309>, public MaxPool1dParameters {
 public:
  using LayerOf::LayerOf;
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  bool ReadData(FILE* fp) override { return ReadBlock(fp); }
  bool ReadTextData(FILE* fp, bool binary) override {
    return binary ? ReadBlock(fp) : ReadTextBlock(fp);
  }
  bool WriteData(FILE* fp) const override { return WriteBlock(fp); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;
  CallExtent Extent(int64_t frames, int in_dim) const override;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONV1D_H_
