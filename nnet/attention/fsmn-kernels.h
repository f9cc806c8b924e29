#ifndef NNET_ATTENTION_FSMN_KERNELS_H_
#define NNET_ATTENTION_FSMN_KERNELS_H_

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// The shape of a memory block: `taps` filter rows of `dim` weights over frames that lie `stride`
/// rows apart, `left` of the taps before the current frame.
struct FsmnTaps {
  const float* filter;
  size_t taps;
  size_t left;
  size_t stride;
  size_t dim;
};

/// For each of `frames` output frames i, column by column:
///   memory[i] = 0 + filter[0] in[i] + filter[1] in[i + stride] + …, every product rounded and
///   added in tap order, out[i] = memory[i] + in[i + left * stride].
/// `in` has frames + (taps - 1) stride rows; `memory` and `out` have `frames`, and overlap neither
/// `in` nor each other.
void fsmn_frames(const FsmnTaps& shape, const float* in, size_t frames, float* memory, float* out);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_FSMN_KERNELS_H_
