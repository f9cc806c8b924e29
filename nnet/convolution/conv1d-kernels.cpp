#include "nnet/convolution/conv1d-kernels.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/convolution/conv1d-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// A sum must not be split, and each of its additions waits for the one before. So a tile of sums is
// formed side by side in registers: several frames of one block of channels. The frames share every
// vector of weights that is loaded, the channels every input value. Twelve chains hide the latency
// of the additions, and with the weights and an input value beside them they fit the sixteen
// registers of AVX2.
constexpr size_t kChains = 12;
// A depthwise sum is short and every product loads an input of its own: fewer chains do.
constexpr size_t kDepthwiseChains = 6;
// The longest depthwise sum whose weights stay in registers, beside the bias and the sum.
constexpr size_t kMostTaps = 9;
// Blocks that are computed side by side where a run has a single frame, which alone has too few
// chains.
constexpr size_t kBlocksOfOneFrame = 4;

// Where a tile starts: its first frame in a block, or in blocks that lie block_stride apart in the
// weights.
struct TilePlace {
  const float* in;
  const float* weights;
  const float* bias;
  float* out;
  size_t block_stride;
};

template <size_t kWidth>
using BlockTag = hn::CappedTag<float, kWidth>;

template <size_t kWidth>
constexpr size_t VectorsOf() {
  return kWidth / hn::MaxLanes(BlockTag<kWidth>());
}

// The sums of kFrames frames x kBlocks blocks. In a depthwise convolution every channel reads an
// input value of its own, otherwise all channels share one. The loops over frames and vectors must
// be unrolled for the sums to stay in registers.
template <size_t kWidth, size_t kBlocks, bool kDepthwise, size_t kFrames>
void Tile(const ConvolutionRun& run, const TilePlace& at) {
  const BlockTag<kWidth> d;
  using V = hn::Vec<BlockTag<kWidth>>;
  constexpr size_t kLanes = hn::MaxLanes(d);
  constexpr size_t kPerBlock = VectorsOf<kWidth>();
  constexpr size_t kVectors = kBlocks * kPerBlock;
  constexpr ptrdiff_t kRow = kWidth;
  // Copies, since the stores below could otherwise change what the references show.
  const TermLoop loop_outer = run.outer;
  const TermLoop loop_inner = run.inner;
  const ptrdiff_t in_frame_step = run.in_frame_step;
  const ptrdiff_t out_frame_step = run.out_frame_step;
  const float* bias = at.bias;
  float* out = at.out;

  V sums[kFrames][kVectors];
#pragma GCC unroll 12
  for (size_t f = 0; f < kFrames; ++f) {
#pragma GCC unroll 16
    for (size_t v = 0; v < kVectors; ++v) sums[f][v] = hn::Zero(d);
  }
  const float* outer_in = at.in;
  const float* outer_weights = at.weights;
  for (size_t outer = loop_outer.count; outer != 0; --outer) {
    const float* x = outer_in;
    const float* w = outer_weights;
    for (size_t inner = loop_inner.count; inner != 0; --inner) {
      V weights[kVectors];
#pragma GCC unroll 16
      for (size_t v = 0; v < kVectors; ++v) {
        weights[v] = hn::LoadU(d, w + v / kPerBlock * at.block_stride + v % kPerBlock * kLanes);
      }
#pragma GCC unroll 12
      for (size_t f = 0; f < kFrames; ++f) {
        const float* value = x + static_cast<ptrdiff_t>(f) * in_frame_step;
#pragma GCC unroll 16
        for (size_t v = 0; v < kVectors; ++v) {
          const V input = kDepthwise ? hn::LoadU(d, value + v * kLanes) : hn::Set(d, *value);
          sums[f][v] = hn::Add(sums[f][v], hn::Mul(input, weights[v]));
        }
      }
      x += loop_inner.in_step;
      w += loop_inner.weight_step * kRow;
    }
    outer_in += loop_outer.in_step;
    outer_weights += loop_outer.weight_step * kRow;
  }
#pragma GCC unroll 12
  for (size_t f = 0; f < kFrames; ++f, out += out_frame_step) {
#pragma GCC unroll 16
    for (size_t v = 0; v < kVectors; ++v) {
      hn::StoreU(hn::Add(sums[f][v], hn::LoadU(d, bias + v * kLanes)), d, out + v * kLanes);
    }
  }
}

using TileFunction = void (*)(const ConvolutionRun&, const TilePlace&);

// The tile functions of one block by their number of frames, from 1 on: the number of sums in
// registers must be a constant.
template <size_t kWidth, bool kDepthwise, size_t... kLess>
constexpr std::array<TileFunction, sizeof...(kLess)> TilesOf(std::index_sequence<kLess...>) {
  return {&Tile<kWidth, 1, kDepthwise, kLess + 1>...};
}

