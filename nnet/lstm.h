#ifndef NNET_LSTM_H_
#define NNET_LSTM_H_

// Long short-term memory layers: one direction or both, with or without peepholes and projection,
// and their fixed-point twins. c is the cell dimension, P the projection dimension, D the input
// dimension. The input product of all frames of a call is one matrix product; per frame there
// remain a matrix-vector product and one pass over the gates.

#include <cstdint>
#include <vector>

#include "nnet/nnet-component.h"
#include "nnet/recurrent-form.h"

namespace tarev::nnet::handwriting_CTC {

/// One direction without projection: parameters and state. Gate blocks are i, f, g, o.
struct LstmParameters {
  FloatArray input_weights;      // 4c x D
  FloatArray recurrent_weights;  // 4c x c
  FloatArray input_bias;         // 4c, added to every gate row before the recurrence
  FloatArray recurrent_bias;     // 4c, added inside the recurrence
  FloatArray state;              // 4c: h, cell and two vectors of scratch

  ParameterList List(int32_t cell_dim, int32_t input_dim);
  void ReserveState(int32_t cell_dim, uint64_t& memory_bytes);
  /// Runs over the frames in the given direction from the state that the last call left. `gates`
  /// has room for frames x 4c; hidden vectors go to rows of `out`, `stride` apart.
  void Propagate(const float* in, size_t frames, size_t input_dim, size_t cell_dim,
                 Direction direction, float* gates, float* out, size_t stride);
};

/// One direction with peepholes and projection: parameters and state. Gate blocks are g, i, f, o.
struct ProjectedLstmParameters {
  FloatArray input_weights;       // 4c x D
  FloatArray recurrent_weights;   // 4c x P, from the previous projected output
  FloatArray bias;                // 4c
  FloatArray peephole_input;      // c
  FloatArray peephole_forget;     // c
  FloatArray peephole_output;     // c
  FloatArray projection_weights;  // P x c
  FloatArray projection_bias;     // P
  FloatArray
      state;  // 8c, two halves (entering, computed): cell, tanh of the cell, m and r at 0, c, …

  /// Where a call copies the state (the first 4c floats) after one of its frames.
  struct Snapshot {
    int64_t frame = -1;
    float* state = nullptr;
  };

  ParameterList List(int32_t cell_dim, int32_t proj_dim, int32_t input_dim);
  void ReserveState(int32_t cell_dim, uint64_t& memory_bytes);
  void Propagate(const float* in, size_t frames, size_t input_dim, size_t cell_dim, size_t proj_dim,
                 Direction direction, float* gates, float* out, size_t stride, Snapshot snapshot);
};

/// Forward, output row h; c is the output dimension. Continues from call to call.
template <int kCode>
class LstmLayer : public LayerOf<kCode>, public LstmParameters, public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override { return List(cell_dim, this->input_dim); }
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;

 protected:
  bool ReadShape(FILE* fp);
  bool ReadTextShape(FILE* fp) { return ReadShape(fp); }
  bool WriteShape(FILE* /*fp*/) const { return true; }
};

/// Forward, output row r; P is the output dimension, P <= c. A call continues from the state after
/// the frame that lies `overlap_frames` before the end of the previous call, since that many frames
/// come again when splices behind this layer consume context.
template <int kCode>
class ProjectedLstmLayer : public LayerOf<kCode>,
                           public ProjectedLstmParameters,
                           public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override { return List(cell_dim, proj_dim, this->input_dim); }
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;
  int32_t proj_dim = 0;
  int32_t gate_dim = 0;
  FloatArray saved_state;  // 4c: where the next call begins
  int64_t overlap_frames = 0;

 protected:
  bool ReadShape(FILE* fp);
  bool ReadTextShape(FILE* fp);
  bool WriteShape(FILE* fp) const;
  bool SetShape();
};

/// Both directions, output row [h forward, h backward]; 2c is the output dimension.
template <int kCode>
class BlstmLayer : public LayerOf<kCode>, public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override;
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;
  LstmParameters forward;
  LstmParameters backward;
  /// The slot of a gate buffer that an executor shares among its layers; without one the layer uses
  /// its own.
  FloatArray* shared_gates = nullptr;

 protected:
  bool ReadShape(FILE* fp);
  bool WriteShape(FILE* fp) const;
  bool ShapeFits() const;
};

/// Both directions with peepholes and projection, output row [r forward, r backward]; 2P is the
/// output dimension, P <= c.
template <int kCode>
class ProjectedBlstmLayer : public LayerOf<kCode>, public GateBuffer {
 public:
  using LayerOf<kCode>::LayerOf;
  ParameterList MutableParameters() override;
  void Reserve(int64_t frames) override;
  void Reset() override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  int32_t cell_dim = 0;
  int32_t proj_dim = 0;
  int32_t gate_dim = 0;
  ProjectedLstmParameters forward;
  ProjectedLstmParameters backward;

 protected:
  bool ReadShape(FILE* fp);
  bool ReadTextShape(FILE* fp);
  bool WriteShape(FILE* fp) const;
  bool SetShape();
};

using Lstm = FloatForm<LstmLayer<0x103>>;
using FixedLstm = FixedForm<LstmLayer<0x803>>;
using LstmProjectedNnet3Streams = FloatForm<ProjectedLstmLayer<0x106>>;
using FixedLstmProjectedNnet3Streams = FixedForm<ProjectedLstmLayer<0x806>>;
using BlstmProjectedNnet3Streams = FloatForm<ProjectedBlstmLayer<0x10c>>;
using FixedBlstmProjectedNnet3Streams = FixedForm<ProjectedBlstmLayer<0x80c>>;

/// Parameters as binary16 in the file; the fixed-point write gives asymmetric blocks.
class Blstm final : public BlstmLayer<0x10e> {
 public:
  using BlstmLayer::BlstmLayer;
  bool ReadData(FILE* fp) override;
  /// The image holds 32-bit floats.
  bool MapData(const char** cursor) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;
  bool WriteFixedData(FILE* fp) const override;
};

/// Parameters as asymmetric blocks, written back as they were read. There is no text form.
class FixedBlstm final : public BlstmLayer<0x80e> {
 public:
  using BlstmLayer::BlstmLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;

  std::vector<FixedBlock> blocks;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_LSTM_H_
