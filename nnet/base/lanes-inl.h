// Parts of vectors in memory, at the ends of rows. Included after hwy/highway.h, once per target.

#if defined(NNET_BASE_LANES_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef NNET_BASE_LANES_INL_H_
#undef NNET_BASE_LANES_INL_H_
#else
#define NNET_BASE_LANES_INL_H_
#endif

#include <algorithm>
#include <cstddef>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

/// The first `count` lanes of a vector, fewer than all; the others are zeros. Reads nothing beyond
/// them. Targets before AVX2 have no masked access to memory.
template <class D>
HWY_INLINE hn::Vec<D> LoadPart(D d, const float* from, size_t count) {
  if constexpr (HWY_TARGET <= HWY_AVX2) return hn::MaskedLoad(hn::FirstN(d, count), d, from);
  HWY_ALIGN float values[hn::MaxLanes(D())] = {};
  std::copy_n(from, count, values);
  return hn::Load(d, values);
}

/// Stores the first `count` lanes, fewer than all, and nothing beyond them.
template <class D>
HWY_INLINE void StorePart(D d, hn::Vec<D> v, float* to, size_t count) {
  if constexpr (HWY_TARGET <= HWY_AVX2) {
    hn::BlendedStore(v, hn::FirstN(d, count), d, to);
  } else {
    HWY_ALIGN float values[hn::MaxLanes(D())];
    hn::Store(v, d, values);
    std::copy_n(values, count, to);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#endif  // include guard per target
