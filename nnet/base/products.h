#ifndef NNET_BASE_PRODUCTS_H_
#define NNET_BASE_PRODUCTS_H_

// Dense products through CBLAS, one caller at a time (see blas-library.h). Matrices are row-major
// without padding unless a stride says otherwise; shapes are the caller's promise, and the result
// overlaps no operand. Products round as the BLAS library does: the order of their sums depends on
// the processor's kernels and on the number of rows, so the same row may differ in its last bits
// between a call for one frame and a call for many. With beta 0 the previous contents of the result
// do not matter. A size of 0 is allowed: a product over K = 0 terms is beta C. Every product throws
// when the BLAS library cannot be opened or lacks memory.

#include <cstddef>

#include "nnet/base/strided-rows.h"

namespace tarev::nnet::handwriting_CTC {

/// C (M x N) = alpha A (M x K) B' + beta C, with B stored N x K.
void matmul_trans_b(const float* A, const float* B, float* C, size_t M, size_t N, size_t K,
                    float alpha, float beta);
/// The same product of bands.
void matmul_trans_b(StridedRows<const float> A, StridedRows<const float> B, StridedRows<float> C,
                    size_t M, size_t N, size_t K, float alpha, float beta);
/// C (M x N) = alpha A (M x K) B (K x N) + beta C, on bands.
void matmul(StridedRows<const float> A, StridedRows<const float> B, StridedRows<float> C, size_t M,
            size_t N, size_t K, float alpha, float beta);
/// y (M) = alpha A (M x N) x + beta y.
void mat_vec(const float* A, const float* x, float* y, size_t M, size_t N, float alpha, float beta);
/// y[i] = alpha a[i] x[i] + beta y[i].
void vec_mul_vec(const float* a, const float* x, float* y, size_t n, float alpha, float beta);
/// x = alpha x. A factor of 0 gives zeros, whatever x holds.
void scale_vec(float* x, size_t n, float alpha);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_PRODUCTS_H_
