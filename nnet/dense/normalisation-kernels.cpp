#include "nnet/dense/normalisation-kernels.h"

#include <algorithm>
#include <cmath>

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

struct Moments {
  double sum = 0.0;
  double sum_of_squares = 0.0;
};

#if HWY_TARGET != HWY_SCALAR

// Moments of as many rows as D has lanes, row r in lane r, so that every sum runs in element order
// and the rows' chains of additions overlap. The squares of floats are exact in double.
template <class D>
void GroupMoments(D d, const float* X, size_t cols, Moments* moments) {
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
    squares_low = hn::Add(squares_low, hn::Mul(low, low));
    squares_high = hn::Add(squares_high, hn::Mul(high, high));
  });
  HWY_ALIGN double sums[hn::MaxLanes(d)];
  HWY_ALIGN double squares[hn::MaxLanes(d)];
  hn::StoreU(sum_low, wide, sums);
  hn::StoreU(sum_high, wide, sums + hn::Lanes(wide));
  hn::StoreU(squares_low, wide, squares);
  hn::StoreU(squares_high, wide, squares + hn::Lanes(wide));
  for (size_t r = 0; r < hn::Lanes(d); ++r) moments[r] = {sums[r], squares[r]};
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
void GroupMoments(hn::CappedTag<float, 1> /*d*/, const float* row, size_t cols, Moments* moments) {
  for (size_t c = 0; c < cols; ++c) {
    const double x = row[c];
    moments->sum += x;
    moments->sum_of_squares += x * x;
  }
}

void GroupSquares(hn::CappedTag<float, 1> /*d*/, const float* row, size_t cols, float* sum) {
  *sum = 0.0F;
  for (size_t c = 0; c < cols; ++c) *sum += row[c] * row[c];
}

// What normalises one row.
struct RowScale {
  double mean;
  double divisor;
};

// Columns [begin, end) of `rows` rows. Gain and offset of a column serve all of them.
template <class D>
void NormSpan(D d, size_t begin, size_t end, const float* in, size_t rows, size_t cols,
              const RowScale* scales, const float* gamma, const float* beta, float* out) {
  const hn::Rebind<float, D> df;
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto gain = hn::PromoteTo(d, hn::LoadU(df, gamma + j));
    const auto offset = hn::PromoteTo(d, hn::LoadU(df, beta + j));
    for (size_t r = 0; r < rows; ++r) {
      const auto x = hn::PromoteTo(d, hn::LoadU(df, in + r * cols + j));
      const auto scaled = hn::Mul(hn::Sub(x, hn::Set(d, scales[r].mean)), gain);
      const auto y = hn::Add(hn::Div(scaled, hn::Set(d, scales[r].divisor)), offset);
      hn::StoreU(hn::DemoteTo(df, y), df, out + r * cols + j);
    }
  }
}

// Two passes over a group of rows that stays in the cache: the moments of all its rows, then the
// normalised values, column by column, so that gain and offset are widened once for the group.
void LayerNormRows(const float* in, size_t rows, size_t cols, const float* gamma, const float* beta,
                   float epsilon, float* out) {
  const hn::ScalableTag<double> dd;
  const size_t whole = cols / hn::Lanes(dd) * hn::Lanes(dd);
  ForEachRowGroup(hn::ScalableTag<float>(), 0, rows, [=](auto d, size_t first) HWY_ATTR {
    const size_t group = hn::Lanes(d);
    const float* x = in + first * cols;
    float* y = out + first * cols;
    Moments moments[hn::MaxLanes(d)];
    RowScale scales[hn::MaxLanes(d)];
    GroupMoments(d, x, cols, moments);
    for (size_t r = 0; r < group; ++r) {
      scales[r] = {cal_mean(moments[r].sum, cols),
                   static_cast<double>(epsilon) +
                       std_deviation(moments[r].sum, moments[r].sum_of_squares, cols)};
    }
    NormSpan(dd, 0, whole, x, group, cols, scales, gamma, beta, y);
    NormSpan(hn::CappedTag<double, 1>(), whole, cols, x, group, cols, scales, gamma, beta, y);
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
