#include "nnet/base/products.h"

#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"

namespace tarev::nnet::handwriting_CTC {

namespace {

blasint ToBlas(size_t n) { return static_cast<blasint>(n); }

using Band = StridedRows<float>;
using ConstBand = StridedRows<const float>;

// Kernels for small products copy an operand to memory from malloc; they serve M x N x K <= 10^6.
constexpr size_t kSmallProduct = 1'000'000;

size_t HeapBytes(size_t M, size_t N, size_t K) {
  const bool is_small = M * N <= kSmallProduct && M * N * K <= kSmallProduct;
  return is_small ? ((M + N) * K + 4096) * sizeof(float) : 0;
}

void Sgemm(CBLAS_TRANSPOSE trans_b, ConstBand A, ConstBand B, Band C, size_t M, size_t N, size_t K,
           float alpha, float beta) {
  BlasTurn(HeapBytes(M, N, K))
      ->sgemm(CblasRowMajor, CblasNoTrans, trans_b, ToBlas(M), ToBlas(N), ToBlas(K), alpha, A.data,
              ToBlas(A.stride), B.data, ToBlas(B.stride), beta, C.data, ToBlas(C.stride));
}

void Sgemv(CBLAS_TRANSPOSE trans, ConstBand A, const float* x, float* y, size_t rows, size_t cols,
           float alpha, float beta) {
  BlasTurn()->sgemv(CblasRowMajor, trans, ToBlas(rows), ToBlas(cols), alpha, A.data,
                    ToBlas(A.stride), x, 1, beta, y, 1);
}

// x = beta x, the result of a product without terms.
void ScaleOrClear(Band x, size_t rows, size_t cols, float beta) {
  for (size_t r = 0; r < rows; ++r) {
    float* row = x.From(r).data;
    if (beta == 0.0F) {
      zero_vec(row, cols);
    } else {
      scale_vec(row, cols, beta);
    }
  }
}

}  // namespace

void matmul_trans_b(const float* A, const float* B, float* C, size_t M, size_t N, size_t K,
                    float alpha, float beta) {
  matmul_trans_b({A, K}, {B, K}, {C, N}, M, N, K, alpha, beta);
}

void matmul_trans_b(StridedRows<const float> A, StridedRows<const float> B, StridedRows<float> C,
                    size_t M, size_t N, size_t K, float alpha, float beta) {
  if (M == 0 || N == 0) return;
  if (K == 0) return ScaleOrClear(C, M, N, beta);
  if (M == 1) return Sgemv(CblasNoTrans, B, A.data, C.data, N, K, alpha, beta);
  Sgemm(CblasTrans, A, B, C, M, N, K, alpha, beta);
}

void matmul(StridedRows<const float> A, StridedRows<const float> B, StridedRows<float> C, size_t M,
            size_t N, size_t K, float alpha, float beta) {
  if (M == 0 || N == 0) return;
  if (K == 0) return ScaleOrClear(C, M, N, beta);
  if (M == 1) return Sgemv(CblasTrans, B, A.data, C.data, K, N, alpha, beta);
  Sgemm(CblasNoTrans, A, B, C, M, N, K, alpha, beta);
}

void mat_vec(const float* A, const float* x, float* y, size_t M, size_t N, float alpha,
             float beta) {
  if (M == 0) return;
  if (N == 0) return ScaleOrClear({y, M}, 1, M, beta);
  Sgemv(CblasNoTrans, {A, N}, x, y, M, N, alpha, beta);
}

void vec_mul_vec(const float* a, const float* x, float* y, size_t n, float alpha, float beta) {
  if (n == 0) return;
  BlasTurn()->sgbmv(CblasRowMajor, CblasNoTrans, ToBlas(n), ToBlas(n), 0, 0, alpha, a, 1, x, 1,
                    beta, y, 1);
}

void scale_vec(float* x, size_t n, float alpha) {
  if (n != 0) BlasTurn()->sscal(ToBlas(n), alpha, x, 1);
}

}  // namespace tarev::nnet::handwriting_CTC
