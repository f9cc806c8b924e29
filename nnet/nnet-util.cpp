#include "nnet/nnet-util.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include <cblas.h>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kAlignment = 64;
// Four gigabytes: far above any real array, and below what would take a machine down.
constexpr size_t kMaxFloats = size_t{1} << 30;

// Zero-filled floats, or null when the count overflows or the memory cannot be had.
float* NewFloats(size_t rows, size_t cols) {
  if (cols != 0 && rows > kMaxFloats / cols) return nullptr;
  const size_t bytes = rows * cols * sizeof(float);
  const size_t whole = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  void* memory = std::aligned_alloc(kAlignment, whole);
  if (memory != nullptr) std::memset(memory, 0, whole);
  return static_cast<float*>(memory);
}

blasint ToBlas(size_t n) { return static_cast<blasint>(n); }

}  // namespace

void alloc_floats(float** p, size_t rows, size_t cols) {
  if (rows == 0 || cols == 0) {
    *p = nullptr;
    return;
  }
  float* fresh = NewFloats(rows, cols);
  if (fresh == nullptr) ThrowError(Here(), "alloc memory failed!");
  *p = fresh;
}

void grow_floats(float** p, size_t new_count, size_t old_count, size_t unit) {
  if (new_count == old_count) return;
  float* fresh = nullptr;
  if (new_count != 0 && unit != 0) {
    fresh = NewFloats(new_count, unit);
    if (fresh == nullptr) ThrowError(Here(), "realloc memory failed!");
    const size_t kept = std::min(new_count, old_count) * unit;
    if (kept != 0) std::memcpy(fresh, *p, kept * sizeof(float));
  }
  free_floats(*p);
  *p = fresh;
}

void free_floats(float* p) noexcept { std::free(p); }

FloatArray::FloatArray(FloatArray&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      owned_(std::exchange(other.owned_, true)) {}

FloatArray& FloatArray::operator=(FloatArray&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(owned_, other.owned_);
  return *this;
}

FloatArray::~FloatArray() { Release(); }

void FloatArray::Release() noexcept {
  if (owned_) free_floats(data_);
  data_ = nullptr;
  size_ = 0;
  owned_ = true;
}

void FloatArray::Allocate(size_t rows, size_t cols, uint64_t& memory_bytes) {
  float* fresh = nullptr;
  alloc_floats(&fresh, rows, cols);
  Release();
  data_ = fresh;
  size_ = rows * cols;
  memory_bytes += size_ * sizeof(float);
}

void FloatArray::GrowTo(size_t count, uint64_t& memory_bytes) {
  grow_floats(&data_, count, size_, 1);
  memory_bytes += (count - size_) * sizeof(float);
  size_ = count;
}

void FloatArray::Map(const float* values, size_t count) noexcept {
  Release();
  data_ = const_cast<float*>(values);  // parameters are only read once they are in place
  size_ = count;
  owned_ = false;
}

// A product of few rows is bound by the copies that an ordinary sgemm makes of both operands. The
// AVX-512 kernel sets have kernels that copy nothing, taken while M x N x K <= 10^6 and M x N <=
// 1200; there such a product is cut into calls of that size. Elsewhere whole calls are faster.
namespace {

constexpr size_t kSmallProduct = 1'000'000;
constexpr size_t kSmallResult = 1200;
constexpr size_t kTileRows = 16;
constexpr size_t kTileGrain = 16;
constexpr size_t kFewRows = 128;

using Band = StridedRows<float>;
using ConstBand = StridedRows<const float>;

ConstBand RowsFrom(ConstBand band, size_t row) {
  return {band.data + row * band.stride, band.stride};
}
Band RowsFrom(Band band, size_t row) { return {band.data + row * band.stride, band.stride}; }

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
      const Band tile{RowsFrom(C, m).data + n, C.stride};
      Sgemm(CblasTrans, RowsFrom(A, m), RowsFrom(B, n), tile, std::min(kTileRows, M - m), width, K,
            alpha, beta);
    }
  }
}

void ScaleOrClear(Band x, size_t rows, size_t cols, float beta) {
  for (size_t r = 0; r < rows; ++r) {
    float* row = RowsFrom(x, r).data;
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
