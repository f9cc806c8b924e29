#ifndef NNET_CONVOLUTION_CONV1D_KERNELS_H_
#define NNET_CONVOLUTION_CONV1D_KERNELS_H_

// Convolution and pooling along the frame axis. Every convolution output is one sum, formed from 0
// in a fixed order, one product at a time, with the bias added last. Vectors run across output
// channels and several frames are summed side by side; no sum is ever split.

#include <algorithm>
#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// Output channels that are computed together: `width` of them from `offset` on, of which the first
/// `channels` exist. Wide blocks fill a register of the widest target and several of a narrower
/// one.
struct ChannelBlock {
  size_t offset;
  size_t width;
  size_t channels;
};
inline constexpr size_t kWideBlock = 16;
inline constexpr size_t kNarrowBlock = 8;

/// The block that follows those for the channels before `next`, with next < channels. The last one
/// overlaps the block before it where that keeps it full; both then compute the same values.
constexpr ChannelBlock BlockFrom(size_t next, size_t channels) {
  const size_t left = channels - next;
  if (left >= kWideBlock) return {next, kWideBlock, kWideBlock};
  const size_t width = left > kNarrowBlock && next != 0 ? kWideBlock : kNarrowBlock;
  const size_t offset = channels < width ? 0 : std::min(next, channels - width);
  return {offset, width, std::min(width, channels)};
}

/// Channels of a convolution, and the number of terms of a complete sum.
///
/// Weights in compute order are, for every group and every block of it, a row of `width` weights
/// for each term: the weights that one step of the kernel needs lie side by side, and a block is
/// read from front to back. A depthwise convolution counts as one group whose output channels each
/// read an input channel of their own.
struct ConvolutionShape {
  size_t groups = 0;
  size_t in_per_group = 0;
  size_t out_per_group = 0;
  size_t terms = 0;
  bool depthwise = false;

  /// Floats that the weights of one group, and of all groups, take in compute order. Lanes without
  /// a channel hold zeros.
  size_t GroupWeights() const {
    const size_t tail = out_per_group % kWideBlock;
    const size_t tail_width = tail == 0 ? 0 : tail <= kNarrowBlock ? kNarrowBlock : kWideBlock;
    return (out_per_group - tail + tail_width) * terms;
  }
  size_t Weights() const { return groups * GroupWeights(); }
};

/// One of the two nested loops over the terms of a sum: how far the input value (in floats) and the
/// weight (in rows) move from one term to the next.
struct TermLoop {
  size_t count;
  ptrdiff_t in_step;
  ptrdiff_t weight_step;
};

/// Output frames whose sums have the same terms, so that one pair of loops serves all of them. `in`
/// is where the first term of the first frame finds its first channel, `first_row` the row of its
/// weight. Steps are in floats and may be negative.
struct ConvolutionRun {
  const float* in;
  ptrdiff_t in_frame_step;
  float* out;
  ptrdiff_t out_frame_step;
  size_t frames;
  size_t first_row;
  TermLoop outer;
  TermLoop inner;
};

/// Computes all output channels of a run: each value is a sum that starts from 0 and runs over the
/// terms in loop order, product by product, then the bias; without a bias 0 is added. The same bits
/// on every vector target.
void convolve_run(const ConvolutionShape& shape, const float* weights, const float* bias,
                  const ConvolutionRun& run);

/// Output frames whose windows see the same taps. `in` is where the first frame finds its first
/// one; steps are in floats. Taps that lie before or after those are in the padding and count as 0.
struct PoolRun {
  const float* in;
  ptrdiff_t in_frame_step;
  float* out;
  size_t frames;
  size_t taps;
  ptrdiff_t tap_step;
  bool padding_before;
  bool padding_after;
};

/// The largest value under the window in each of `columns` columns, the lowest finite float without
/// any; a later value replaces an earlier one only when it is strictly greater, so NaNs are passed
/// over.
void max_pool_run(const PoolRun& run, size_t columns);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONVOLUTION_CONV1D_KERNELS_H_