// All frames of a depthwise run of so few taps that their weights stay in registers. The sums of
// the frames do not depend on each other, and the processor overlaps as many as it can. A sum
// starts with its first product: that differs from one that starts from 0 in the sign of a zero at
// most, and adding a bias that is not -0 removes the difference.
//
// Where each frame's taps are those of the frame before moved on by one, they stay in registers
// too, in a ring that one value enters a frame; after as many frames as taps it is where it was.
template <size_t kWidth, size_t kTaps>
void DepthwiseFrames(const ConvolutionRun& run, const TilePlace& at) {
  const BlockTag<kWidth> d;
  using V = hn::Vec<BlockTag<kWidth>>;
  const ptrdiff_t in_frame_step = run.in_frame_step;
  const ptrdiff_t out_frame_step = run.out_frame_step;
  const ptrdiff_t tap_step = run.inner.in_step;
  const ptrdiff_t row_step = run.inner.weight_step * static_cast<ptrdiff_t>(kWidth);
  for (size_t c = 0; c < kWidth; c += hn::MaxLanes(d)) {
    const float* in = at.in + c;
    float* out = at.out + c;
    const V bias = hn::Add(hn::LoadU(d, at.bias + c), hn::Zero(d));
    V weights[kTaps];
#pragma GCC unroll 16
    for (size_t tap = 0; tap < kTaps; ++tap) {
      weights[tap] = hn::LoadU(d, at.weights + c + static_cast<ptrdiff_t>(tap) * row_step);
    }
    const auto value = [&](size_t tap) HWY_ATTR {
      return hn::LoadU(d, in + static_cast<ptrdiff_t>(tap) * tap_step);
    };
    const auto compute_frame = [&](const V& first, const auto& value_of) HWY_ATTR {
      V sum = hn::Mul(first, weights[0]);
#pragma GCC unroll 16
      for (size_t tap = 1; tap < kTaps; ++tap) {
        sum = hn::Add(sum, hn::Mul(value_of(tap), weights[tap]));
      }
      hn::StoreU(hn::Add(sum, bias), d, out);
      in += in_frame_step;
      out += out_frame_step;
    };

    size_t left = run.frames;
    if (in_frame_step == tap_step && left >= kTaps) {
      V ring[kTaps];
#pragma GCC unroll 16
      for (size_t tap = 0; tap + 1 < kTaps; ++tap) ring[tap] = value(tap);
      for (; left >= kTaps; left -= kTaps) {
#pragma GCC unroll 16
        for (size_t f = 0; f < kTaps; ++f) {
          ring[(f + kTaps - 1) % kTaps] = value(kTaps - 1);
          compute_frame(ring[f], [&](size_t tap) HWY_ATTR { return ring[(f + tap) % kTaps]; });
        }
      }
    }
    for (; left != 0; --left) compute_frame(value(0), value);
  }
}

// The functions above by their number of taps, from 1 on.
template <size_t kWidth, size_t... kLess>
constexpr std::array<TileFunction, sizeof...(kLess)> DepthwiseOf(std::index_sequence<kLess...>) {
  return {&DepthwiseFrames<kWidth, kLess + 1>...};
}

// The frames of a run in tiles of about the same size, so that no small one is left over.
template <size_t kWidth, bool kDepthwise>
void RunBlock(const ConvolutionRun& run, TilePlace at) {
  constexpr size_t kMost =
      std::max<size_t>(1, (kDepthwise ? kDepthwiseChains : kChains) / VectorsOf<kWidth>());
  static constexpr auto kTiles = TilesOf<kWidth, kDepthwise>(std::make_index_sequence<kMost>());
  if constexpr (kDepthwise) {
    static constexpr auto kByTaps = DepthwiseOf<kWidth>(std::make_index_sequence<kMostTaps>());
    const size_t taps = run.inner.count;
    if (run.outer.count == 1 && taps - 1 < kMostTaps) return kByTaps[taps - 1](run, at);
  }
  size_t left = run.frames;
  for (size_t tiles = (run.frames + kMost - 1) / kMost; tiles != 0; --tiles) {
    const size_t frames = (left + tiles - 1) / tiles;
    kTiles[frames - 1](run, at);
    at.in += static_cast<ptrdiff_t>(frames) * run.in_frame_step;
    at.out += static_cast<ptrdiff_t>(frames) * run.out_frame_step;
    left -= frames;
  }
}

// A block of which not all channels exist, at the end of a row, where a whole vector would be
// stored beyond the row: the sums go through a buffer, a few frames at a time.
void RunPartialBlock(const ConvolutionRun& run, TilePlace at, size_t channels) {
  constexpr size_t kFrames = 4 * kChains;
  HWY_ALIGN float rows[kFrames * kNarrowBlock];
  HWY_ALIGN float bias[kNarrowBlock] = {};
  std::copy_n(at.bias, channels, bias);
  ConvolutionRun part = run;
  part.out_frame_step = kNarrowBlock;
  float* out = at.out;
  at.bias = bias;
  at.out = rows;
  for (size_t left = run.frames; left != 0; left -= part.frames) {
    part.frames = std::min(left, kFrames);
    RunBlock<kNarrowBlock, false>(part, at);
    for (size_t f = 0; f < part.frames; ++f, out += run.out_frame_step) {
      std::copy_n(rows + f * kNarrowBlock, channels, out);
    }
    at.in += static_cast<ptrdiff_t>(part.frames) * run.in_frame_step;
  }
}

