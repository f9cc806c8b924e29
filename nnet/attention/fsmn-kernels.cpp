#include "nnet/attention/fsmn-kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/attention/fsmn-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// kFrames frames from `in` on, columns [begin, end) in steps of kVectors vectors. A sum runs in tap
// order and each of its additions waits for the one before, so a tile of frames and columns is
// summed side by side in registers, and its frames share every vector of weights that is loaded.
// The memory is stored for the blocks that depend on it, the output in the same pass.
template <size_t kFrames, size_t kVectors, class D>
void Columns(D d, const FsmnTaps& shape, size_t begin, size_t end, const float* in, float* memory,
             float* out) {
  using V = hn::Vec<D>;
  constexpr size_t kLanes = hn::MaxLanes(D());
  const size_t dim = shape.dim;
  const size_t taps = shape.taps;
  const size_t tap_step = shape.stride * dim;
  const float* current = in + shape.left * tap_step;
  for (size_t j = begin; j < end; j += kVectors * kLanes) {
    V sums[kFrames][kVectors];
#pragma GCC unroll 8
    for (size_t f = 0; f < kFrames; ++f) {
#pragma GCC unroll 2
      for (size_t v = 0; v < kVectors; ++v) sums[f][v] = hn::Zero(d);
    }
    const float* weight = shape.filter + j;
    const float* rows = in + j;
    for (size_t k = 0; k < taps; ++k, weight += dim, rows += tap_step) {
#pragma GCC unroll 2
      for (size_t v = 0; v < kVectors; ++v) {
        const V w = hn::LoadU(d, weight + v * kLanes);
#pragma GCC unroll 8
        for (size_t f = 0; f < kFrames; ++f) {
          const V x = hn::LoadU(d, rows + f * dim + v * kLanes);
          sums[f][v] = hn::Add(sums[f][v], hn::Mul(w, x));
        }
      }
    }
#pragma GCC unroll 8
    for (size_t f = 0; f < kFrames; ++f) {
#pragma GCC unroll 2
      for (size_t v = 0; v < kVectors; ++v) {
        const size_t at = f * dim + j + v * kLanes;
        hn::StoreU(sums[f][v], d, memory + at);
        hn::StoreU(hn::Add(sums[f][v], hn::LoadU(d, current + at)), d, out + at);
      }
    }
  }
}

// All columns of kFrames frames. Pairs of vectors first, which give twelve chains with six frames,
// then single vectors, then single values.
template <size_t kFrames>
void Rows(const FsmnTaps& shape, const float* in, float* memory, float* out) {
  const hn::ScalableTag<float> d;
  const size_t pairs = shape.dim / (2 * hn::Lanes(d)) * (2 * hn::Lanes(d));
  const size_t whole = shape.dim / hn::Lanes(d) * hn::Lanes(d);
  Columns<kFrames, 2>(d, shape, 0, pairs, in, memory, out);
  Columns<kFrames, 1>(d, shape, pairs, whole, in, memory, out);
  Columns<kFrames, 1>(hn::CappedTag<float, 1>(), shape, whole, shape.dim, in, memory, out);
}

// Runs as many tiles of kFrames as there are frames for, from frame i on; returns the frame after.
template <size_t kFrames>
size_t Tiles(const FsmnTaps& shape, const float* in, size_t i, size_t frames, float* memory,
             float* out) {
  for (; i + kFrames <= frames; i += kFrames) {
    const size_t at = i * shape.dim;
    Rows<kFrames>(shape, in + at, memory + at, out + at);
  }
  return i;
}

// Tiles of six frames fill the registers; smaller ones take the frames that are left.
void Frames(const FsmnTaps& shape, const float* in, size_t frames, float* memory, float* out) {
  size_t i = Tiles<6>(shape, in, 0, frames, memory, out);
  i = Tiles<2>(shape, in, i, frames, memory, out);
  Tiles<1>(shape, in, i, frames, memory, out);
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(Frames);

void fsmn_frames(const FsmnTaps& shape, const float* in, size_t frames, float* memory, float* out) {
  HWY_DYNAMIC_DISPATCH(Frames)(shape, in, frames, memory, out);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
