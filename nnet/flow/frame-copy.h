#ifndef NNET_FLOW_FRAME_COPY_H_
#define NNET_FLOW_FRAME_COPY_H_

// How the layers of this room and their streaming twins copy rows.

#include <algorithm>
#include <cstdint>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Copies `rows` rows of `width` floats, which lie src_step floats apart, to rows that lie dst_step
/// apart. Returns the place of the row after the last one written. Source and destination do not
/// overlap.
inline float* CopyRows(const float* src, int64_t rows, int64_t src_step, int64_t width, float* dst,
                       int64_t dst_step) {
  for (int64_t row = 0; row < rows; ++row, src += src_step, dst += dst_step) {
    std::copy_n(src, width, dst);
  }
  return dst;
}

/// Copies `count` rows that lie one after another; returns the end of what was written.
inline float* CopyRows(const float* rows, int64_t count, int64_t width, float* out) {
  return std::copy_n(rows, BlockFloats(1, width, count), out);
}

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FLOW_FRAME_COPY_H_
