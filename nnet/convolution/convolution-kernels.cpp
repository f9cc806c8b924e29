#include "nnet/convolution/convolution-kernels.h"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/convolution/convolution-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Never more lanes than a plane's grain.
using PlaneTag = hn::CappedTag<float, kPlaneGrain>;
using PlaneVec = hn::Vec<PlaneTag>;
constexpr size_t kLanes = hn::MaxLanes(PlaneTag());

// Output channels that share the input values they load. A tile is one vector of positions in so
// many output planes: every input vector is loaded once for all of them, and their sums stay in
// registers over all input channels.
constexpr size_t kChannels = 4;

// Calls tile(first channel) with the number of channels as a constant.
template <class Tile>
HWY_INLINE void ForChannelTiles(size_t channels, const Tile& tile) {
  size_t o = 0;
  for (; o + kChannels <= channels; o += kChannels) tile.template Run<kChannels>(o);
  for (; o < channels; ++o) tile.template Run<1>(o);
}

// One vector of positions, from `position` on, of `kCount` output channels from `o` on.
struct ConvolutionTile {
  const PlaneConvolution& shape;
  const float* a;
  const float* b;
  const float* c;
  float* out;
  size_t position;

  template <size_t kCount>
  HWY_INLINE void Run(size_t o) const {
    const PlaneTag d;
    PlaneVec sums[kCount];
#pragma GCC unroll 4
    for (size_t k = 0; k < kCount; ++k) sums[k] = hn::Set(d, shape.bias[o + k]);
    const size_t room = PlaneRoom(shape.positions);
    const float* weights = shape.kernel + o * shape.in_channels * 3;
    for (size_t i = 0; i < shape.in_channels; ++i, weights += 3) {
      const size_t at = i * room + position;
      const PlaneVec first = hn::LoadU(d, a + at);
      const PlaneVec second = hn::LoadU(d, b + at);
      const PlaneVec third = hn::LoadU(d, c + at);
#pragma GCC unroll 4
      for (size_t k = 0; k < kCount; ++k) {
        const float* w = weights + k * shape.in_channels * 3;
        PlaneVec term = hn::Mul(first, hn::Set(d, w[0]));
        term = hn::Add(term, hn::Mul(second, hn::Set(d, w[1])));
        term = hn::Add(term, hn::Mul(third, hn::Set(d, w[2])));
        sums[k] = hn::Add(sums[k], term);
      }
    }
    const size_t left = std::min(kLanes, shape.positions - position);
#pragma GCC unroll 4
    for (size_t k = 0; k < kCount; ++k) {
      float* to = out + (o + k) * shape.positions + position;
      if (left == kLanes) {
        hn::StoreU(sums[k], d, to);
      } else {
        HWY_ALIGN float values[kLanes];
        hn::Store(sums[k], d, values);
        std::copy_n(values, left, to);
      }
    }
  }
};

// The same with two sums a position, which are stored interleaved. The last addition is selected
// and not multiplied by 0: the value from the other row may be an infinity or a NaN, and adding +0
// would change a sum of -0.
struct DeconvolutionTile {
  const PlaneConvolution& shape;
  const float* x;
  const float* y;
  const float* has_next;
  float* out;
  size_t position;

  template <size_t kCount>
  HWY_INLINE void Run(size_t o) const {
    const PlaneTag d;
    PlaneVec evens[kCount];
    PlaneVec odds[kCount];
#pragma GCC unroll 4
    for (size_t k = 0; k < kCount; ++k) evens[k] = odds[k] = hn::Set(d, shape.bias[o + k]);
    const size_t room = PlaneRoom(shape.positions);
    const auto next_exists = hn::Ne(hn::LoadU(d, has_next + position), hn::Zero(d));
    const float* weights = shape.kernel + o * shape.in_channels * 3;
    for (size_t i = 0; i < shape.in_channels; ++i, weights += 3) {
      const size_t at = i * room + position;
      const PlaneVec here = hn::LoadU(d, x + at);
      const PlaneVec next = hn::LoadU(d, y + at);
#pragma GCC unroll 4
      for (size_t k = 0; k < kCount; ++k) {
        const float* w = weights + k * shape.in_channels * 3;
        evens[k] = hn::Add(evens[k], hn::Mul(here, hn::Set(d, w[1])));
        const PlaneVec sum = hn::Add(odds[k], hn::Mul(here, hn::Set(d, w[2])));
        const PlaneVec both = hn::Add(sum, hn::Mul(next, hn::Set(d, w[0])));
        odds[k] = hn::IfThenElse(next_exists, both, sum);
      }
    }
    const size_t left = std::min(kLanes, shape.positions - position);
#pragma GCC unroll 4
    for (size_t k = 0; k < kCount; ++k) {
      float* to = out + 2 * ((o + k) * shape.positions + position);
      if (left == kLanes) {
        hn::StoreInterleaved2(evens[k], odds[k], d, to);
      } else {
        HWY_ALIGN float values[2 * kLanes];
        hn::StoreInterleaved2(evens[k], odds[k], d, values);
        std::copy_n(values, 2 * left, to);
      }
    }
  }
};

void ConvolvePlanes(const PlaneConvolution& shape, const float* a, const float* b, const float* c,
                    float* out) {
  for (size_t position = 0; position < shape.positions; position += kLanes) {
    ForChannelTiles(shape.out_channels, ConvolutionTile{shape, a, b, c, out, position});
  }
}

void DeconvolvePlanes(const PlaneConvolution& shape, const float* x, const float* y,
                      const float* has_next, float* out) {
  for (size_t position = 0; position < shape.positions; position += kLanes) {
    ForChannelTiles(shape.out_channels, DeconvolutionTile{shape, x, y, has_next, out, position});
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(ConvolvePlanes);
HWY_EXPORT(DeconvolvePlanes);

void convolve_planes(const PlaneConvolution& shape, const float* a, const float* b, const float* c,
                     float* out) {
  HWY_DYNAMIC_DISPATCH(ConvolvePlanes)(shape, a, b, c, out);
}

void deconvolve_planes(const PlaneConvolution& shape, const float* x, const float* y,
                       const float* has_next, float* out) {
  HWY_DYNAMIC_DISPATCH(DeconvolvePlanes)(shape, x, y, has_next, out);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
