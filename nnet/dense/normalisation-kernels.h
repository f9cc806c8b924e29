#ifndef NNET_DENSE_NORMALISATION_KERNELS_H_
#define NNET_DENSE_NORMALISATION_KERNELS_H_

// Row normalisations. The sums of each row run in element order on every machine; many rows are
// summed side by side. `in` and `out` may be the same array.

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// Mean and unbiased standard deviation of n values from the sum of them and of their squares. The
/// deviation of a single value is 0, and so is one whose square falls below 0 by rounding.
double cal_mean(double sum, size_t n);
double std_deviation(double sum, double sum_of_squares, size_t n);

/// out = (x - mean) * gamma / (epsilon + deviation) + beta, in double precision throughout.
void layer_norm(const float* in, size_t rows, size_t cols, const float* gamma, const float* beta,
                float epsilon, float* out);

/// Scales every row to the root mean square `target_rms`; the factor is at most 2^33.
void rms_norm(const float* in, size_t rows, size_t cols, float target_rms, float* out);

/// out = in * scale + shift over n values, the product rounded before the sum.
void scale_and_shift(const float* in, size_t n, float scale, float shift, float* out);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_NORMALISATION_KERNELS_H_
