#include "nnet/fsmn-kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/fsmn-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Frames that share one load of each weight; their chains of additions run side by side.
constexpr size_t kTile = 4;

// kFrames frames from `in` on, columns [begin, end) in steps of the tag's lanes.
template <size_t kFrames, class D>
void Columns(D d, const FsmnTaps& shape, size_t begin, size_t end, const float* in, float* memory,
             float* out) {
  const size_t dim = shape.dim;
  const float* current = in + shape.left * shape.stride * dim;
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    static_assert(kFrames == 1 || kFrames == kTile);
    auto sum0 = hn::Zero(d);
    auto sum1 = sum0;
    auto sum2 = sum0;
    auto sum3 = sum0;
    const float* weight = shape.filter + j;
    const float* row = in + j;
    for (size_t k = 0; k < shape.taps; ++k) {
      const auto w = hn::LoadU(d, weight);
      sum0 = hn::Add(sum0, hn::Mul(w, hn::LoadU(d, row)));
      if constexpr (kFrames == kTile) {
        sum1 = hn::Add(sum1, hn::Mul(w, hn::LoadU(d, row + dim)));
        sum2 = hn::Add(sum2, hn::Mul(w, hn::LoadU(d, row + 2 * dim)));
        sum3 = hn::Add(sum3, hn::Mul(w, hn::LoadU(d, row + 3 * dim)));
      }
      weight += dim;
      row += shape.stride * dim;
    }
    const auto store = [&](size_t i, auto sum) HWY_ATTR {
      const size_t at = i * dim + j;
      hn::StoreU(sum, d, memory + at);
      hn::StoreU(hn::Add(sum, hn::LoadU(d, current + at)), d, out + at);
    };
    store(0, sum0);
    if constexpr (kFrames == kTile) {
      store(1, sum1);
      store(2, sum2);
      store(3, sum3);
    }
  }
}

template <size_t kFrames>
void Rows(const FsmnTaps& shape, const float* in, float* memory, float* out) {
  const hn::ScalableTag<float> d;
  const size_t whole = shape.dim / hn::Lanes(d) * hn::Lanes(d);
  Columns<kFrames>(d, shape, 0, whole, in, memory, out);
  Columns<kFrames>(hn::CappedTag<float, 1>(), shape, whole, shape.dim, in, memory, out);
}

void Frames(const FsmnTaps& shape, const float* in, size_t frames, float* memory, float* out) {
  size_t i = 0;
  for (; i + kTile <= frames; i += kTile) {
    const size_t at = i * shape.dim;
    Rows<kTile>(shape, in + at, memory + at, out + at);
  }
  for (; i < frames; ++i) {
    const size_t at = i * shape.dim;
    Rows<1>(shape, in + at, memory + at, out + at);
  }
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
