#ifndef CTC_DECODER_KERNELS_H_
#define CTC_DECODER_KERNELS_H_

#include <cstddef>

namespace handwriting_CTC {

// The first i in [from, n) with values[i] > threshold, or n when there is none. A NaN, on either
// side, is never greater.
std::size_t find_greater(const float* values, std::size_t from, std::size_t n, float threshold);

}  // namespace handwriting_CTC

#endif  // CTC_DECODER_KERNELS_H_
