#ifndef NNET_BASE_STRIDED_ROWS_H_
#define NNET_BASE_STRIDED_ROWS_H_

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// Rows `stride` values apart, such as a band of columns of a wider matrix. A view: `data` is not
/// owned.
template <class T>
struct StridedRows {
  T* data;
  size_t stride;

  StridedRows From(size_t row) const { return {data + row * stride, stride}; }
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_STRIDED_ROWS_H_
