#ifndef NNET_CONTRACT_NNET_COMPONENT_H_
#define NNET_CONTRACT_NNET_COMPONENT_H_

// The contract between a layer and the rest of the runtime, with the readers and writers of a whole
// component. Everything above sees a layer only through this class.

#include <cstdint>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "nnet/contract/fixed-block.h"
#include "nnet/contract/network-links.h"
#include "nnet/contract/parameter-block.h"
#include "nnet/contract/refusal.h"

namespace tarev::nnet::handwriting_CTC {

/// The type code under which a layer of `code` is written in fixed-point form: the same member of
/// the family's fixed-point twin. A code of a fixed-point family is its own.
constexpr int FixedTypeOf(int code) {
  constexpr std::pair<int, int> kFamilies[] = {{0x01, 0x08}, {0x02, 0x09}, {0x03, 0x0c},
                                               {0x04, 0x0a}, {0x05, 0x0e}, {0x06, 0x0b},
                                               {0x07, 0x0d}, {0x10, 0x18}, {0x11, 0x19}};
  for (const auto& [family, fixed_family] : kFamilies) {
    if (code >> 8 == family) return fixed_family << 8 | (code & 0xFF);
  }
  return code;
}

/// What one call of a layer does at most: the frames it gives, the floats of its input block that it
/// reads and the floats of its output block that it writes. The executor lends no layer less room.
struct CallPlan {
  int64_t frames;
  uint64_t reads;
  uint64_t writes;
};

/// The most floats that one block of frames may hold (2 GiB), so that no model file can exhaust the
/// machine's memory.
inline constexpr uint64_t kMaxBlockFloats = uint64_t{1} << 29;

/// The most floats that a layer takes before its frames have come, where nothing in the model file
/// but a number in its header asks for them. Larger buffers grow in the call that fills them.
inline constexpr uint64_t kMaxFloatsAhead = uint64_t{1} << 22;

/// Tags the constructor of layers that work on one plane per channel.
struct ChannelForm {};

/// A layer. A block of n frames is n x channels x dim floats: frame after frame for one-dimensional
/// layers, plane after plane for channel layers. The dimension handed from layer to layer is the
/// one of a single channel. A layer owns its parameters and working buffers, never the memory it
/// writes its output to. It is used by one thread at a time.
class Component {
 public:
  virtual ~Component() = default;
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  // Identity.
  virtual int GetType() const = 0;
  virtual int GetFixedType() const = 0;
  virtual void GetTypeMarker(std::string& out) const;
  virtual void GetFixedTypeMarker(std::string& out) const;
  virtual const std::string& TypeMarker() const;
  virtual const std::string& FixedTypeMarker() const;

  // Shape.
  virtual int InputDim() const { return input_dim; }
  virtual int OutputDim() const { return output_dim; }
  virtual int InputChannel() const { return input_channel; }
  virtual int OutputChannel() const { return output_channel; }

  /// Grows the working buffers for a call of `frames` input frames; never shrinks them.
  virtual void Reserve(int64_t /*frames*/) {}
  virtual uint64_t MemoryBytes() const { return memory_bytes; }
  /// Frames that the last call produced.
  virtual int64_t OutputFrames() const { return output_frames; }
  /// Output frames for so many input frames, without regard to streaming state; never negative.
  virtual int64_t CalcOutputFrames(int64_t in_frames) const {
    return in_frames > 0 ? in_frames : 0;
  }
  /// Output frames of the next call, counting what a streaming layer holds over (there a bound).
  virtual int64_t CalcStreamOutputFrames(int64_t in_frames) const {
    return CalcOutputFrames(in_frames);
  }
  /// Whether the caller's width must equal input_dim (when that is set).
  virtual bool CheckInputDim() const { return true; }
  /// Clears what is carried from call to call.
  virtual void Reset() {}
  /// Frames of context that the layer consumes at the edges.
  virtual int64_t LeftContext() const { return 0; }
  virtual int64_t RightContext() const { return 0; }

  // The parameter block, described once. The readers and writers below walk the description.

