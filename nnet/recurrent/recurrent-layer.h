#ifndef NNET_RECURRENT_RECURRENT_LAYER_H_
#define NNET_RECURRENT_RECURRENT_LAYER_H_

// The layer classes around a recurrent cell, in one direction and in both. The input product of a
// block of frames is one matrix product; per frame there remain the recurrent products and one pass
// over the gates.
//
// A cell is the parameters and the state of one direction. It has
//   kGates      gate blocks, each of `cells` values, in a gate row
//   kProjects   whether its output is a projection of its cells
//   kClips      whether exporters write "<ClipGradient>", which has a meaning for training only
//   state       what it carries from call to call; zeros at the beginning of an input
//   List, ReserveState, Propagate   as LstmParameters declares them.

#include <algorithm>
#include <cstdint>
#include <memory>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Sizes of one direction: values of an input row, cells (of a GRU: its hidden size), values of an
/// output row.
struct RecurrentShape {
  size_t input;
  size_t cells;
  size_t outputs;
};

/// Sequence index of the k-th step of a direction over `frames` frames.
enum class Direction { kForward, kBackward };
constexpr size_t StepIndex(Direction direction, size_t k, size_t frames) {
  return direction == Direction::kForward ? k : frames - 1 - k;
}

/// Output rows of one direction, `stride` floats apart; not owned.
struct OutputRows {
  float* data;
  size_t stride;
};

/// The most frames whose gate rows are formed at a time: enough for the input product to make use
/// of the weights that it reads, and few enough for the rows to stay in the cache until the
/// recurrence reads them, however long the call is.
inline constexpr size_t kGateFrames = 24;

/// Calls visit(first, count) for blocks of neighbouring frames of a call, in the order of the
/// direction.
template <class Visit>
void ForEachGateBlock(Direction direction, size_t frames, const Visit& visit) {
  for (size_t done = 0; done < frames; done += kGateFrames) {
    const size_t count = std::min(kGateFrames, frames - done);
    visit(direction == Direction::kForward ? done : frames - done - count, count);
  }
}

/// Asks for the rows that a block of frames further on reads and writes, those of step `t`: a long
/// input has left the cache when the next layer reads it, and the backward direction goes against
/// the order of addresses. Always inlined: the compiler drops calls of a function that, to its
/// eyes, does nothing.
[[gnu::always_inline]] inline void PrefetchRows(const float* in, size_t frames,
                                                const RecurrentShape& shape, Direction direction,
                                                const OutputRows& out, size_t t) {
  constexpr size_t kLine = 64 / sizeof(float);
  // Before the first frame this is a huge number.
  const size_t ahead = direction == Direction::kForward ? t + kGateFrames : t - kGateFrames;
  if (ahead >= frames) return;
  const float* read = in + ahead * shape.input;
  for (size_t i = 0; i < shape.input; i += kLine) __builtin_prefetch(read + i);
  const float* written = out.data + ahead * out.stride;
  for (size_t i = 0; i < shape.outputs; i += kLine) __builtin_prefetch(written + i, 1);
}

/// The gate rows of a block of frames: the layer's own or, once linked, those that all layers of a
/// network share. They grow and never shrink; contents are not kept from block to block.
struct GateBuffer {
  FloatArray gate_buffer;
  int64_t frame_capacity = 0;
  std::shared_ptr<FloatArray> shared_gates;

  /// Makes room for calls of `frames` frames, unless that is more than any block may hold.
  void ReserveGates(int64_t frames, int32_t gate_dim, uint64_t& memory_bytes);
  /// The rows of the blocks of a call, gate_dim floats each, growing them if need be. Throws when
  /// the memory cannot be had.
  float* Gates(int64_t frames, int32_t gate_dim, uint64_t& memory_bytes);
};

/// Allocates a state vector, zero-filled, the first time.
void AllocateState(FloatArray& state, size_t count, uint64_t& memory_bytes);
/// Zeroes a state; one that is not allocated yet is skipped.
void ClearState(FloatArray& state);

/// The base of the layers in one direction and in both: the leading field, the stored form and the
/// sizes.
template <class Cell>
class RecurrentLayer : public Component, public GateBuffer {
 public:
  FieldList Fields() override {
    FieldList fields = {{"<CellDim>", &cell_dim}};
    if (Cell::kClips) fields.push_back(IgnoredField("<ClipGradient>"));
    return fields;
  }
  BlockForm Form() const override { return {.codes = CodeForm::kSymmetric}; }

