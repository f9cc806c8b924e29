// Softmax of the rows of a matrix, each finished by an element-wise function of its own. Included
// after hwy/highway.h, once per target.

#if defined(NNET_SOFTMAX_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef NNET_SOFTMAX_INL_H_
#undef NNET_SOFTMAX_INL_H_
#else
#define NNET_SOFTMAX_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <limits>

#include "nnet/base/lanes-inl.h"
#include "nnet/base/row-columns-inl.h"
#include "nnet/base/vector-math-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

/// The first n values at p, and behind them -infinity, which beats nothing and whose exponential is
/// 0.
template <class D>
HWY_INLINE hn::Vec<D> LoadPadded(D d, const float* p, size_t n) {
  const auto lowest = hn::Set(d, -std::numeric_limits<float>::infinity());
  return hn::IfThenElse(hn::FirstN(d, n), LoadPart(d, p, n), lowest);
}

/// The largest of n >= 1 values is the largest of the lanes. Each lane keeps what a forward scan
/// over some of the values, beginning with v[0], would keep; so a NaN at the front stays in all of
/// them and later ones are passed over.
template <class D>
HWY_INLINE hn::Vec<D> MaxByLanes(D d, const float* v, size_t n) {
  constexpr size_t kChains = 4;
  const size_t lanes = hn::Lanes(d);
  const auto larger = [](auto x, auto best)
                          HWY_ATTR { return hn::IfThenElse(hn::Gt(x, best), x, best); };
  auto best = hn::Set(d, v[0]);
  size_t i = 0;
  if (n >= 2 * kChains * lanes) {
    auto best1 = best;
    auto best2 = best;
    auto best3 = best;
    for (; i + kChains * lanes <= n; i += kChains * lanes) {
      best = larger(hn::LoadU(d, v + i), best);
      best1 = larger(hn::LoadU(d, v + i + lanes), best1);
      best2 = larger(hn::LoadU(d, v + i + 2 * lanes), best2);
      best3 = larger(hn::LoadU(d, v + i + 3 * lanes), best3);
    }
    best = larger(larger(best3, best2), larger(best1, best));
  }
  for (; i + lanes <= n; i += lanes) best = larger(hn::LoadU(d, v + i), best);
  return i == n ? best : larger(LoadPadded(d, v + i, n - i), best);
}

/// Finishes a row of exponentials. The last vector of them, whole or not, waits in `last`: an
/// incomplete vector that has just been written is slow to read.
template <class FinishOp>
void FinishRow(const FinishOp& finish, float* row, size_t cols, const float* last) {
  const hn::ScalableTag<float> d;
  const size_t whole = (cols - 1) / hn::Lanes(d) * hn::Lanes(d);
  Map(row, whole, row, finish);
  const auto y = finish(d, hn::Load(d, last));
  if (cols - whole == hn::Lanes(d)) {
    hn::StoreU(y, d, row + whole);
  } else {
    StorePart(d, y, row + whole, cols - whole);
  }
}

/// A single row: the additions of its sum run in the shadow of the next exponentials.
template <class FinishOp>
void SoftmaxRow(const float* in, size_t cols, float* out) {
  const hn::ScalableTag<float> d;
  const size_t lanes = hn::Lanes(d);
  const auto max = hn::MaxOfLanes(d, MaxByLanes(d, in, cols));
  float sum = 0.0F;
  size_t c = 0;
  for (; c + lanes < cols; c += lanes) {
    hn::StoreU(ExpOfDifference(d, hn::Sub(hn::LoadU(d, in + c), max)), d, out + c);
    for (size_t i = 0; i < lanes; ++i) sum += out[c + i];
  }
  HWY_ALIGN float last[hn::MaxLanes(d)];
  hn::Store(ExpOfDifference(d, hn::Sub(LoadPadded(d, in + c, cols - c), max)), d, last);
  for (size_t i = 0; i < cols - c; ++i) sum += last[i];
  FinishRow(FinishOp{1.0F / sum}, out, cols, last);
}