  /// The values in front of the arrays, in file order.
  virtual FieldList Fields() { return {}; }
  /// Checks header and fields against each other and derives what follows from them. Called after
  /// the fields have been read and before anything else is.
  virtual bool Validate(Refusal& /*why*/) { return true; }
  /// The arrays in file order, with the shapes that header and fields give them.
  virtual ParameterList MutableParameters() { return {}; }
  ParameterList Parameters() const { return const_cast<Component*>(this)->MutableParameters(); }
  /// The complete components after the arrays, in file order.
  virtual NestedList Nested() { return {}; }
  /// Checks a nested component right after it was read, before the next one is; null stands for one
  /// that the text form lacks.
  virtual bool AcceptNested(size_t index, Refusal& why);
  /// How all arrays are stored.
  virtual BlockForm Form() const { return {}; }
  /// Of a layer that is stored as 8-bit blocks: what it keeps of them, an entry an array.
  virtual std::vector<FixedBlock>* StoredCodes() { return nullptr; }
  /// Why the last read of the block failed.
  const Refusal& LastRefusal() const { return refusal_; }

  // False on the first short read or write and on a failed check.
  virtual bool ReadData(FILE* fp) { return ReadBlock(fp, *this, refusal_); }
  /// Takes the block from an image in memory that outlives the layer and advances the cursor past
  /// it. Only AffineTransform and Blstm do.
  virtual bool MapData(const char** /*cursor*/) { return true; }
  virtual bool ReadTextData(FILE* fp, bool binary) {
    return binary ? ReadData(fp) : ReadTextBlock(fp, *this, refusal_);
  }
  virtual bool WriteData(FILE* fp) const { return WriteBlock(fp, *this); }
  virtual bool WriteFixedData(FILE* fp) const { return WriteFixedBlock(fp, *this); }

  /// Computes one call: reads `frames` frames of width in_dim, writes the output frames. A layer
  /// whose frame count is only bounded beforehand stores the exact one in output_frames.
  virtual void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                            int call_id) = 0;
  /// The entry that Propagate calls. A negative call_id marks the end of the input.
  virtual void PropagateChunk(const float* in, int64_t frames, int in_dim, float* out,
                              int call_id) {
    PropagateFnc(in, frames, in_dim, out, call_id);
  }

  // What the runtime asks for beside the computation.

  /// What a call of so many frames of that width does at most. The default is whole blocks: every
  /// input channel and every output channel at the widths that this call will use. A layer with
  /// another rule answers for itself.
  virtual CallPlan Plan(int64_t frames, int in_dim) const;
  /// The most frames that a call of so many can give, asked in network order while room is made
  /// ahead of the call.
  virtual int64_t MostFrames(int64_t in_frames) const { return CalcStreamOutputFrames(in_frames); }
  /// Offers other layers of the network what they may need, and takes what only layers before this
  /// one offer; then, when all have announced themselves, takes the rest.
  virtual void Announce(NetworkLinks& /*links*/) {}
  virtual void Link(NetworkLinks& /*links*/) {}
  /// Whether every call gives one frame for each frame it takes, whatever came before, so that a
  /// container may nest the layer.
  virtual bool MapsFrameForFrame() const {
    return !is_2d && LeftContext() == 0 && RightContext() == 0;
  }
  /// Whether the layer's input (its output) is one plane of frames per channel.
  virtual bool TakesPlanes() const { return is_2d; }
  virtual bool GivesPlanes() const { return is_2d; }
  /// Number of values in the arrays, those of nested layers included.
  virtual uint64_t ParameterCount() const;
  /// The layers and registers that this one is linked to, for a person to read; empty without any.
  virtual std::string Links() const { return {}; }
  /// Whether WriteFixedData gives a block that reads back under GetFixedType.
  virtual bool HasFixedForm() const { return true; }

  /// Throws when CheckInputDim asks for it and in_dim is not the layer's own.
  void CheckWidth(int in_dim) const;
  /// Runs the layer once: width check, frame count, computation, and the width that came out.
  void Propagate(const float* in, int64_t frames, int in_dim, float* out, int* out_dim,
                 int call_id);
  /// The same for a caller that has checked the width and holds the plan of the call.
  void Run(const CallPlan& plan, const float* in, int64_t frames, int in_dim, float* out,
           int call_id) {
    output_frames = plan.frames;
    PropagateChunk(in, frames, in_dim, out, call_id);
  }
  /// Runs a nested layer in the room that its container has: throws before anything is computed
  /// when the call would read beyond `in` or write beyond `out`. What it leaves of `out` is zero
  /// then.
  void PropagateWithin(std::span<const float> in, int64_t frames, int in_dim, std::span<float> out,
                       int call_id);

