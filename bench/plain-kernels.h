#ifndef BENCH_PLAIN_KERNELS_H_
#define BENCH_PLAIN_KERNELS_H_

// The scalar meaning of vector kernels, branch by branch: what these are tested against to the bit
// and measured by.

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "utils/fast-math.h"

namespace handwriting::tests {

inline float PlainSigmoid(float x) {
  if (x > 0.0F) {
    const float t = fast_math::kExpBias - x * fast_math::kExpScale;
    return t > 0.0F ? 1.0F / (1.0F + fast_math::ExpFromBits(t)) : 1.0F;
  }
  const float t = x * fast_math::kExpScale + fast_math::kExpBias;
  if (!(t < fast_math::kExpLimit)) return std::numeric_limits<float>::quiet_NaN();
  if (t <= 0.0F) return 0.0F;
  const float e = fast_math::ExpFromBits(t);
  return e / (1.0F + e);
}

inline float PlainTanh(float x) {
  if (x > 0.0F) {
    const float t = fast_math::kExpBias - x * fast_math::kExpScale;
    if (!(t > 0.0F)) return 1.0F;
    const float e = fast_math::ExpFromBits(t);
    return 2.0F / (e * e + 1.0F) - 1.0F;
  }
  const float t = x * fast_math::kExpScale + fast_math::kExpBias;
  if (!(t < fast_math::kExpLimit)) return 1.0F;
  if (t <= 0.0F) return -1.0F;
  const float e = fast_math::ExpFromBits(t);
  return 1.0F - 2.0F / (e * e + 1.0F);
}

inline float PlainLog(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  const float m = std::bit_cast<float>((bits & 0x7FFFFF) | 0x3F000000);
  return (((static_cast<float>(bits) * 0x1p-23F - 124.22552F) - 1.4980303F * m) -
          1.72588F / (m + 0.35208872F)) *
         0.6931472F;
}

inline float PlainScaled(float x, float factor) { return factor == 0.0F ? 0.0F : x * factor; }

/// May work in place, as the kernel may.
inline void PlainSoftmax(const float* in, size_t rows, size_t cols, float* out) {
  for (size_t r = 0; r < rows; ++r, in += cols, out += cols) {
    float max = in[0];
    for (size_t c = 1; c < cols; ++c) max = in[c] > max ? in[c] : max;
    float sum = 0.0F;
    for (size_t c = 0; c < cols; ++c) {
      out[c] = fast_math::ExpOrLimits((in[c] - max) * fast_math::kExpScale + fast_math::kExpBias);
      sum += out[c];
    }
    for (size_t c = 0; c < cols; ++c) out[c] = PlainScaled(out[c], 1.0F / sum);
  }
}

inline void PlainLogSoftmax(const float* in, size_t rows, size_t cols, float* out) {
  PlainSoftmax(in, rows, cols, out);
  for (size_t i = 0; i < rows * cols; ++i) out[i] = PlainLog(out[i]);
}

/// One row of n values.
inline void PlainLayerNorm(const float* x, size_t n, const float* gamma, const float* beta,
                           float epsilon, float* y) {
  double sum = 0;
  double squares = 0;
  for (size_t j = 0; j < n; ++j) {
    sum += x[j];
    squares += double{x[j]} * x[j];
  }
  const auto count = static_cast<double>(n);
  const double mean = sum / count;
  const double variance =
      n == 1 ? 0.0 : squares / (count - 1) - count * (mean * mean) / (count - 1);
  const double deviation = std::sqrt(variance < 0 ? 0.0 : variance);
  for (size_t j = 0; j < n; ++j) {
    y[j] = static_cast<float>((x[j] - mean) * gamma[j] / (double{epsilon} + deviation) + beta[j]);
  }
}

}  // namespace handwriting::tests

#endif  // BENCH_PLAIN_KERNELS_H_
