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

/// The first `count` lanes of a vector; the others are zeros. Reads nothing beyond them. Targets
/// before AVX2 have no masked access to memory.
template <class D>
HWY_INLINE hn::Vec<D> LoadPart(D d, const float* from, size_t count) {
  if constexpr (HWY_TARGET <= HWY_AVX2) return hn::MaskedLoad(hn::FirstN(d, count), d, from);
  HWY_ALIGN float values[hn::MaxLanes(D())] = {};
  std::copy_n(from, count, values);
  return hn::Load(d, values);
}

/// Stores the first `count` lanes, fewer than all, and nothing beyond them. Before AVX-512 by
/// halves, halves of halves and so on: masked stores of older targets take longer, where there are
/// any.
template <class D>
HWY_INLINE void StorePart([[maybe_unused]] D d, [[maybe_unused]] hn::Vec<D> v,
                          [[maybe_unused]] float* to, [[maybe_unused]] size_t count) {
#if HWY_TARGET <= HWY_AVX3
  hn::BlendedStore(v, hn::FirstN(d, count), d, to);
#elif HWY_TARGET != HWY_SCALAR
  if constexpr (hn::MaxLanes(D()) > 1) {
    const hn::Half<D> half;
    auto rest = hn::LowerHalf(half, v);
    if ((count & hn::Lanes(half)) != 0) {
      hn::StoreU(rest, half, to);
      to += hn::Lanes(half);
      rest = hn::UpperHalf(half, v);
    }
    StorePart(half, rest, to, count);
  }
#endif
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#endif  // include guard per target
