// Vector forms of the definitions in utils/fast-math.h, for the kernel files that are compiled once
// for every vector target. Included after hwy/highway.h, once per target.

#if defined(NNET_VECTOR_MATH_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef NNET_VECTOR_MATH_INL_H_
#undef NNET_VECTOR_MATH_INL_H_
#else
#define NNET_VECTOR_MATH_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "nnet/base/lanes-inl.h"
#include "utils/fast-math.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

/// How a kernel reaches a whole vector of an array.
template <class D>
struct WholeVector {
  D d;
  HWY_INLINE hn::Vec<D> Load(const float* p) const { return hn::LoadU(d, p); }
  HWY_INLINE void Store(hn::Vec<D> v, float* p) const { hn::StoreU(v, d, p); }
};

/// How it reaches the tail of an array: 0 < n < lanes values. The arithmetic is that of whole
/// vectors, so that a value gives the same bits wherever it is.
template <class D>
struct FirstLanes {
  D d;
  size_t n;
  HWY_INLINE hn::Vec<D> Load(const float* p) const { return LoadPart(d, p, n); }
  HWY_INLINE void Store(hn::Vec<D> v, float* p) const { StorePart(d, v, p, n); }
};

/// Calls body(access, i) for every vector of n values, i being its first value and `access` the way
/// to it in any array of n values: WholeVector, at the end FirstLanes where a tail is left.
template <class Body>
HWY_INLINE void ForEachVector(size_t n, const Body& body) {
  using D = hn::ScalableTag<float>;
  const size_t lanes = hn::Lanes(D());
  size_t i = 0;
  for (; i + lanes <= n; i += lanes) body(WholeVector<D>(), i);
  if (i < n) body(FirstLanes<D>{D(), n - i}, i);
}

/// out[i] = op(in[i]) for n values; `in` and `out` may be the same array. Two vectors a step, so
/// that one's chain of operations runs in the shadow of the other's.
template <class Op>
HWY_INLINE void Map(const float* in, size_t n, float* out, const Op& op) {
  const hn::ScalableTag<float> d;
  const size_t lanes = hn::Lanes(d);
  size_t i = 0;
  for (; i + 2 * lanes <= n; i += 2 * lanes) {
    const auto y0 = op(d, hn::LoadU(d, in + i));
    const auto y1 = op(d, hn::LoadU(d, in + i + lanes));
    hn::StoreU(y0, d, out + i);
    hn::StoreU(y1, d, out + i + lanes);
  }
  ForEachVector(n - i, [&](auto access, size_t j)
                           HWY_ATTR { access.Store(op(d, access.Load(in + i + j)), out + i + j); });
}

/// out[i] = op(a[i], b[i]), likewise; `out` may be `a` or `b`.
template <class Op>
HWY_INLINE void Map2(const float* a, const float* b, size_t n, float* out, const Op& op) {
  ForEachVector(n, [&](auto access, size_t i) HWY_ATTR {
    access.Store(op(access.d, access.Load(a + i), access.Load(b + i)), out + i);
  });
}

/// Truncates values of integer range; any integer elsewhere, where the general conversion takes a
/// few instructions more to saturate.
#if HWY_TARGET <= HWY_AVX3
HWY_INLINE hn::Vec<hn::CappedTag<int32_t, 16>> Truncate(hn::CappedTag<int32_t, 16> /*di*/,
                                                        hn::Vec<hn::CappedTag<float, 16>> t) {
  return hn::Vec<hn::CappedTag<int32_t, 16>>{_mm512_cvttps_epi32(t.raw)};
}
#endif
#if HWY_TARGET <= HWY_AVX2
HWY_INLINE hn::Vec<hn::CappedTag<int32_t, 8>> Truncate(hn::CappedTag<int32_t, 8> /*di*/,
                                                       hn::Vec<hn::CappedTag<float, 8>> t) {
  return hn::Vec<hn::CappedTag<int32_t, 8>>{_mm256_cvttps_epi32(t.raw)};
}
#endif
template <class DI, class V>
HWY_INLINE hn::Vec<DI> Truncate(DI di, V t) {
  return hn::ConvertTo(di, t);
}

/// fast_math::ExpFromBits for 0 <= t <= kExpLimit, with 0 and +infinity at the ends; any value
/// elsewhere.
template <class D, class V>
HWY_INLINE V ExpFromBits(D d, V t) {
  const hn::RebindToSigned<D> di;
  const auto bits = Truncate(di, t);
  const auto mantissa = hn::And(bits, hn::Set(di, static_cast<int32_t>(fast_math::kMantissaMask)));
  const V m =
      hn::BitCast(d, hn::Or(mantissa, hn::Set(di, static_cast<int32_t>(fast_math::kOneBits))));
  const V power =
      hn::BitCast(d, hn::And(bits, hn::Set(di, static_cast<int32_t>(fast_math::kExponentMask))));
  V p = hn::Sub(hn::Mul(hn::Set(d, fast_math::kExpA4), m), hn::Set(d, fast_math::kExpA3));
  p = hn::Add(hn::Mul(p, m), hn::Set(d, fast_math::kExpA2));
  p = hn::Add(hn::Mul(p, m), hn::Set(d, fast_math::kExpA1));
  p = hn::Add(hn::Mul(p, m), hn::Set(d, fast_math::kExpA0));
  return hn::Mul(p, power);
}

