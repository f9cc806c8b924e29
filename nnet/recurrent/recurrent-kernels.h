#ifndef NNET_RECURRENT_RECURRENT_KERNELS_H_
#define NNET_RECURRENT_RECURRENT_KERNELS_H_

// One frame of a recurrence after its matrix-vector product, in one pass: all gates, the cell and
// the output, n values each. Every product is rounded before it is added, so the bits are those of
// the separate steps, on every vector target.

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// LSTM with gate blocks i, f, g, o of n values. `hidden` is written, `cell` is updated in place.
/// With G = gates + bias:
///   cell = sigmoid(G_f) cell + sigmoid(G_i) tanh(G_g),  hidden = sigmoid(G_o) tanh(cell).
void lstm_cell(const float* gates, const float* bias, size_t n, float* cell, float* hidden);

/// The arrays of one frame of an LSTM with peepholes, n values each, of the gates 4n; gate blocks
/// g, i, f, o. The last three are written.
struct PeepholeFrame {
  const float* gates;
  const float* peephole_input;
  const float* peephole_forget;
  const float* peephole_output;
  const float* previous_cell;
  float* cell;
  float* tanh_cell;
  float* hidden;
};

///   cell = sigmoid(G_i + p_i c) tanh(G_g) + sigmoid(G_f + p_f c) c  with c the previous cell,
///   hidden = sigmoid(G_o + p_o cell) tanh(cell).
void peephole_lstm_cell(const PeepholeFrame& frame, size_t n);

/// The arrays of one frame of a GRU; gate blocks r, z, n. `gates` holds the input part of r and z,
/// with the input bias, and the recurrent part of all three; `input_candidate` is the input part of
/// n. `hidden` is written; it may be `previous_hidden`.
struct GruFrame {
  const float* gates;
  const float* input_candidate;
  const float* recurrent_bias;
  const float* previous_hidden;
  float* hidden;
};

///   r = sigmoid(G_r + b_r), z = sigmoid(G_z + b_z), m = tanh(input_candidate + r (G_n + b_n)),
///   hidden = (m - z m) + z previous.
void gru_cell(const GruFrame& frame, size_t n);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RECURRENT_RECURRENT_KERNELS_H_