/// Softmax of a group of rows, as many as a vector has lanes or fewer. The sum of a row is defined
/// in element order, so that it is the same on every target: one chain of additions, which vectors
/// along the row would split. Hence exponentials are computed along the rows, and squares of as
/// many columns as rows are turned in registers for the sums: lane r of a column belongs to row r,
/// and an addition of vectors advances the sums of all rows.
template <class FinishOp>
class SoftmaxGroup {
 public:
  // The columns of the last square, which need not all exist, stay in `square_` between the passes.
  void Run(const float* in, size_t rows, size_t cols, float* out) {
    const size_t whole = (cols - 1) / kLanes * kLanes;
    const size_t last = cols - whole;
    FindMaxima(in, rows, cols);
    V sums = hn::Zero(kTag);
    for (size_t c = 0; c < whole; c += kLanes) {
      const auto exponential = [&](size_t r) HWY_ATTR {
        const V e = Exponential(r, hn::LoadU(kTag, in + r * cols + c));
        hn::StoreU(e, kTag, out + r * cols + c);
        return e;
      };
      sums =
          rows == kLanes ? AddWholeSquare(sums, exponential) : AddSquare(sums, rows, exponential);
    }
    const auto last_exponential = [&](size_t r) HWY_ATTR {
      return Exponential(r, LoadPadded(kTag, in + r * cols + whole, last));
    };
    sums = AddSquare(sums, rows, last_exponential);
    HWY_ALIGN float factors[kLanes];
    hn::Store(hn::Div(hn::Set(kTag, 1.0F), sums), kTag, factors);
    for (size_t r = 0; r < rows; ++r) {
      FinishRow(FinishOp{factors[r]}, out + r * cols, cols, square_ + r * kLanes);
    }
  }

 private:
  using D = hn::ScalableTag<float>;
  using V = hn::Vec<D>;
  static constexpr D kTag = {};
  static constexpr size_t kLanes = hn::MaxLanes(D());

  void FindMaxima(const float* in, size_t rows, size_t cols) {
    for (size_t r = 0; r < rows; ++r) {
      hn::Store(MaxByLanes(kTag, in + r * cols, cols), kTag, square_ + r * kLanes);
    }
    V columns[kLanes];
    LoadColumns(columns);
    V max = columns[0];
    for (const V& x : columns) max = hn::IfThenElse(hn::Gt(x, max), x, max);
    hn::Store(max, kTag, maxima_);
  }

  HWY_INLINE V Exponential(size_t r, V x) const {
    return ExpOfDifference(kTag, hn::Sub(x, hn::Set(kTag, maxima_[r])));
  }

  // Adds the columns of exponential(r) for all rows r to the sums. The whole square never leaves
  // the registers.
  template <class Function>
  HWY_INLINE V AddWholeSquare(V sums, const Function& exponential) const {
    V square[kLanes];
#pragma GCC unroll 16
    for (size_t r = 0; r < kLanes; ++r) square[r] = exponential(r);
    TransposeSquare(kTag, square);
#pragma GCC unroll 16
    for (size_t c = 0; c < kLanes; ++c) sums = hn::Add(sums, square[c]);
    return sums;
  }

  template <class Function>
  HWY_INLINE V AddSquare(V sums, size_t rows, const Function& exponential) {
    for (size_t r = 0; r < rows; ++r) hn::Store(exponential(r), kTag, square_ + r * kLanes);
    V columns[kLanes];
    LoadColumns(columns);
#pragma GCC unroll 16
    for (size_t c = 0; c < kLanes; ++c) sums = hn::Add(sums, columns[c]);
    return sums;
  }

  HWY_INLINE void LoadColumns(V (&columns)[kLanes]) const {
#pragma GCC unroll 16
    for (size_t r = 0; r < kLanes; ++r) columns[r] = hn::Load(kTag, square_ + r * kLanes);
    TransposeSquare(kTag, columns);
  }

  HWY_ALIGN float maxima_[kLanes] = {};
  HWY_ALIGN float square_[kLanes * kLanes] = {};  // zeros in the rows that do not exist
};

/// FinishOp{1 / sum}(exponential) for every value, with e^(x - maximum) of the row as exponential
/// and their sum over the row. `in` and `out` may be the same array.
template <class FinishOp>
void SoftmaxRows(const float* in, size_t rows, size_t cols, float* out) {
  constexpr size_t kGroup = hn::MaxLanes(hn::ScalableTag<float>());
  for (size_t first = 0; first < rows; first += kGroup, in += kGroup * cols, out += kGroup * cols) {
    if (rows - first > 1) {
      SoftmaxGroup<FinishOp>().Run(in, std::min(kGroup, rows - first), cols, out);
    } else {
      SoftmaxRow<FinishOp>(in, cols, out);
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#endif  // include guard per target
