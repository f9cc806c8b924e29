#ifndef NNET_BASE_ELEMENT_KERNELS_H_
#define NNET_BASE_ELEMENT_KERNELS_H_

// Kernels over elements, rows and columns of row-major matrices without padding. They check nothing
// but emptiness: shapes are the caller's promise. Sums whose order is part of the result (softmax,
// strided rows) run in element order on every machine; element kernels give the same bits on every
// vector target.

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// The name of the vector target that the element kernels run on.
const char* vector_target_name();

// Rows and elements: X is rows x cols and changed in place, v holds cols values. `in` and `out` may
// be the same array, but must not overlap otherwise.

/// X[r][c] = v[c] * scale + X[r][c].
void add_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale);
/// X[r][c] = (X[r][c] * scale) * v[c].
void mul_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale);
/// x[i] = 0 for n values.
void zero_vec(float* x, size_t n);

/// 1 / (1 + e^-x) through the fast exponential; NaN stays NaN. rows x cols values, as all below.
void fast_sigmoid(const float* in, size_t rows, size_t cols, float* out);
/// tanh x through the fast exponential; NaN gives 1.
void fast_tanh(const float* in, size_t rows, size_t cols, float* out);
/// x when 0 < x, else 0 (so NaN gives 0).
void relu(const float* in, size_t rows, size_t cols, float* out);
/// x when x > 0, else x * alpha.
void prelu(const float* in, size_t rows, size_t cols, float* out, float alpha);
/// e^(x - max) / sum over each row, through the fast exponential; the sum of a row is formed in
/// element order.
void fast_softmax(const float* in, size_t rows, size_t cols, float* out);
/// fast_log of that softmax; at least about -88, which is the logarithm of 0 here.
void fast_log_softmax(const float* in, size_t rows, size_t cols, float* out);
/// fast_math::FastLog of each value: of meaning for values >= 0 only.
void fast_log(const float* in, size_t rows, size_t cols, float* out);

/// The largest of n >= 1 values; a later one replaces an earlier one only when it is strictly
/// greater, so the first of equal values counts, and a NaN only when it is the first value.
float max_of(const float* v, size_t n);
/// x^p in place. p = 0.5 stops at the first negative value and leaves the rest.
void pow_in_place(float* x, size_t n, float p);

/// dst[r][dst_col + k] = src[r][src_col + k] for k < n; nothing when a row of either matrix has no
/// such columns or the numbers of rows differ.
void copy_columns(const float* src, size_t rows, size_t src_cols, float* dst, size_t dst_rows,
                  size_t dst_cols, size_t src_col, size_t dst_col, size_t n);
/// X[r] += X[r + step] + X[r + 2 step] + … for all multiples of step below span, in this order, for
/// every row that has them all; the last span - step rows stay. `span` is a multiple of `step`.
void sum_strided_rows(float* X, size_t rows, size_t cols, size_t step, size_t span);

/// dst (cols x rows) = src'.
void transpose(const float* src, float* dst, size_t rows, size_t cols);
/// The same in place, through a copy: X is cols x rows afterwards.
void transpose_in_place(float* X, size_t rows, size_t cols);
/// Splits rows of heads * head_dim values, through a copy, into one block of rows x head_dim for
/// each head, one block after another.
void split_heads(float* X, size_t rows, size_t cols, size_t head_dim);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_ELEMENT_KERNELS_H_
