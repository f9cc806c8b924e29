#ifndef NNET_DENSE_NORMALISATION_KERNELS_H_
#define NNET_DENSE_NORMALISATION_KERNELS_H_

// Row normalisations. The sums of each row run in element order on every machine; many rows are
// summed side by side. Matrices are rows x cols, row-major; `in` and `out` may be the same array.
// The results are the same bits on every vector target.

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// Mean and unbiased standard deviation of n values from the sum of them and of their squares. The
/// deviation of a single value is 0, and so is one whose square falls below 0 by rounding.
double cal_mean(double sum, size_t n);
double std_deviation(double sum, double sum_of_squares, size_t n);

/// Layer normalisation (Ba et al. 2016) with the unbiased deviation, and epsilon added to that and
/// not to the variance: for each row, with gamma and beta of cols values,
///   out = (x - mean) * gamma / (epsilon + deviation) + beta.
/// In double precision throughout; only the result is rounded to float.
void layer_norm(const float* in, size_t rows, size_t cols, const float* gamma, const float* beta,
                float epsilon, float* out);

/// Scales every row to the root mean square `target_rms`: out = x / sqrt(Σx² / (cols target_rms²)).
/// The factor is at most 2^33, so rows of zeros stay zeros.
void rms_norm(const float* in, size_t rows, size_t cols, float target_rms, float* out);

/// out = in * scale + shift over n values, the product rounded before the sum.
void scale_and_shift(const float* in, size_t n, float scale, float shift, float* out);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_NORMALISATION_KERNELS_H_
