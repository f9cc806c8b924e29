#include "nnet/dense/normalisation-kernels.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/dense/normalisation-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/row-columns-inl.h"
#include "nnet/base/vector-math-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

// A product and a sum rounded once: the rest of a division is exact with it.
constexpr bool kHasFusedMulAdd = HWY_TARGET <= HWY_AVX2;

// What normalises the rows of a group, a value a row. 1 / divisor is reciprocal + reciprocal_rest.
template <size_t kRows>
struct RowScales {
  HWY_ALIGN double mean[kRows];
  HWY_ALIGN double divisor[kRows];
  HWY_ALIGN double reciprocal[kRows];
  HWY_ALIGN double reciprocal_rest[kRows];
};

// The scales of as many rows as D has lanes, from row `first` of the group on, by the formulas of
// cal_mean and std_deviation. Returns whether all divisors are of a size that suits Quotient.
template <class D, size_t kRows>
HWY_INLINE bool SetScales(D d, hn::Vec<D> sum, hn::Vec<D> squares, size_t cols, float epsilon,
                          RowScales<kRows>& scales, size_t first) {
  using V = hn::Vec<D>;
  const V zero = hn::Zero(d);
  const V one = hn::Set(d, 1.0);
  const V count = hn::Set(d, static_cast<double>(cols));
  const V mean = hn::Div(sum, count);
  V deviation = zero;
  if (cols > 1) {
    const V less = hn::Sub(count, one);
    const V variance =
        hn::Sub(hn::Div(squares, less), hn::Div(hn::Mul(count, hn::Mul(mean, mean)), less));
    deviation = hn::IfThenElse(hn::Lt(variance, zero), zero, hn::Sqrt(variance));
  }
  const V divisor = hn::Add(hn::Set(d, static_cast<double>(epsilon)), deviation);
  hn::StoreU(mean, d, scales.mean + first);
  hn::StoreU(divisor, d, scales.divisor + first);
  if constexpr (kHasFusedMulAdd) {
    const V reciprocal = hn::Div(one, divisor);
    const V rest = hn::Mul(hn::NegMulAdd(reciprocal, divisor, one), reciprocal);
    hn::StoreU(reciprocal, d, scales.reciprocal + first);
    hn::StoreU(rest, d, scales.reciprocal_rest + first);
  }
  return hn::AllTrue(
      d, hn::And(hn::Gt(divisor, hn::Set(d, 0x1p-200)), hn::Lt(divisor, hn::Set(d, 0x1p200))));
}

#if HWY_TARGET != HWY_SCALAR

// The scales of as many rows as D has lanes. Row r is lane r of the sums, so that every sum runs in
// element order and the rows' chains of additions overlap. The squares of floats are exact in
// double, so that fusing them with the additions changes no bit.
template <class D, size_t kRows>
bool ScaleGroup(D d, const float* X, size_t cols, float epsilon, RowScales<kRows>& scales) {
  const hn::Half<D> half;
  const hn::Rebind<double, hn::Half<D>> wide;
  auto sum_low = hn::Zero(wide);
  auto sum_high = hn::Zero(wide);
  auto squares_low = hn::Zero(wide);
  auto squares_high = hn::Zero(wide);
  ForEachColumn(d, X, cols, cols, [&](auto column) HWY_ATTR {
    const auto low = hn::PromoteTo(wide, hn::LowerHalf(half, column));
    const auto high = hn::PromoteTo(wide, hn::UpperHalf(half, column));
    sum_low = hn::Add(sum_low, low);
    sum_high = hn::Add(sum_high, high);
    squares_low = hn::MulAdd(low, low, squares_low);
    squares_high = hn::MulAdd(high, high, squares_high);
  });
  const bool low = SetScales(wide, sum_low, squares_low, cols, epsilon, scales, 0);
  return SetScales(wide, sum_high, squares_high, cols, epsilon, scales, kRows / 2) && low;
}

// Sums of squares of as many rows as D has lanes, likewise.
template <class D>
void GroupSquares(D d, const float* X, size_t cols, float* sums) {
  auto sum = hn::Zero(d);
  ForEachColumn(d, X, cols, cols,
                [&](auto column) HWY_ATTR { sum = hn::Add(sum, hn::Mul(column, column)); });
  hn::StoreU(sum, d, sums);
}

#endif

// Single rows at the end of a block: the same sums, one value at a time.
bool ScaleGroup(hn::CappedTag<float, 1> /*d*/, const float* row, size_t cols, float epsilon,
                RowScales<1>& scale) {
  double sum = 0.0;
  double squares = 0.0;
  for (size_t c = 0; c < cols; ++c) {
    const double x = row[c];
    sum += x;
    squares += x * x;
  }
  const hn::CappedTag<double, 1> d;
  return SetScales(d, hn::Set(d, sum), hn::Set(d, squares), cols, epsilon, scale, 0);
}

