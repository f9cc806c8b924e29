#ifndef UTILS_HALF_FLOAT_H_
#define UTILS_HALF_FLOAT_H_

#include <cstdint>

namespace tarev::nnet::handwriting_CTC {

/// The float of the same value, for each of the 65 536 IEEE 754 binary16 encodings; a NaN keeps its
/// payload.
float HalfToFloat(uint16_t half);

/// The nearest binary16, ties to even. What rounds beyond the largest finite value becomes
/// infinity; a NaN becomes quiet and keeps the top bits of its payload.
uint16_t FloatToHalf(float value);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_HALF_FLOAT_H_
