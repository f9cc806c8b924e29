#ifndef NNET_DENSE_HIGHWAY_KERNELS_H_
#define NNET_DENSE_HIGHWAY_KERNELS_H_

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// out = relu(transform) g + in (1 - g) with g = sigmoid(gate), over n values in one pass. Every
/// product is rounded before it is added, so the bits are those of the separate steps. `out` may be
/// any of the inputs.
void highway_mix(const float* transform, const float* gate, const float* in, size_t n, float* out);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_DENSE_HIGHWAY_KERNELS_H_