// A sum that starts from 0 is never -0, so that adding 0 changes no bit of it.
constexpr float kNoBias[kBlocksOfOneFrame * kWideBlock] = {};

// One group, block by block. `room` is the number of channels that an output row has from the
// group's first one on. A block of which not all channels exist may store into the groups after it
// while there is room, since those are computed later.
template <bool kDepthwise>
void RunGroup(const ConvolutionShape& shape, const ConvolutionRun& run, const TilePlace& group,
              size_t room) {
  const size_t channels = shape.out_per_group;
  const float* weights = group.weights;
  for (size_t next = 0; next < channels;) {
    const ChannelBlock block = BlockFrom(next, channels);
    // The input is null where all taps lie in the padding of an input without frames.
    const size_t channel = kDepthwise && group.in != nullptr ? block.offset : 0;
    const TilePlace at = {group.in + channel, weights + run.first_row * block.width,
                          group.bias != nullptr ? group.bias + block.offset : kNoBias,
                          group.out + block.offset, shape.terms * kWideBlock};
    size_t width = block.width;
    if (run.frames == 1 && channels - next >= kBlocksOfOneFrame * kWideBlock) {
      width = kBlocksOfOneFrame * kWideBlock;
      Tile<kWideBlock, kBlocksOfOneFrame, kDepthwise, 1>(run, at);
    } else if (block.width == kWideBlock) {
      RunBlock<kWideBlock, kDepthwise>(run, at);
    } else if (block.offset + kNarrowBlock <= room) {
      RunBlock<kNarrowBlock, kDepthwise>(run, at);
    } else {
      RunPartialBlock(run, at, block.channels);
    }
    weights += width * shape.terms;
    next = block.offset + width;
  }
}

// Group by group, since the groups share neither input nor weights. Each sum of a run has the same
// terms, so group and block are the outermost loops and a block's weights stay in the cache for all
// frames.
void Convolve(const ConvolutionShape& shape, const float* weights, const float* bias,
              const ConvolutionRun& run) {
  TilePlace group = {run.in, weights, bias, run.out, 0};
  if (shape.depthwise) return RunGroup<true>(shape, run, group, shape.out_per_group);
  const size_t group_weights = shape.GroupWeights();
  for (size_t g = 0; g < shape.groups; ++g) {
    RunGroup<false>(shape, run, group, (shape.groups - g) * shape.out_per_group);
    if (group.in != nullptr) group.in += shape.in_per_group;
    group.weights += group_weights;
    group.out += shape.out_per_group;
    if (bias != nullptr) group.bias += shape.out_per_group;
  }
}

// Columns [begin, end) of one output frame in steps of the tag's lanes. Where taps lie in the
// padding one comparison with 0 serves all of them.
template <class D>
void PoolColumns(D d, size_t begin, size_t end, const PoolRun& run, const float* in, float* out) {
  const auto zero = hn::Zero(d);
  for (size_t c = begin; c < end; c += hn::Lanes(d)) {
    auto best = hn::Set(d, std::numeric_limits<float>::lowest());
    if (run.padding_before) best = hn::IfThenElse(hn::Gt(zero, best), zero, best);
    const float* value = in + c;
    for (size_t tap = 0; tap < run.taps; ++tap, value += run.tap_step) {
      const auto x = hn::LoadU(d, value);
      best = hn::IfThenElse(hn::Gt(x, best), x, best);
    }
    if (run.padding_after) best = hn::IfThenElse(hn::Gt(zero, best), zero, best);
    hn::StoreU(best, d, out + c);
  }
}

void MaxPool(const PoolRun& run, size_t columns) {
  const hn::ScalableTag<float> d;
  const size_t whole = columns / hn::Lanes(d) * hn::Lanes(d);
  const float* in = run.in;
  float* out = run.out;
  for (size_t f = 0; f < run.frames; ++f, in += run.in_frame_step, out += columns) {
    PoolColumns(d, 0, whole, run, in, out);
    PoolColumns(hn::CappedTag<float, 1>(), whole, columns, run, in, out);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(Convolve);
HWY_EXPORT(MaxPool);

void convolve_run(const ConvolutionShape& shape, const float* weights, const float* bias,
                  const ConvolutionRun& run) {
  HWY_DYNAMIC_DISPATCH(Convolve)(shape, weights, bias, run);
}

void max_pool_run(const PoolRun& run, size_t columns) {
  HWY_DYNAMIC_DISPATCH(MaxPool)(run, columns);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
