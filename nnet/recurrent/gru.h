#ifndef NNET_RECURRENT_GRU_H_
#define NNET_RECURRENT_GRU_H_

// Gated recurrent unit layers (Cho et al. 2014), one direction or both, and their fixed-point
// twins; the form in which r is applied after the recurrent product. H is the hidden size
// (`cell_dim` in the block and in the shared classes), D the input dimension. Gate blocks are r
// (reset), z (update) and n (candidate). For each frame, with W and b the input weights and bias, R
// and c the recurrent ones:
//   r = sigmoid(W_r x + b_r + R_r h + c_r),  z = sigmoid(W_z x + b_z + R_z h + c_z),
//   m = tanh(W_n x + b_n + r (R_n h + c_n)),  h' = (1 - z) m + z h.
// Block n of the recurrent bias lies inside the product with r, so that the two biases cannot be
// added up.

#include <cstdint>

#include "nnet/contract/nnet-component.h"
#include "nnet/recurrent/recurrent-layer.h"

namespace tarev::nnet::handwriting_CTC {

/// One direction of a GRU: parameters and state. Used by one thread at a time.
struct GruParameters {
  static constexpr int kGates = 3;
  static constexpr bool kProjects = false;
  static constexpr bool kClips = false;

  WeightMatrix input_weights;      // 3H x D
  WeightMatrix recurrent_weights;  // 3H x H
  FloatArray input_bias;           // 3H, added to every gate row before the recurrence
  FloatArray recurrent_bias;       // 3H; block n lies inside the product with r
  FloatArray state;                // 2H: h and a vector of scratch

  /// The functions of a cell, as LstmParameters declares them.
  ParameterList List(const RecurrentShape& shape);
  void ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes);
  void Propagate(const float* in, size_t frames, const RecurrentShape& shape, Direction direction,
                 float* gates, OutputRows out);
};

extern template class ForwardLayer<GruParameters>;
extern template class BidirectionalLayer<GruParameters>;

/// Output row h; H is the output dimension.
using Gru = LayerOf<0x10d, ForwardLayer<GruParameters>>;
using FixedGru = FixedLayerOf<0x80d, ForwardLayer<GruParameters>>;
/// Output row [h forward, h backward]; 2H is the output dimension.
using BGru = LayerOf<0x110, BidirectionalLayer<GruParameters>>;
using FixedBGru = FixedLayerOf<0x810, BidirectionalLayer<GruParameters>>;

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RECURRENT_GRU_H_