void GroupSquares(hn::CappedTag<float, 1> /*d*/, const float* row, size_t cols, float* sum) {
  *sum = 0.0F;
  for (size_t c = 0; c < cols; ++c) *sum += row[c] * row[c];
}

// x / divisor with the bits of the division, in four steps that overlap better than divisions do:
// the product with the reciprocal in two parts, then one correction (Markstein 1990).
//
// With b the divisor scaled to [1, 2), an ulp that of x / b, and the reciprocal 1 / b + e:
// - |e| <= 2^-54. Before it is rounded q is off by less than h = 1.25 * 2^-52 ulp, so that
//   |x / b - q| <= 1/2 + h.
// - The rest x - q b is a double. q + rest * reciprocal = x / b + rest * e is off by less than
//   b (1/2 + h) 2^-54 ulp before it is rounded.
// - x / b is at least 2^-53 / b ulp away from every middle between two doubles, being a quotient of
//   integers of 53 bits. That is more where b b (1 + 2 h) < 4: the sum rounds as the quotient does.
// - It is not more for the last two b. Those have smaller errors: |e| < 2^-104 for 2 - 2^-51; for
//   2 - 2^-52, whose reciprocal has a power of two for its second part, h is 2^-53.
//
// Nothing overflows or loses bits to underflow for divisors that SetScales lets pass and x that is
// 0 or of a size in [2^-400, 2^400]. A zero may lose its sign.
template <class V>
HWY_INLINE V Quotient(V x, V divisor, V reciprocal, V reciprocal_rest) {
  const V q = hn::MulAdd(x, reciprocal, hn::Mul(x, reciprocal_rest));
  return hn::MulAdd(hn::NegMulAdd(q, divisor, x), reciprocal, q);
}

// Rounds to float, beyond its range to infinity, where the library's conversion of single values
// gives the largest float.
template <class DF, class V>
HWY_INLINE hn::Vec<DF> RoundToFloat(DF df, V y) {
#if HWY_TARGET == HWY_SCALAR
  return hn::Set(df, static_cast<float>(hn::GetLane(y)));
#else
  return hn::DemoteTo(df, y);
#endif
}

struct NormParameters {
  const float* gamma;
  const float* beta;
};

// Whether every scaled difference from a mean may be divided by Quotient. A difference of finite
// values is 0 or at least 2^-235, for values and sums are multiples of 2^-149, and a mean is a sum
// over fewer than 2^32 columns, rounded; a finite gain takes it to 2^-384 or more. Adding an offset
// that is not -0 hides the sign of a zero.
bool SuitQuotient(const NormParameters& parameters, size_t cols) {
  uint32_t unsuited = 0;
  for (size_t c = 0; c < cols; ++c) {
    const auto gain = std::bit_cast<uint32_t>(parameters.gamma[c]);
    const auto offset = std::bit_cast<uint32_t>(parameters.beta[c]);
    unsuited |= (gain & 0x7FFFFFFF) >= 0x7F800000 ? 1U : 0U;
    unsuited |= offset == 0x80000000 ? 1U : 0U;
  }
  return unsuited == 0;
}

// Rows that are normalised side by side, so many that their scales fit the registers.
constexpr size_t kNormRows = HWY_TARGET == HWY_AVX2 ? 2 : 4;

// Columns from j on of kCount rows, from row `first` of a group on. Gain and offset of a column
// serve all of them. Columns that do not fill a vector run through the same code in smaller ones.
template <size_t kCount, bool kByReciprocals, class D, size_t kRows>
HWY_INLINE void NormColumns(D d, size_t j, const float* in, size_t cols, size_t first,
                            const RowScales<kRows>& scales, const NormParameters& parameters,
                            float* out) {
  using V = hn::Vec<D>;
  const hn::Rebind<float, D> df;
  V mean[kCount];
  V divisor[kCount];
  V reciprocal[kCount];
  V rest[kCount];
#pragma GCC unroll 4
  for (size_t r = 0; r < kCount; ++r) {
    mean[r] = hn::Set(d, scales.mean[first + r]);
    divisor[r] = hn::Set(d, scales.divisor[first + r]);
    if constexpr (kByReciprocals) {
      reciprocal[r] = hn::Set(d, scales.reciprocal[first + r]);
      rest[r] = hn::Set(d, scales.reciprocal_rest[first + r]);
    }
  }
  for (; j + hn::Lanes(d) <= cols; j += hn::Lanes(d)) {
    const V gain = hn::PromoteTo(d, hn::LoadU(df, parameters.gamma + j));
    const V offset = hn::PromoteTo(d, hn::LoadU(df, parameters.beta + j));
#pragma GCC unroll 4
    for (size_t r = 0; r < kCount; ++r) {
      const size_t at = (first + r) * cols + j;
      const V x = hn::PromoteTo(d, hn::LoadU(df, in + at));
      V y = hn::Mul(hn::Sub(x, mean[r]), gain);
      if constexpr (kByReciprocals) {
        y = Quotient(y, divisor[r], reciprocal[r], rest[r]);
      } else {
        y = hn::Div(y, divisor[r]);
      }
      hn::StoreU(RoundToFloat(df, hn::Add(y, offset)), df, out + at);
    }
  }
  if constexpr (hn::MaxLanes(D()) > 1) {
    if (j == cols) return;
    NormColumns<kCount, kByReciprocals>(hn::Half<D>(), j, in, cols, first, scales, parameters, out);
  }
}

