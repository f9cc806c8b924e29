#include "nnet/base/products.h"

#include <algorithm>
#include <string_view>

#include <cblas.h>

#include "nnet/base/element-kernels.h"

namespace tarev::nnet::handwriting_CTC {

// Streaming calls multiply a few rows with a large weight matrix. An ordinary sgemm first copies
// both operands into the layout of its kernel, and for few rows those copies cost more than the
// product. The AVX-512 kernel sets also have kernels that copy nothing, which the library takes
// while M x N x K <= 10^6 and M x N <= 1200. On those machines such a product is cut into calls of
// that size: tiles of 16 rows and as many outputs as fit, in multiples of 16 for whole vectors.
// Elsewhere, and for many rows, whole calls are faster. A single row is a matrix-vector product.
namespace {

blasint ToBlas(size_t n) { return static_cast<blasint>(n); }

constexpr size_t kSmallProduct = 1'000'000;
constexpr size_t kSmallResult = 1200;
constexpr size_t kTileRows = 16;
constexpr size_t kTileGrain = 16;
// Above so many rows the copies are worth their cost.
constexpr size_t kFewRows = 128;

using Band = StridedRows<float>;
using ConstBand = StridedRows<const float>;

void Sgemm(CBLAS_TRANSPOSE trans_b, ConstBand A, ConstBand B, Band C, size_t M, size_t N, size_t K,
           float alpha, float beta) {
  cblas_sgemm(CblasRowMajor, CblasNoTrans, trans_b, ToBlas(M), ToBlas(N), ToBlas(K), alpha, A.data,
              ToBlas(A.stride), B.data, ToBlas(B.stride), beta, C.data, ToBlas(C.stride));
}

void Sgemv(CBLAS_TRANSPOSE trans, ConstBand A, const float* x, float* y, size_t rows, size_t cols,
           float alpha, float beta) {
  cblas_sgemv(CblasRowMajor, trans, ToBlas(rows), ToBlas(cols), alpha, A.data, ToBlas(A.stride), x,
              1, beta, y, 1);
}

// Outputs per call for tiles of `rows` rows, or 0 when no useful tile fits.
size_t TileColumns(size_t rows, size_t K) {
  const size_t most = std::min(kSmallResult / rows, kSmallProduct / (rows * K));
  return most / kTileGrain * kTileGrain;
}

void TiledSgemm(ConstBand A, ConstBand B, Band C, size_t M, size_t N, size_t K, size_t columns,
                float alpha, float beta) {
  for (size_t n = 0; n < N; n += columns) {
    const size_t width = std::min(columns, N - n);
    for (size_t m = 0; m < M; m += kTileRows) {
      const Band tile{C.From(m).data + n, C.stride};
      Sgemm(CblasTrans, A.From(m), B.From(n), tile, std::min(kTileRows, M - m), width, K, alpha,
            beta);
    }
  }
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

const char* blas_core_name() { return openblas_get_corename(); }

bool has_small_matrix_kernels() {
  static const bool has = [] {
    const std::string_view core = blas_core_name();
    return core == "SkylakeX" || core == "Cooperlake" || core == "SapphireRapids";
  }();
  return has;
}

void matmul_trans_b(const float* A, const float* B, float* C, size_t M, size_t N, size_t K,
                    float alpha, float beta) {
  matmul_trans_b({A, K}, {B, K}, {C, N}, M, N, K, alpha, beta);
}

void matmul_trans_b(StridedRows<const float> A, StridedRows<const float> B, StridedRows<float> C,
                    size_t M, size_t N, size_t K, float alpha, float beta) {
  if (M == 0 || N == 0) return;
  if (K == 0) return ScaleOrClear(C, M, N, beta);
  if (M == 1) return Sgemv(CblasNoTrans, B, A.data, C.data, N, K, alpha, beta);
  if (has_small_matrix_kernels() && M <= kFewRows) {
    const size_t columns = TileColumns(std::min(M, kTileRows), K);
    if (columns != 0) return TiledSgemm(A, B, C, M, N, K, columns, alpha, beta);
  }
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
  cblas_sgbmv(CblasRowMajor, CblasNoTrans, ToBlas(n), ToBlas(n), 0, 0, alpha, a, 1, x, 1, beta, y,
              1);
}

void scale_vec(float* x, size_t n, float alpha) {
  if (n != 0) cblas_sscal(ToBlas(n), alpha, x, 1);
}

}  // namespace tarev::nnet::handwriting_CTC
