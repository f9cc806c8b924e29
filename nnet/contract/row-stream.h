#ifndef NNET_CONTRACT_ROW_STREAM_H_
#define NNET_CONTRACT_ROW_STREAM_H_

// Rows of an array between a model file and the place where a layer keeps them, some at a time: a
// matrix that is packed needs room for a few rows beside it, not for all.

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <span>

#include "nnet/contract/parameter-block.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {

/// Whole panels of rows, as many as lie in the cache between the file and the panel, one at least.
inline size_t RowsAtATime(const ParameterRef& parameter, size_t value_bytes) {
  constexpr size_t kBytes = size_t{128} << 10;
  const size_t panel_bytes = kPanelOutputs * parameter.cols * value_bytes;
  return std::min(parameter.rows, std::max<size_t>(1, kBytes / panel_bytes) * kPanelOutputs);
}

/// Calls put(first, rows, values) for all rows of an array, read as values of T. False when the
/// file is cut short. The shape must have been compared with the rest of the file.
template <class T, class Put>
bool ReadRows(FILE* fp, const ParameterRef& parameter, const Put& put) {
  if (parameter.count() == 0) return true;
  const size_t step = RowsAtATime(parameter, sizeof(T));
  const auto values = std::make_unique_for_overwrite<T[]>(step * parameter.cols);
  for (size_t first = 0; first < parameter.rows; first += step) {
    const size_t rows = std::min(step, parameter.rows - first);
    if (!ReadArray(fp, std::span<T>(values.get(), rows * parameter.cols))) return false;
    put(first, rows, values.get());
  }
  return true;
}

/// Writes all rows of an array as values of T, which get(first, rows, values) gives. False on the
/// first failed write.
template <class T, class Get>
bool WriteRows(FILE* fp, const ParameterRef& parameter, const Get& get) {
  if (parameter.count() == 0) return true;
  const size_t step = RowsAtATime(parameter, sizeof(T));
  const auto values = std::make_unique_for_overwrite<T[]>(step * parameter.cols);
  for (size_t first = 0; first < parameter.rows; first += step) {
    const size_t rows = std::min(step, parameter.rows - first);
    get(first, rows, values.get());
    if (!WriteArray(fp, std::span<const T>(values.get(), rows * parameter.cols))) return false;
  }
  return true;
}

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_ROW_STREAM_H_