template <bool kByReciprocals, size_t kRows>
HWY_INLINE void NormGroup(const float* in, size_t cols, const RowScales<kRows>& scales,
                          const NormParameters& parameters, float* out) {
  constexpr size_t kCount = std::min(kRows, kNormRows);
  for (size_t r = 0; r < kRows; r += kCount) {
    NormColumns<kCount, kByReciprocals>(hn::ScalableTag<double>(), 0, in, cols, r, scales,
                                        parameters, out);
  }
}

// Two passes over a group of rows that stays in the cache: the moments of all its rows, then the
// normalised values. Single rows are divided: their sums, one chain of additions, take most of the
// time.
void LayerNormRows(const float* in, size_t rows, size_t cols, const float* gamma, const float* beta,
                   float epsilon, float* out) {
  const NormParameters parameters = {gamma, beta};
  const bool suited = kHasFusedMulAdd && rows > 1 && SuitQuotient(parameters, cols);
  ForEachRowGroup(hn::ScalableTag<float>(), 0, rows, [&](auto d, size_t first) HWY_ATTR {
    constexpr size_t kRows = hn::MaxLanes(d);
    const float* x = in + first * cols;
    float* y = out + first * cols;
    RowScales<kRows> scales = {};
    const bool divisors_suit = ScaleGroup(d, x, cols, epsilon, scales);
    if (kHasFusedMulAdd && kRows > 1 && suited && divisors_suit) {
      NormGroup<kHasFusedMulAdd && (kRows > 1)>(x, cols, scales, parameters, y);
    } else {
      NormGroup<false>(x, cols, scales, parameters, y);
    }
  });
}

struct MulOp {
  float factor;
  template <class D, class V>
  V operator()(D d, V x) const {
    return hn::Mul(x, hn::Set(d, factor));
  }
};

// The factor of a row of almost nothing but zeros is limited to that of a mean square of 2^-66.
float RmsFactor(float mean_square) {
  return mean_square >= 0x1p-66F ? 1.0F / std::sqrt(mean_square) : 0x1p33F;
}

void RmsNormRows(const float* in, size_t rows, size_t cols, float target_rms, float* out) {
  const float wanted = target_rms * target_rms * static_cast<float>(cols);
  ForEachRowGroup(hn::ScalableTag<float>(), 0, rows, [=](auto d, size_t first) HWY_ATTR {
    float sums[hn::MaxLanes(d)];
    GroupSquares(d, in + first * cols, cols, sums);
    for (size_t r = 0; r < hn::Lanes(d); ++r) {
      const size_t start = (first + r) * cols;
      Map(in + start, cols, out + start, MulOp{RmsFactor(sums[r] / wanted)});
    }
  });
}

struct MulAddOp {
  float scale;
  float shift;
  template <class D, class V>
  V operator()(D d, V x) const {
    return hn::Add(hn::Mul(x, hn::Set(d, scale)), hn::Set(d, shift));
  }
};

void ScaleAndShift(const float* in, size_t n, float scale, float shift, float* out) {
  Map(in, n, out, MulAddOp{scale, shift});
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(LayerNormRows);
HWY_EXPORT(RmsNormRows);
HWY_EXPORT(ScaleAndShift);

double cal_mean(double sum, size_t n) { return sum / static_cast<double>(n); }

double std_deviation(double sum, double sum_of_squares, size_t n) {
  if (n < 2) return 0.0;
  const auto count = static_cast<double>(n);
  const double mean = cal_mean(sum, n);
  const double variance = sum_of_squares / (count - 1.0) - count * (mean * mean) / (count - 1.0);
  return variance < 0.0 ? 0.0 : std::sqrt(variance);
}

void layer_norm(const float* in, size_t rows, size_t cols, const float* gamma, const float* beta,
                float epsilon, float* out) {
  HWY_DYNAMIC_DISPATCH(LayerNormRows)(in, rows, cols, gamma, beta, epsilon, out);
}

void rms_norm(const float* in, size_t rows, size_t cols, float target_rms, float* out) {
  HWY_DYNAMIC_DISPATCH(RmsNormRows)(in, rows, cols, target_rms, out);
}

void scale_and_shift(const float* in, size_t n, float scale, float shift, float* out) {
  HWY_DYNAMIC_DISPATCH(ScaleAndShift)(in, n, scale, shift, out);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