/// e^-|x|, or 0 once it underflows or x is NaN. This one exponential e serves both branches of the
/// sigmoid, 1 / (1 + e) and e / (1 + e), and of tanh; their scalar definitions use different signs
/// of x, but -(|x| c) + B and B - |x| c round alike.
template <class D, class V>
HWY_INLINE V ExpOfMinusAbs(D d, V x) {
  const V t = hn::Sub(hn::Set(d, fast_math::kExpBias),
                      hn::Mul(hn::Abs(x), hn::Set(d, fast_math::kExpScale)));
  return hn::IfThenElseZero(hn::Gt(t, hn::Zero(d)), ExpFromBits(d, t));
}

/// 1 / (1 + e^-x) for x > 0, e^x / (1 + e^x) otherwise: the exponential never overflows. NaN stays
/// NaN.
template <class D, class V>
HWY_INLINE V Sigmoid(D d, V x) {
  const V one = hn::Set(d, 1.0F);
  const V e = ExpOfMinusAbs(d, x);
  const V y = hn::Div(hn::IfThenElse(hn::Gt(x, hn::Zero(d)), one, e), hn::Add(one, e));
  return hn::IfThenElse(hn::Eq(x, x), y, hn::Set(d, std::numeric_limits<float>::quiet_NaN()));
}

/// 2 / (1 + e^-2|x|) - 1 with the sign of x, the square of e^-|x| being e^-2|x|. NaN gives 1.
template <class D, class V>
HWY_INLINE V Tanh(D d, V x) {
  const V one = hn::Set(d, 1.0F);
  const V two = hn::Set(d, 2.0F);
  const V e = ExpOfMinusAbs(d, x);
  const V q = hn::Div(two, hn::Add(hn::Mul(e, e), one));
  const V y = hn::IfThenElse(hn::Gt(x, hn::Zero(d)), hn::Sub(q, one), hn::Sub(one, q));
  return hn::IfThenElse(hn::Eq(x, x), y, one);
}

/// fast_math::ExpOrLimits of x * kExpScale + kExpBias: e^x for every x, +infinity for NaN.
template <class D, class V>
HWY_INLINE V ExpOfDifference(D d, V x) {
  const V t =
      hn::Add(hn::Mul(x, hn::Set(d, fast_math::kExpScale)), hn::Set(d, fast_math::kExpBias));
  // Of a NaN and a number Min gives its second argument.
  return ExpFromBits(d, hn::Max(hn::Min(t, hn::Set(d, fast_math::kExpLimit)), hn::Zero(d)));
}

/// fast_math::FastLog of x, with the bits of x as an unsigned integer converted to `number`.
template <class D, class V>
HWY_INLINE V LogOfBits(D d, V x, V number) {
  const hn::RebindToUnsigned<D> du;
  const auto mantissa = hn::And(hn::BitCast(du, x), hn::Set(du, fast_math::kMantissaMask));
  const V m = hn::BitCast(d, hn::Or(mantissa, hn::Set(du, fast_math::kHalfBits)));
  V y = hn::Sub(hn::Mul(number, hn::Set(d, fast_math::kLogScale)), hn::Set(d, fast_math::kLogBias));
  y = hn::Sub(y, hn::Mul(hn::Set(d, fast_math::kLogB1), m));
  y = hn::Sub(y, hn::Div(hn::Set(d, fast_math::kLogB2), hn::Add(m, hn::Set(d, fast_math::kLogB3))));
  return hn::Mul(y, hn::Set(d, fast_math::kLogLn2));
}

/// fast_math::FastLog. Not every target converts unsigned integers: the bits are converted in two
/// halves, each exactly, so that their sum is rounded once, as the scalar conversion is.
template <class D, class V>
HWY_INLINE V Log(D d, V x) {
  const hn::RebindToUnsigned<D> du;
  const hn::RebindToSigned<D> di;
  const auto bits = hn::BitCast(du, x);
  const V high = hn::ConvertTo(d, hn::BitCast(di, hn::ShiftRight<16>(bits)));
  const V low = hn::ConvertTo(d, hn::BitCast(di, hn::And(bits, hn::Set(du, 0xFFFF))));
  return LogOfBits(d, x, hn::Add(hn::Mul(high, hn::Set(d, 65536.0F)), low));
}

/// The same where the sign bit of x is clear, which leaves the conversion a single step.
template <class D, class V>
HWY_INLINE V LogOfNonNegative(D d, V x) {
  return LogOfBits(d, x, hn::ConvertTo(d, hn::BitCast(hn::RebindToSigned<D>(), x)));
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#endif  // include guard per target
