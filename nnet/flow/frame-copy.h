#ifndef NNET_FLOW_FRAME_COPY_H_
#define NNET_FLOW_FRAME_COPY_H_

// What the layers share that pick and copy frames.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Copies rows of `width` floats, which lie src_step floats apart, to rows that lie dst_step apart.
/// Returns the place of the row after the last.
inline float* CopyRows(const float* src, int64_t rows, int64_t src_step, int64_t width, float* dst,
                       int64_t dst_step) {
  for (int64_t row = 0; row < rows; ++row, src += src_step, dst += dst_step) {
    std::copy_n(src, width, dst);
  }
  return dst;
}

/// Copies rows that lie one after another.
inline float* CopyRows(const float* rows, int64_t count, int64_t width, float* out) {
  return std::copy_n(rows, BlockFloats(1, width, count), out);
}

/// A list of one frame index in decimal digits, or of none.
std::vector<int32_t> ParseIndexes(const std::string& text);

/// The frame of a call of so many that the index names; negative ones count from the end. Throws
/// when there is none.
int64_t FrameAt(const Component& layer, int32_t index, int64_t frames);
/// Throws unless the call has all frames that the indexes name.
void CheckIndexes(const Component& layer, const std::vector<int32_t>& indexes, int64_t frames);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FLOW_FRAME_COPY_H_
