// The vectorised kernels are compiled once for every vector target and chosen at run time. No
// kernel uses a fused multiply-add and none changes the order of a sum, so each gives the same bits
// on every target as the scalar definitions in utils/fast-math.h.

#include "nnet/base/element-kernels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "utils/fast-math.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/base/element-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/softmax-inl.h"
#include "nnet/base/vector-math-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

// Element-wise functions, for Map and Map2: each gives a vector for a vector, lane by lane.
struct SigmoidOp {
  template <class D, class V>
  V operator()(D d, V x) const {
    return Sigmoid(d, x);
  }
};

struct TanhOp {
  template <class D, class V>
  V operator()(D d, V x) const {
    return Tanh(d, x);
  }
};

struct ReluOp {
  template <class D, class V>
  V operator()(D, V x) const {
    return hn::IfThenElseZero(hn::Gt(x, hn::Zero(D())), x);
  }
};

struct PreluOp {
  float alpha;
  template <class D, class V>
  V operator()(D d, V x) const {
    return hn::IfThenElse(hn::Gt(x, hn::Zero(d)), x, hn::Mul(x, hn::Set(d, alpha)));
  }
};

struct LogOp {
  template <class D, class V>
  V operator()(D d, V x) const {
    return Log(d, x);
  }
};

// Multiplies as scale_vec does: a factor of 0 clears infinities and NaNs too.
struct ScaleOp {
  float factor;
  template <class D, class V>
  V operator()(D d, V x) const {
    return factor == 0.0F ? hn::Zero(d) : hn::Mul(x, hn::Set(d, factor));
  }
};

// The logarithm of x >= 0 scaled by a factor >= 0.
struct ScaledLogOp {
  float factor;
  template <class D, class V>
  V operator()(D d, V x) const {
    return LogOfNonNegative(d, ScaleOp{factor}(d, x));
  }
};

void SigmoidAll(const float* in, size_t n, float* out) { Map(in, n, out, SigmoidOp()); }
void TanhAll(const float* in, size_t n, float* out) { Map(in, n, out, TanhOp()); }
void ReluAll(const float* in, size_t n, float* out) { Map(in, n, out, ReluOp()); }
void LogAll(const float* in, size_t n, float* out) { Map(in, n, out, LogOp()); }
void PreluAll(const float* in, size_t n, float* out, float alpha) {
  Map(in, n, out, PreluOp{alpha});
}

struct AddScaledOp {
  float scale;
  template <class D, class V>
  V operator()(D d, V x, V v) const {
    return hn::Add(hn::Mul(v, hn::Set(d, scale)), x);
  }
};

struct MulScaledOp {
  float scale;
  template <class D, class V>
  V operator()(D d, V x, V v) const {
    return hn::Mul(hn::Mul(x, hn::Set(d, scale)), v);
  }
};

void AddToRows(float* X, size_t rows, size_t cols, const float* v, float scale) {
  for (size_t r = 0; r < rows; ++r, X += cols) Map2(X, v, cols, X, AddScaledOp{scale});
}

void MulToRows(float* X, size_t rows, size_t cols, const float* v, float scale) {
  for (size_t r = 0; r < rows; ++r, X += cols) Map2(X, v, cols, X, MulScaledOp{scale});
}

// The largest value does not depend on the order of the scan but for the sign of a zero, which is
// looked up at the end.
float MaxOf(const float* v, size_t n) {
  const hn::ScalableTag<float> d;
  HWY_ALIGN float kept[hn::MaxLanes(d)];
  hn::Store(MaxByLanes(d, v, n), d, kept);
  float max = kept[0];
  for (const float x : kept) max = x > max ? x : max;
  return max == 0.0F ? *std::find(v, v + n, 0.0F) : max;
}

void Softmax(const float* in, size_t rows, size_t cols, float* out) {
  SoftmaxRows<ScaleOp>(in, rows, cols, out);
}

void LogSoftmax(const float* in, size_t rows, size_t cols, float* out) {
  SoftmaxRows<ScaledLogOp>(in, rows, cols, out);
}

const char* TargetName() { return hwy::TargetName(HWY_TARGET); }

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(SigmoidAll);
HWY_EXPORT(TanhAll);
HWY_EXPORT(ReluAll);
HWY_EXPORT(PreluAll);
HWY_EXPORT(LogAll);
HWY_EXPORT(AddToRows);
HWY_EXPORT(MulToRows);
HWY_EXPORT(MaxOf);
HWY_EXPORT(Softmax);
HWY_EXPORT(LogSoftmax);
HWY_EXPORT(TargetName);

