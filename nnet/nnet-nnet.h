#ifndef NNET_NNET_NNET_H_
#define NNET_NNET_NNET_H_

// The network container, its reader, and the executor that runs a network over blocks of frames.

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "nnet/nnet-component.h"
#include "nnet/nnet-util.h"

namespace tarev::nnet::handwriting_CTC {

class RegisterComponent;
class Register2dComponent;
class StreamConcatenateComponent;
class StreamRegisterComponent;

/// Registers by their names; the layers belong to the network.
template <class Register>
using RegisterMap = std::map<std::string, const Register*>;

/// A network: its layers, owned, in the order in which they run.
struct Nnet {
  std::vector<std::unique_ptr<Component>> layers;
};

/// Appends the components of one binary network. False when the count cannot be read; throws when a
/// component cannot. What was appended stays in `nnet`, and the stream stands behind what was read.
bool ReadNnet(Nnet& nnet, FILE* fp);

/// The shape of a frame block: channels x frames x dim floats.
struct BlockShape {
  int channels = 1;
  int dim = 0;
  int64_t frames = 0;

  uint64_t floats() const { return BlockFloats(channels, dim, frames); }
};

/// Runs one network. Frames move between layers through two buffers that are exchanged after every
/// layer and only grow; once they have the size of the largest call, a call allocates nothing.
///
/// Right before a layer runs the executor checks, with the width that really reaches it, that the
/// layer finds all the input it will read and room for all it will write. An executor and its
/// network are used by one thread at a time.
class NnetForward {
 public:
  /// Builds over a network that has been read completely, has at least one layer and outlives the
  /// executor; links the layers that refer to each other.
  explicit NnetForward(Nnet* network);
  NnetForward(const NnetForward&) = delete;
  NnetForward& operator=(const NnetForward&) = delete;
  ~NnetForward();

  /// Makes buffers and layers ready for a call of so many input frames.
  void ReserveFrames(int64_t frames);
  /// Counts the call and runs it with that count as call_id. `in` holds `channels` planes (1: rows)
  /// of `frames` frames of width `dim`; layers that work in place change it.
  void Forward(const float* in, int64_t frames, int dim, int channels = 1);
  /// Runs the network once with the caller's call_id; a negative one marks the end of the input.
  void Propagate(const float* in, int64_t frames, int dim, int call_id, int channels = 1);
  /// Prepares for a new input: clears the call count and what the layers carry.
  void Reset();

  /// The result of the last call, valid until the next one.
  const float* Output() const { return buffer_b.data(); }
  int64_t OutputFrames() const { return cur_frames; }
  /// Shape of that result as the last layer reported it.
  const BlockShape& OutputShape() const { return output_shape; }
  /// Dimensions of the first and the last layer when the executor was built.
  int InputDim() const { return input_dim; }
  int OutputDim() const { return output_dim; }

 private:
  void MapRegisters();
  void BindConcatenations();
  void LinkGates();
  void LinkMemories();
  void LinkWindows();
  void LinkSpliceContext();
  BlockShape RunLayer(size_t position, const float* in, const BlockShape& shape, int call_id);
  int64_t MostFrames(const Component& layer, int64_t frames);
  int64_t MostJoinedFrames(const StreamConcatenateComponent& joined, int64_t frames) const;
  void CheckFrames(size_t position, int64_t frames) const;
  void CheckInput(size_t position, const BlockShape& shape, uint64_t reads) const;
  void GrowBuffers(uint64_t floats);
  void GrowGates(int64_t frames);

  Nnet* nnet;
  int64_t cur_frames = 0;
  int32_t input_dim = 0;
  int32_t output_dim = 0;
  uint64_t buffer_capacity = 0;
  int32_t forward_count = 0;
  FloatArray buffer_a;
  FloatArray buffer_b;
  int32_t shared_gate_dim = -1;
  int64_t shared_gate_frames = 0;
  FloatArray shared_gate_buffer;
  BlockShape output_shape;
  uint64_t buffer_bytes = 0;
  int64_t frame_limit = 0;
  RegisterMap<RegisterComponent> register_map;
  RegisterMap<Register2dComponent> register2d_map;
  RegisterMap<StreamRegisterComponent> stream_register_map;
  /// The most frames that a call of the size last prepared for brings to each streaming register.
  std::map<std::string, int64_t> stream_register_frames;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_NNET_NNET_H_
