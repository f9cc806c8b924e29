#ifndef NNET_NNET_UTIL_H_
#define NNET_NNET_UTIL_H_

// Float buffers and numeric kernels under all layers. Matrices are row-major, rows one after
// another without padding. The kernels check nothing but emptiness: shapes are the caller's
// promise. Sums whose order is part of the result (softmax, strided rows) run in element order on
// every machine; element kernels give the same bits on every vector target. Matrix products round
// as the BLAS library does.

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarev::nnet::handwriting_CTC {

/// Replaces *p by a zero-filled, 64-byte aligned array of rows x cols floats (null when that is
/// none). Throws "alloc memory failed!" and leaves *p when the memory cannot be had.
void alloc_floats(float** p, size_t rows, size_t cols);

/// Regrows *p from old_count x unit to new_count x unit floats; the old contents stay, what is
/// added is zero. Throws "realloc memory failed!" and leaves *p.
void grow_floats(float** p, size_t new_count, size_t old_count, size_t unit);

/// Frees an array made by alloc_floats or grow_floats.
void free_floats(float* p) noexcept;

/// An owned float array that knows its size, or a view of mapped parameters that is never freed and
/// never written. Bytes that it takes are added to the counter that the caller hands over.
class FloatArray {
 public:
  FloatArray() = default;
  FloatArray(FloatArray&& other) noexcept;
  FloatArray& operator=(FloatArray&& other) noexcept;
  FloatArray(const FloatArray&) = delete;
  FloatArray& operator=(const FloatArray&) = delete;
  ~FloatArray();

  /// Replaces the contents by rows x cols zeros.
  void Allocate(size_t rows, size_t cols, uint64_t& memory_bytes);
  /// Makes room for at least `count` floats, keeping the contents; one comparison when there is
  /// room.
  void Grow(size_t count, uint64_t& memory_bytes) {
    if (count > size_) GrowTo(count, memory_bytes);
  }
  /// Views `count` floats that belong to someone else and outlive this array.
  void Map(const float* values, size_t count) noexcept;

  float* data() noexcept { return data_; }
  const float* data() const noexcept { return data_; }
  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  float& operator[](size_t i) noexcept { return data_[i]; }
  const float& operator[](size_t i) const noexcept { return data_[i]; }
  std::span<float> values() noexcept { return {data_, size_}; }
  std::span<const float> values() const noexcept { return {data_, size_}; }

 private:
  void GrowTo(size_t count, uint64_t& memory_bytes);
  void Release() noexcept;

  float* data_ = nullptr;
  size_t size_ = 0;
  bool owned_ = true;
};

// Dense products, through CBLAS. With beta 0 the previous contents of the result do not matter.

/// C (M x N) = alpha A (M x K) B' + beta C, with B stored N x K.
void matmul_trans_b(const float* A, const float* B, float* C, size_t M, size_t N, size_t K,
                    float alpha, float beta);
/// Rows `stride` floats apart, such as a band of columns of a wider matrix.
template <class T>
struct StridedRows {
  T* data;
  size_t stride;
};
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

/// Whether the BLAS library's core has the kernels that few-row products are cut for.
bool has_small_matrix_kernels();
/// The name of the kernel set that the BLAS library chose for this processor.
const char* blas_core_name();
/// The name of the vector target that the element kernels run on.
const char* vector_target_name();

// Rows and elements. `in` and `out` may be the same array.

/// X[r][c] = v[c] * scale + X[r][c].
void add_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale);
/// X[r][c] = (X[r][c] * scale) * v[c].
void mul_vec_to_rows(float* X, size_t rows, size_t cols, const float* v, float scale);
void zero_vec(float* x, size_t n);

/// 1 / (1 + e^-x) through the fast exponential; NaN stays NaN.
void fast_sigmoid(const float* in, size_t rows, size_t cols, float* out);
/// tanh x through the fast exponential; NaN gives 1.
void fast_tanh(const float* in, size_t rows, size_t cols, float* out);
/// x when 0 < x, else 0 (so NaN gives 0).
void relu(const float* in, size_t rows, size_t cols, float* out);
/// x when x > 0, else x * alpha.
void prelu(const float* in, size_t rows, size_t cols, float* out, float alpha);
/// Row-wise softmax through the fast exponential; each row's sum is formed in element order.
void fast_softmax(const float* in, size_t rows, size_t cols, float* out);
/// fast_log of that softmax.
void fast_log_softmax(const float* in, size_t rows, size_t cols, float* out);
/// Fast natural logarithm of the bits of each value.
void fast_log(const float* in, size_t rows, size_t cols, float* out);

/// The largest value; a later one replaces an earlier one only when it is strictly greater.
float max_of(const float* v, size_t n);
/// x^p in place. p = 0.5 stops at the first negative element.
void pow_in_place(float* x, size_t n, float p);

/// dst[r][dst_col + k] = src[r][src_col + k] for k < n; nothing when the shapes do not fit.
void copy_columns(const float* src, size_t rows, size_t src_cols, float* dst, size_t dst_rows,
                  size_t dst_cols, size_t src_col, size_t dst_col, size_t n);
/// X[r] += X[r + step] + X[r + 2 step] + … for all multiples of step below span, for every row that
/// has them all.
void sum_strided_rows(float* X, size_t rows, size_t cols, size_t step, size_t span);

/// dst (cols x rows) = src'.
void transpose(const float* src, float* dst, size_t rows, size_t cols);
void transpose_in_place(float* X, size_t rows, size_t cols);
/// rows x (heads * head_dim) becomes heads blocks of rows x head_dim.
void split_heads(float* X, size_t rows, size_t cols, size_t head_dim);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_NNET_UTIL_H_
