#ifndef NNET_GRU_H_
#define NNET_GRU_H_

// Gated recurrent unit layers, one direction or both, and their fixed-point twins. H is the hidden
// size, D the input dimension. Gate blocks are r (reset), z (update), n (candidate). Per frame:
//   r = sigmoid(W_r x + U_r h + ...),  z = sigmoid(W_z x + U_z h + ...),
//   n = tanh(W_n x + b_n + r (U_n h + c_n)),  h = (1 - z) n + z h.

#include <cstdint>

#include "nnet/nnet-component.h"
#include "nnet/recurrent-form.h"

namespace tarev::nnet::handwriting_CTC {

/// One direction: parameters and state.
struct GruParameters {
  FloatArray input_weights;      // 3H x D
  FloatArray recurrent_weights;  // 3H x H
  FloatArray input_bias;         // 3H, added to every gate row before the recurrence
  FloatArray recurrent_bias;     // 3H; block n lies inside the product with r
  FloatArray state;              // 2H: h and a vector of scratch

  ParameterList List(int32_t cell_dim, int32_t input_dim);
  void ReserveState(int32_t cell_dim, uint64_t& memory_bytes);
  /// Runs over the frames in the given direction from the state that the last call left. `gates`
  /// has room for frames x 3H; hidden vectors go to rows of `out`, `stride` apart.
  void Propagate(const float* in, size_t frames, size_t input_dim, size_t cell_dim,
                 Direction direction, float* gates, float* out, size_t stride);
};

/// Forward, output row h; H is the output dimension. Continues from call to call.
template <int kCode>
class GruLayer : public LayerOf<kCode>, public GruParameters, public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override { return List(cell_dim, this->input_dim); }
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;
  int32_t gate_dim = 0;

 protected:
  bool ReadShape(FILE* fp);
  bool ReadTextShape(FILE* fp);
  bool WriteShape(FILE* fp) const;
  bool SetShape();
};

/// Both directions, output row [h forward, h backward]; 2H is the output dimension. Each direction
/// continues from the last frame that it processed in the call before.
template <int kCode>
class BGruLayer : public LayerOf<kCode>, public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override;
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;
  int32_t gate_dim = 0;
  GruParameters forward;
  GruParameters backward;

 protected:
  bool ReadShape(FILE* fp);
  bool ReadTextShape(FILE* fp);
  bool WriteShape(FILE* fp) const;
  bool SetShape();
};

using Gru = FloatForm<GruLayer<0x10d>>;
using FixedGru = FixedForm<GruLayer<0x80d>>;
using BGru = FloatForm<BGruLayer<0x110>>;
using FixedBGru = FixedForm<BGruLayer<0x810>>;

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_GRU_H_