  // Whole components.

  /// Reads one binary component, header and block; the caller owns it. Throws on every failure, and
  /// when components are nested too deeply.
  static Component* Read(FILE* fp);
  /// The same for binary; otherwise reads the text form and returns null at "</Nnet>".
  static Component* Read(FILE* fp, bool binary);
  /// Writes header and block, under GetType and under GetFixedType.
  bool Write(FILE* fp) const;
  bool WriteFixed(FILE* fp) const;

  // The registry. Both maps are built when the library is loaded and only read afterwards.

  using Factory = Component* (*)(int first, int second);
  using ComponentMap = std::map<int, std::pair<std::string, Factory>>;
  using MarkerMap = std::map<std::string, std::pair<int, Factory>>;
  static const ComponentMap component_map;
  static const MarkerMap marker_map;

  int32_t input_dim = 0;
  int32_t output_dim = 0;
  bool input_dim_set = false;
  bool output_dim_set = false;
  int32_t input_channel = 1;
  int32_t output_channel = 1;
  bool is_2d = false;
  int64_t output_frames = 0;
  uint64_t memory_bytes = 0;

 protected:
  Component(int input_dim_arg, int output_dim_arg);
  Component(ChannelForm form, int input_channel_arg, int output_channel_arg);

  /// Throws the dimension message: this layer stores parameters for rows of `wanted` floats.
  [[noreturn]] void ThrowWidthMismatch(int wanted, int in_dim) const;
  void RequireWidth(int wanted, int in_dim) const {
    if (wanted != in_dim) ThrowWidthMismatch(wanted, in_dim);
  }
  /// Layers without a width of their own take it from the caller: dimensions that the model does
  /// not set follow in_dim on every call.
  void AdoptWidth(int in_dim);
  /// The same for layers whose rows leave at the width at which they come; throws when the output
  /// dimension is set and in_dim is another.
  void AdoptSameWidth(int in_dim);
  /// The plan of a layer that gives a row of the same width for every row it takes.
  CallPlan SameRowsPlan(int64_t frames, int in_dim) const;
  /// The width of this call's input rows.
  int CallInputDim(int in_dim) const { return input_dim_set ? input_dim : in_dim; }

  Refusal refusal_;

 private:
  bool WriteHeader(FILE* fp, int code) const;
};

/// Creates a layer of the given code, owned by the caller.
Component* NewComponentOfType(int code, int first, int second);

/// Reads the dimensions of a text component after its marker; returns the type code.
int ReadComponentHeader(FILE* fp, const char* marker, int* first, int* second);

/// channels x dim x frames in 64 bits; negative factors count as none, overflow saturates.
uint64_t BlockFloats(int64_t channels, int64_t dim, int64_t frames);

/// The base of layers that work on one plane per channel.
class ChannelComponent : public Component {
 protected:
  ChannelComponent(int input_channel_arg, int output_channel_arg)
      : Component(ChannelForm(), input_channel_arg, output_channel_arg) {}
};

/// Gives a layer class its two type codes. Codes stand at the leaf of a family, so that everything
/// below it is compiled once.
template <int kCode, class Base = Component, int kFixedCode = FixedTypeOf(kCode)>
class LayerOf : public Base {
 public:
  static constexpr int kType = kCode;
  LayerOf(int first, int second) : Base(first, second) {}
  int GetType() const override { return kCode; }
  int GetFixedType() const override { return kFixedCode; }
};

/// The twin of a layer that is stored as 8-bit blocks. The codes become floats when they are read;
/// from then on it computes as its float twin.
template <int kCode, class Base>
class FixedLayerOf : public LayerOf<kCode, Base> {
 public:
  using LayerOf<kCode, Base>::LayerOf;
  std::vector<FixedBlock>* StoredCodes() override { return &block_scales; }

  /// What the blocks hold beside the codes, an entry an array.
  std::vector<FixedBlock> block_scales;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_NNET_COMPONENT_H_