const char* vector_target_name() { return HWY_DYNAMIC_DISPATCH(TargetName)(); }

void add_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale) {
  HWY_DYNAMIC_DISPATCH(AddToRows)(X, rows, cols, v, scale);
}

void mul_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale) {
  HWY_DYNAMIC_DISPATCH(MulToRows)(X, rows, cols, v, scale);
}

void fast_sigmoid(const float* in, size_t rows, size_t cols, float* out) {
  HWY_DYNAMIC_DISPATCH(SigmoidAll)(in, rows * cols, out);
}

void fast_tanh(const float* in, size_t rows, size_t cols, float* out) {
  HWY_DYNAMIC_DISPATCH(TanhAll)(in, rows * cols, out);
}

void relu(const float* in, size_t rows, size_t cols, float* out) {
  HWY_DYNAMIC_DISPATCH(ReluAll)(in, rows * cols, out);
}

void prelu(const float* in, size_t rows, size_t cols, float* out, float alpha) {
  HWY_DYNAMIC_DISPATCH(PreluAll)(in, rows * cols, out, alpha);
}

void fast_log(const float* in, size_t rows, size_t cols, float* out) {
  HWY_DYNAMIC_DISPATCH(LogAll)(in, rows * cols, out);
}

void fast_softmax(const float* in, size_t rows, size_t cols, float* out) {
  if (rows != 0 && cols != 0) HWY_DYNAMIC_DISPATCH(Softmax)(in, rows, cols, out);
}

void fast_log_softmax(const float* in, size_t rows, size_t cols, float* out) {
  if (rows != 0 && cols != 0) HWY_DYNAMIC_DISPATCH(LogSoftmax)(in, rows, cols, out);
}

float max_of(const float* v, size_t n) { return HWY_DYNAMIC_DISPATCH(MaxOf)(v, n); }

void zero_vec(float* x, size_t n) { std::fill_n(x, n, 0.0F); }

void pow_in_place(float* x, size_t n, float p) {
  if (p == 1.0F) return;
  const std::span<float> values(x, n);
  if (p == 2.0F) {
    for (float& value : values) value *= value;
  } else if (p == 0.5F) {
    for (float& value : values) {
      if (value < 0.0F) return;
      value = std::sqrt(value);
    }
  } else {
    for (float& value : values) value = std::pow(value, p);
  }
}

void copy_columns(const float* src, size_t rows, size_t src_cols, float* dst, size_t dst_rows,
                  size_t dst_cols, size_t src_col, size_t dst_col, size_t n) {
  const auto fits = [n](size_t first, size_t cols) { return n <= cols && first <= cols - n; };
  if (rows != dst_rows || n < 1 || !fits(src_col, src_cols) || !fits(dst_col, dst_cols)) return;
  for (size_t r = 0; r < rows; ++r) {
    std::copy_n(src + r * src_cols + src_col, n, dst + r * dst_cols + dst_col);
  }
}

void sum_strided_rows(float* X, size_t rows, size_t cols, size_t step, size_t span) {
  if (step < 1 || span < step || rows < 1 || rows <= span - step) return;
  const size_t last = rows - (span - step);
  for (size_t r = 0; r < last; ++r) {
    for (size_t offset = step; offset < span; offset += step) {
      add_vec_to_rows(X + r * cols, 1, cols, X + (r + offset) * cols, 1.0F);
    }
  }
}

// In tiles, so that neither the rows read nor the rows written leave the cache between two uses of
// a cache line.
void transpose(const float* src, float* dst, size_t rows, size_t cols) {
  constexpr size_t kTile = 16;
  for (size_t r0 = 0; r0 < rows; r0 += kTile) {
    const size_t r1 = std::min(rows, r0 + kTile);
    for (size_t c0 = 0; c0 < cols; c0 += kTile) {
      const size_t c1 = std::min(cols, c0 + kTile);
      for (size_t c = c0; c < c1; ++c) {
        for (size_t r = r0; r < r1; ++r) dst[c * rows + r] = src[r * cols + c];
      }
    }
  }
}

void transpose_in_place(float* X, size_t rows, size_t cols) {
  const std::vector<float> copy(X, X + rows * cols);
  transpose(copy.data(), X, rows, cols);
}

void split_heads(float* X, size_t rows, size_t cols, size_t head_dim) {
  const std::vector<float> copy(X, X + rows * cols);
  for (size_t column = 0; column + head_dim <= cols; column += head_dim) {
    for (size_t r = 0; r < rows; ++r, X += head_dim) {
      std::copy_n(copy.data() + r * cols + column, head_dim, X);
    }
  }
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
