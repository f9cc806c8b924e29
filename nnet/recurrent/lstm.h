#ifndef NNET_RECURRENT_LSTM_H_
#define NNET_RECURRENT_LSTM_H_

// Long short-term memory layers (Hochreiter and Schmidhuber 1997, with the forget gate and the
// peepholes of Gers et al. 2000, 2002, and the projection of Sak et al. 2014): one direction or
// both, with or without peepholes and projection, and their fixed-point twins. c is the cell
// dimension, P the projection dimension, D the input dimension. With G the gate row of a frame, the
// sum of both products and the biases:
//   G = W x + R h + b,
//   c' = sigmoid(G_f) c + sigmoid(G_i) tanh(G_g),  h' = sigmoid(G_o) tanh(c').
// Peepholes add p_i c, p_f c and p_o c' to the gates i, f and o. A projection takes the place of h
// in the product with R and in the output:
//   r' = P_w h' + P_b.

#include <cstdint>

#include "nnet/contract/nnet-component.h"
#include "nnet/recurrent/recurrent-layer.h"

namespace tarev::nnet::handwriting_CTC {

/// One direction without projection: parameters and state. Gate blocks are i, f, g, o. Used by one
/// thread at a time. All cells have the functions below, which RecurrentLayer and its subclasses
/// call.
struct LstmParameters {
  static constexpr int kGates = 4;
  static constexpr bool kProjects = false;
  static constexpr bool kClips = true;

  WeightMatrix input_weights;      // 4c x D
  WeightMatrix recurrent_weights;  // 4c x c
  FloatArray input_bias;           // 4c, added to every gate row before the recurrence
  FloatArray recurrent_bias;       // 4c, added inside the recurrence
  FloatArray state;                // 4c: h and cell; the other half is not used

  /// The arrays in file order, in the shapes of the file.
  ParameterList List(const RecurrentShape& shape);
  /// Allocates the state, zero-filled, unless it is there.
  void ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes);
  /// Runs over `frames` rows of D values in the given direction from the state that the last call
  /// left, and leaves the state of its last step. Writes output row t for frame t. `gates` has room
  /// for the gate rows of a block of frames, kGates x cells floats each, which are overwritten. The
  /// state must be reserved.
  void Propagate(const float* in, size_t frames, const RecurrentShape& shape, Direction direction,
                 float* gates, OutputRows out);
};

/// Where a projected LSTM copies its state (the 4c floats that a step computes) after one frame of
/// a call. A frame outside the call copies nothing.
struct StateSnapshot {
  int64_t frame = -1;
  float* state = nullptr;
};

/// One direction with peepholes and projection: parameters and state. Gate blocks are g, i, f, o.
struct ProjectedLstmParameters {
  static constexpr int kGates = 4;
  static constexpr bool kProjects = true;
  static constexpr bool kClips = true;

  WeightMatrix input_weights;       // 4c x D
  WeightMatrix recurrent_weights;   // 4c x P, from the previous projected output
  FloatArray bias;                  // 4c
  FloatArray peephole_input;        // c
  FloatArray peephole_forget;       // c
  FloatArray peephole_output;       // c
  WeightMatrix projection_weights;  // P x c
  FloatArray projection_bias;       // P
  /// 8c: two halves of cell, tanh of the cell, m and r, c values each (r has P of them). One half
  /// is the state that enters a frame, the other the state that the frame computes; after each
  /// frame they change places, and a call ends with its last state in the first half.
  FloatArray state;

  /// As in LstmParameters; Propagate copies a state out where `snapshot` asks for it.
  ParameterList List(const RecurrentShape& shape);
  void ReserveState(const RecurrentShape& shape, uint64_t& memory_bytes);
  void Propagate(const float* in, size_t frames, const RecurrentShape& shape, Direction direction,
                 float* gates, OutputRows out, StateSnapshot snapshot = {});
};

extern template class ForwardLayer<LstmParameters>;
extern template class ForwardLayer<ProjectedLstmParameters>;
extern template class BidirectionalLayer<LstmParameters>;
extern template class BidirectionalLayer<ProjectedLstmParameters>;

/// An LSTM in forward direction, output row h; c is the output dimension and no field of the block.
class LstmLayer : public ForwardLayer<LstmParameters> {
 public:
  FieldList Fields() override { return {}; }
  bool Validate(Refusal& why) override;

 protected:
  using ForwardLayer::ForwardLayer;
};

/// A projected LSTM in forward direction, output row r; P is the output dimension, P <= c.
///
/// When splices after this layer consume context, the caller repeats as many frames at the
/// beginning of the next call. A call therefore continues from the state after the frame that lies
/// `overlap_frames` before the end of the previous call. A call of no more than overlap_frames
/// frames leaves that state as it was.
class ProjectedLstmLayer : public ForwardLayer<ProjectedLstmParameters> {
 public:
  void Reserve(int64_t frames) override;
  void Reset() override;
  void Link(NetworkLinks& links) override { overlap_frames = links.ContextAfter(); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  FloatArray saved_state;  // 4c: where the next call begins
  int64_t overlap_frames = 0;

 protected:
  using ForwardLayer::ForwardLayer;
};

/// A bidirectional LSTM, output row [h forward, h backward]; 2c is the output dimension. Parameters
/// are binary16 in the file; the fixed-point write gives asymmetric blocks.
class BlstmLayer : public BidirectionalLayer<LstmParameters> {
 public:
  BlockForm Form() const override {
    return {.floats = FloatForm::kHalf, .codes = CodeForm::kAsymmetric};
  }

 protected:
  using BidirectionalLayer::BidirectionalLayer;
};

/// The float layer, whose block can be mapped.
class Blstm final : public LayerOf<0x10e, BlstmLayer> {
 public:
  using LayerOf::LayerOf;
  /// The image holds 32-bit floats, unlike the file.
  bool MapData(const char** cursor) override { return MapBlock(cursor, *this); }
  /// All layers of this class in a network share their gate rows, which then do not count in
  /// memory_bytes.
  void Link(NetworkLinks& links) override;
};

using FixedBlstm = FixedLayerOf<0x80e, BlstmLayer>;
using Lstm = LayerOf<0x103, LstmLayer>;
using FixedLstm = FixedLayerOf<0x803, LstmLayer>;
using LstmProjectedNnet3Streams = LayerOf<0x106, ProjectedLstmLayer>;
using FixedLstmProjectedNnet3Streams = FixedLayerOf<0x806, ProjectedLstmLayer>;
/// Output row [r forward, r backward]; 2P is the output dimension, P <= c.
using BlstmProjectedNnet3Streams = LayerOf<0x10c, BidirectionalLayer<ProjectedLstmParameters>>;
using FixedBlstmProjectedNnet3Streams =
    FixedLayerOf<0x80c, BidirectionalLayer<ProjectedLstmParameters>>;

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RECURRENT_LSTM_H_
