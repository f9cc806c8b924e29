#ifndef NNET_STREAM_NNET_CONVOLUTION_H_
#define NNET_STREAM_NNET_CONVOLUTION_H_

// Convolution, transposed convolution and pooling along the frames of a stream. Parameter blocks
// and the arithmetic of one call are those of the whole-sequence layers; the classes here decide
// which rows and which padding a call sees. However an input is cut into chunks, the bits of its
// output are the same.

#include <cstdint>
#include <cstdio>

#include "nnet/convolution/conv1d.h"
#include "nnet/stream_nnet/chunk-layer.h"

namespace tarev::nnet::handwriting_CTC {

/// A window that slides over the rows of a stream, and the rows that later positions still see. For
/// every call: Take, compute the view's output frames, MoveOn.
class StreamWindow {
 public:
  explicit StreamWindow(int row_width) : cache(row_width) {}

  void Reset();
  void Reserve(const WindowParameters& window, int64_t frames, uint64_t& memory_bytes) {
    cache.Reserve(window.effective_kernel - 1, frames, memory_bytes);
  }
  /// The most output frames that a chunk of `frames` frames can complete.
  static int64_t MostFrames(const WindowParameters& window, int64_t frames) {
    return window.WindowFrames(frames + window.effective_kernel - 1);
  }
  /// The output frames that it completes from the present position, with the padding of these ends.
  int64_t CompleteFrames(const WindowParameters& window, int64_t frames,
                         const ChunkEnds& ends) const;

  /// What the windows of one call see: `count` rows of real input after `padding` rows of zeros.
  /// out_frames windows are complete, the first at the beginning of the padding.
  struct View {
    const float* rows;
    int64_t count;
    int64_t padding;
    int64_t out_frames;
  };
  /// Adds a chunk and the padding of its ends, whose marks it clears. The view is valid until
  /// MoveOn, which follows when the output has been computed.
  View Take(const WindowParameters& window, const float* in, int64_t frames, ChunkEnds& ends,
            uint64_t& memory_bytes);
  /// Moves on by the windows of the view and drops the rows that no later window sees.
  void MoveOn(const WindowParameters& window, const View& view);

  /// Rows from the start of the next window to the end of what has arrived, rows of padding
  /// included. Negative when the stride has already passed rows that are still to come.
  int64_t cached_frames = 0;
  /// Those of them that are not padding.
  RowQueue cache;

 private:
  /// Rows from the start of the next window to the end of the chunk and its padding.
  int64_t Length(const WindowParameters& window, int64_t frames, const ChunkEnds& ends) const;
};

/// Conv1d over a stream, with the terms of each sum in another order: input channels, then taps.
/// Equal to the twin's bits where a group has one input channel or the kernel one tap, and to
/// rounding otherwise.
class StreamConv1d final : public LayerOf<0x1000, ChunkLayer>, public Conv1dParameters {
 public:
  StreamConv1d(int input_dim_arg, int output_dim_arg)
      : LayerOf(input_dim_arg, output_dim_arg),
        Conv1dParameters(TermOrder::kChannelsFirst),
        window(input_dim_arg) {}
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void Reserve(int64_t frames) override { window.Reserve(*this, frames, memory_bytes); }
  void Reset() override;
  FieldList Fields() override { return ConvolutionFields(); }
  bool Validate(Refusal& why) override { return ValidateShape(*this, why); }
  ParameterList MutableParameters() override { return Arrays(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  StreamWindow window;
};

/// MaxPool1d over a stream, with the same bits; its rows have the width of the header.
class StreamMaxPool1d final : public LayerOf<0x1002, ChunkLayer>, public MaxPool1dParameters {
 public:
  StreamMaxPool1d(int input_dim_arg, int output_dim_arg)
      : LayerOf(input_dim_arg, output_dim_arg), window(input_dim_arg) {}
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void Reserve(int64_t frames) override { window.Reserve(*this, frames, memory_bytes); }
  void Reset() override;
  FieldList Fields() override { return WindowFields(); }
  bool Validate(Refusal& why) override {
    return ValidateWindow(why) && why.SameWidth(input_dim, output_dim);
  }
  uint64_t ExtraWork(int64_t frames, int in_dim) const override {
    return PoolWork(CalcStreamOutputFrames(frames), in_dim);
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  StreamWindow window;
};

/// ConvTranspose1d over a stream, with the same bits. A call emits the frames that no later input
/// reaches; those that the padding may still cut off at the end are held back too. An input that
/// gives no frame at all is refused at its end.
class StreamConvTranspose1d final : public LayerOf<0x1001, ChunkLayer>,
                                    public ConvTranspose1dParameters {
 public:
  StreamConvTranspose1d(int input_dim_arg, int output_dim_arg)
      : LayerOf(input_dim_arg, output_dim_arg), cache(input_dim_arg) {}
  /// The untrimmed length for in_frames rows.
  int64_t CalcOutputFrames(int64_t in_frames) const override;
  int64_t CalcStreamOutputFrames(int64_t in_frames) const override;
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void Reserve(int64_t frames) override { cache.Reserve(cache_len, frames, memory_bytes); }
  void Reset() override;
  FieldList Fields() override { return ConvolutionFields(); }
  bool Validate(Refusal& why) override;
  ParameterList MutableParameters() override { return Arrays(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// How many of the last rows the frames still to be emitted depend on.
  int64_t cache_len = 0;
  /// That many of the last rows; more until the first frame has been emitted.
  RowQueue cache;

 private:
  /// Output frames that are held back while the input goes on.
  int64_t HeldBack() const { return cache_len * stride; }
  /// The output frames of a call: from NextFrame up to EndFrame of the rows then held.
  int64_t NextFrame() const;
  int64_t EndFrame(int64_t rows) const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_STREAM_NNET_CONVOLUTION_H_