  int32_t cell_dim = 0;  // of a GRU: the hidden size
  int32_t proj_dim = 0;  // output values of one direction
  int32_t gate_dim = 0;  // values of a gate row

 protected:
  using Component::Component;
  /// Checks the fields against the output values of one direction and derives the rest.
  bool ValidateShape(int32_t outputs, Refusal& why) {
    proj_dim = outputs;
    gate_dim = static_cast<int32_t>(int64_t{Cell::kGates} * cell_dim);
    return why.AtLeast("<CellDim>", cell_dim, 1) && why.AtLeast("input dimension", input_dim, 0) &&
           why.AtLeast("output values of a direction", outputs, 1) &&
           (Cell::kProjects
                ? why.AtMost("output values of a direction", outputs, cell_dim)
                : why.Equal("<CellDim>", cell_dim, "output values of a direction", outputs));
  }
  RecurrentShape Shape() const { return {ToSize(input_dim), ToSize(cell_dim), ToSize(proj_dim)}; }
};

/// A layer in forward direction: n rows of D values become n rows of the output dimension.
/// Continues from the state of the last call until a reset.
template <class Cell>
class ForwardLayer : public RecurrentLayer<Cell>, public Cell {
 public:
  bool Validate(Refusal& why) override { return this->ValidateShape(this->output_dim, why); }
  ParameterList MutableParameters() override { return Cell::List(this->Shape()); }
  void Reserve(int64_t frames) override {
    this->ReserveGates(frames, this->gate_dim, this->memory_bytes);
    Cell::ReserveState(this->Shape(), this->memory_bytes);
  }
  void Reset() override { ClearState(this->state); }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                    int /*call_id*/) override {
    this->RequireWidth(this->input_dim, in_dim);
    if (frames <= 0) return;
    const RecurrentShape shape = this->Shape();
    Cell::ReserveState(shape, this->memory_bytes);
    Cell::Propagate(in, ToSize(frames), shape, Direction::kForward,
                    this->Gates(frames, this->gate_dim, this->memory_bytes), {out, shape.outputs});
  }

 protected:
  using RecurrentLayer<Cell>::RecurrentLayer;
};

/// A layer in both directions, output row [forward, backward]; each direction has half of the
/// output dimension. The backward direction runs from the last frame of a call to its first. Each
/// direction continues from the last frame that it processed in the call before, until a reset.
template <class Cell>
class BidirectionalLayer : public RecurrentLayer<Cell> {
 public:
  bool Validate(Refusal& why) override {
    return why.Equal("output dimension modulo 2", this->output_dim % 2, "wanted", 0) &&
           this->ValidateShape(this->output_dim / 2, why);
  }
  ParameterList MutableParameters() override {
    return Join(forward.List(this->Shape()), backward.List(this->Shape()));
  }
  void Reserve(int64_t frames) override {
    this->ReserveGates(frames, this->gate_dim, this->memory_bytes);
    forward.ReserveState(this->Shape(), this->memory_bytes);
    backward.ReserveState(this->Shape(), this->memory_bytes);
  }
  void Reset() override {
    ClearState(forward.state);
    ClearState(backward.state);
  }
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                    int /*call_id*/) override {
    this->RequireWidth(this->input_dim, in_dim);
    if (frames <= 0) return;
    const RecurrentShape shape = this->Shape();
    const size_t n = ToSize(frames);
    float* gates = this->Gates(frames, this->gate_dim, this->memory_bytes);
    forward.ReserveState(shape, this->memory_bytes);
    backward.ReserveState(shape, this->memory_bytes);
    forward.Propagate(in, n, shape, Direction::kForward, gates, {out, 2 * shape.outputs});
    backward.Propagate(in, n, shape, Direction::kBackward, gates,
                       {out + shape.outputs, 2 * shape.outputs});
  }

  /// Each with its own parameters and state; both use the same gate rows, one after the other.
  Cell forward;
  Cell backward;

 protected:
  using RecurrentLayer<Cell>::RecurrentLayer;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RECURRENT_RECURRENT_LAYER_H_
