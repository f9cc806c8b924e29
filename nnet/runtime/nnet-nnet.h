#ifndef NNET_RUNTIME_NNET_NNET_H_
#define NNET_RUNTIME_NNET_NNET_H_

// The network container, its reader, and the executor that runs a network over blocks of frames.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "nnet/base/nnet-util.h"
#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// A network: its layers, owned, in the order in which they run.
struct Nnet {
  std::vector<std::unique_ptr<Component>> layers;
};

/// Reads one binary network into `nnet`, which must be empty. False when the count cannot be read,
/// throws when a component cannot. What was read until then stays in `nnet`. The stream is left
/// after what was read, on success just after the network.
bool ReadNnet(Nnet& nnet, FILE* fp);

/// The shape of a frame block: channels x frames x dim floats.
struct BlockShape {
  int channels = 1;
  int dim = 0;
  int64_t frames = 0;

  uint64_t floats() const { return BlockFloats(channels, dim, frames); }
};

/// Is told when each layer of a call begins and ends to run, and what it gave, which the layer after
/// it may change. A call that throws leaves the end out.
class LayerObserver {
 public:
  virtual ~LayerObserver() = default;
  virtual void BeforeLayer(size_t /*position*/) {}
  virtual void AfterLayer(size_t position, const float* out, const BlockShape& shape) = 0;
};

/// Runs one network. Frames move between layers through two buffers that change places after every
/// layer and only grow; once they have the size of the largest call, a call allocates nothing.
///
/// Model files are not trusted: right before a layer runs, the executor checks with the width that
/// really reaches it that the layer finds all the input it will read and room for all it will
/// write. A call that is refused throws std::runtime_error; Reset makes the executor ready for a
/// new input. An executor and its network are used by one thread at a time.
class NnetForward {
 public:
  /// Builds over a network that has been read completely, has at least one layer and outlives the
  /// executor; links the layers that refer to each other. Throws when there is no layer or linking
  /// fails. Executors that work together share a budget for their buffers, which outlives them;
  /// without one the executor has kMaxBufferBytes for itself.
  explicit NnetForward(Nnet* network, BufferBudget* shared_budget = nullptr);
  NnetForward(const NnetForward&) = delete;
  NnetForward& operator=(const NnetForward&) = delete;
  ~NnetForward() = default;

  /// Makes buffers and layers ready for calls of `frames` input frames. A hint: where that many
  /// frames would take a layer beyond its bounds, nothing is reserved for it and the layers after
  /// it; nor where that would take more memory than the frames and the parameters explain.
  void ReserveFrames(int64_t frames);
  /// Counts the call and runs it with that count, which starts at 1, as call_id. `in` holds
  /// `channels` planes (1: rows) of `frames` frames of width `dim`; layers that work in place
  /// change it, so it must be writable.
  void Forward(const float* in, int64_t frames, int dim, int channels = 1);
  /// Runs the network once with the caller's call_id; a negative one marks the end of the input.
  void Propagate(const float* in, int64_t frames, int dim, int call_id, int channels = 1);
  /// Prepares for a new input: clears the call count and what the layers carry.
  void Reset();

  /// Has the layers of every call from here on watched by `observer`, which the caller owns; null
  /// for none.
  void Observe(LayerObserver* observer) { observer_ = observer; }

  /// The result of the last call, valid until the next one; of no meaning after a call that threw.
  /// The executor owns it.
  const float* Output() const { return output_->data(); }
  int64_t OutputFrames() const { return cur_frames_; }
  /// Shape of that result as the last layer reported it.
  const BlockShape& OutputShape() const { return output_shape_; }
  /// Dimensions of the first and the last layer when the executor was built; not positive where the
  /// layer takes its width from the input.
  int InputDim() const { return input_dim_; }
  int OutputDim() const { return output_dim_; }

 private:
  void LinkLayers();
  /// Plans, checks and runs one layer on `in` or, from the second on, `from`, into `to`; returns
  /// what it gave. No layer may take or give more than frame_limit frames.
  BlockShape RunLayer(size_t position, const float* in, const FloatArray& from, FloatArray& to,
                      const BlockShape& shape, int call_id, int64_t frame_limit);
  /// Counts the work of a layer's call that neither the caller's frames nor parameters explain.
  /// Throws when it becomes more than a call may bring.
  void CountWork(size_t position, const BlockShape& shape, const CallPlan& plan);
  [[noreturn]] void ThrowTooManyFrames(size_t position, int64_t frames, int64_t limit) const;
  [[noreturn]] void ThrowTooLittleInput(size_t position, const BlockShape& shape,
                                        uint64_t reads) const;
  /// Throws when that is more than a block may hold.
  static void CheckBlock(uint64_t floats);

  /// The position, marker and both numbers of a layer that the budget has no room for.
  [[noreturn]] void ThrowTooMuchMemory(size_t position, uint64_t bytes) const;
  void Reserve(int64_t frames);

  Nnet* nnet_;
  BufferBudget own_budget_{kMaxBufferBytes};
  BufferBudget* budget_;
  uint64_t parameter_count_ = 0;
  std::vector<uint64_t> layer_parameters_;
  /// Of the call that runs: what explains the work of its layers, and the work beyond that.
  int64_t explained_frames_ = 0;
  uint64_t explained_width_ = 0;
  uint64_t work_limit_ = 0;
  uint64_t unexplained_work_ = 0;
  LayerObserver* observer_ = nullptr;
  int64_t cur_frames_ = 0;
  int32_t input_dim_ = 0;
  int32_t output_dim_ = 0;
  int32_t forward_count_ = 0;
  int64_t reserved_frames_ = 0;
  FloatArray buffer_a_;
  FloatArray buffer_b_;
  const FloatArray* output_ = &buffer_b_;
  BlockShape output_shape_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RUNTIME_NNET_NNET_H_
