#ifndef TESTS_SUPPORT_CONV1D_SAMPLE_H_
#define TESTS_SUPPORT_CONV1D_SAMPLE_H_

// Windows over the frames of an input: the blocks of the layers that have one, and the convolution
// by its definition.

#include "tests/support/model-builder.h"

namespace handwriting::tests {

struct Shape {
  int in_dim, out_dim, kernel;
  int stride = 1, left = 0, right = 0, dilation = 1, groups = 1;
  bool bias = true;
  int output_padding = 0;
};

/// The kernel in the order of the file: output channel, input channel of the group, tap; in a
/// transposed convolution the input channel comes first.
struct Weights {
  Floats kernel, bias;
};

inline Weights RandomWeights(const Shape& s, uint32_t seed) {
  const int count = s.in_dim * s.out_dim / s.groups * s.kernel;
  return {Random(static_cast<size_t>(count), seed),
          Random(s.bias ? static_cast<size_t>(s.out_dim) : 0, seed + 1)};
}

inline Bytes ConvBlock(const Shape& s, const Weights& weights) {
  return Bytes()
      .Ints({s.kernel, s.stride, s.left, s.right, s.dilation, s.groups, s.bias})
      .Floats(weights.kernel)
      .Floats(weights.bias);
}
inline Bytes TransposedBlock(const Shape& s, const Weights& weights) {
  const int padding = s.output_padding;
  return Bytes()
      .Ints({s.kernel, s.stride, s.left, s.right, padding, s.dilation, s.groups, s.bias})
      .Floats(weights.kernel)
      .Floats(weights.bias);
}
inline Bytes PoolBlock(const Shape& s) {
  return Bytes().Ints({s.kernel, s.stride, s.left, s.right, s.dilation});
}

/// Windows that fit in so many frames and the padding around them.
inline int ConvFrames(const Shape& s, int n) {
  int frames = 0;
  const int span = (s.kernel - 1) * s.dilation + 1;
  for (int start = -s.left; start + span <= n + s.right; start += s.stride) ++frames;
  return frames;
}

/// Which terms of a sum come one after the other: the channels of a tap, or the taps of a channel.
enum class Order { kTapsFirst, kChannelsFirst };

inline Floats PlainConv(const Shape& s, const Weights& weights, const Floats& in, int n,
                        Order order = Order::kTapsFirst) {
  const int in_group = s.in_dim / s.groups;
  const int out_group = s.out_dim / s.groups;
  Floats out;
  for (int t = 0; t < ConvFrames(s, n); ++t) {
    for (int o = 0; o < s.out_dim; ++o) {
      float sum = 0.0F;
      for (int term = 0; term < s.kernel * in_group; ++term) {
        const bool taps_first = order == Order::kTapsFirst;
        const int j = taps_first ? term / in_group : term % s.kernel;
        const int c = taps_first ? term % in_group : term / s.kernel;
        const int frame = t * s.stride - s.left + j * s.dilation;
        if (frame < 0 || frame >= n) continue;
        const float w = weights.kernel[static_cast<size_t>((o * in_group + c) * s.kernel + j)];
        sum += w * in[static_cast<size_t>(frame * s.in_dim + o / out_group * in_group + c)];
      }
      if (s.bias) sum += weights.bias[static_cast<size_t>(o)];
      out.push_back(sum);
    }
  }
  return out;
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_CONV1D_SAMPLE_H_
