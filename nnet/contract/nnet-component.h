#ifndef NNET_CONTRACT_NNET_COMPONENT_H_
#define NNET_CONTRACT_NNET_COMPONENT_H_

// The contract between a layer and the rest of the runtime, with the readers and writers of a whole
// component. Executor, containers and tools see a layer only through this class.

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

/// What a layer announces for one call, before it runs. `reads` and `writes` are bounds that the
/// layer keeps: the executor refuses a call whose input holds fewer than `reads` floats, and lends
/// an output buffer of at least `writes`.
///
/// `frames` is exact for most layers. A layer whose count depends on earlier calls or on other
/// layers may give another number, up or down; it then sets output_frames while it runs, and
/// `writes` covers what it gives.
struct CallPlan {
  int64_t frames;
  uint64_t reads;
  uint64_t writes;
};

/// The most floats that one block of frames may hold (2 GiB), and the most bytes of all buffers of
/// networks that run together, so that no model file can exhaust the machine's memory.
inline constexpr uint64_t kMaxBlockFloats = uint64_t{1} << 29;
inline constexpr uint64_t kMaxBufferBytes = uint64_t{4} << 30;

/// The most floats that a layer allocates ahead of its frames where nothing but a number in the
/// header of the model file asks for them. Larger buffers grow in the call that fills them.
inline constexpr uint64_t kMaxFloatsAhead = uint64_t{1} << 20;

/// Tags the constructor of layers that work on one plane per channel.
struct ChannelForm {};

/// A layer: its dimensions, its parameters, what it carries from call to call, and its computation.
///
/// A block of n frames is n x channels x dim floats: frame after frame for one-dimensional layers,
/// plane after plane for channel layers. The dimension that is handed from layer to layer is the
/// one of a single channel.
///
/// A layer owns its parameters and working buffers, never the blocks that it reads and writes.
/// Layers that work in place change their input block; each says so. A layer is used by one thread
/// at a time; different layers share nothing but what a network's linking shares. A call that
/// throws leaves the layer fit for Reset and further calls, but what it carries is then not
/// defined.
class Component {
 public:
  virtual ~Component() = default;
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  // Identity. The markers carry their angle brackets and throw for a code that is not registered.
  virtual int GetType() const = 0;
  virtual int GetFixedType() const = 0;
  virtual void GetTypeMarker(std::string& out) const;
  virtual void GetFixedTypeMarker(std::string& out) const;
  virtual const std::string& TypeMarker() const;
  virtual const std::string& FixedTypeMarker() const;

  // Shape. A dimension that is not positive is not set. Layers without a width of their own adopt
  // the caller's, so these may change with the first call.
  virtual int InputDim() const { return input_dim; }
  virtual int OutputDim() const { return output_dim; }
  virtual int InputChannel() const { return input_channel; }
  virtual int OutputChannel() const { return output_channel; }

  /// Grows the working buffers for a call of `frames` input frames; never shrinks them.
  virtual void Reserve(int64_t /*frames*/) {}
  /// Bytes of parameters and working buffers allocated so far; never falls. Nested components count
  /// with what they had when they were read. Layers say what they leave out.
  virtual uint64_t MemoryBytes() const { return memory_bytes; }
  /// Frames that the last call produced.
  virtual int64_t OutputFrames() const { return output_frames; }
  /// Output frames for in_frames input frames, without regard to streaming state; never negative.
  virtual int64_t CalcOutputFrames(int64_t in_frames) const {
    return in_frames > 0 ? in_frames : 0;
  }
  /// Output frames of the next call as far as they can be known beforehand; see CallPlan::frames.
  virtual int64_t CalcStreamOutputFrames(int64_t in_frames) const {
    return CalcOutputFrames(in_frames);
  }
  /// Whether the caller's width must equal input_dim (when that is set).
  virtual bool CheckInputDim() const { return true; }
  /// Forgets what is carried from call to call; the next call begins a new input. Keeps all memory.
  virtual void Reset() {}
  /// Frames at the edges of every call that the layer reads but gives no output for.
  virtual int64_t LeftContext() const { return 0; }
  virtual int64_t RightContext() const { return 0; }

  // The parameter block, described once. The readers and writers below walk the description.

  /// The values before the arrays, in file order. The pointers stay valid as long as the layer.
  virtual FieldList Fields() { return {}; }
  /// Checks header and fields against each other and derives what follows from them. Called after
  /// the fields have been read and before arrays and nested components are. False, with the reason
  /// in `why`, refuses the block.
  virtual bool Validate(Refusal& /*why*/) { return true; }
  /// The arrays in file order, with the shapes that header and fields give them; valid once
  /// Validate has held.
  virtual ParameterList MutableParameters() { return {}; }
  ParameterList Parameters() const { return const_cast<Component*>(this)->MutableParameters(); }
  /// The complete components after the arrays, in file order.
  virtual NestedList Nested() { return {}; }
  /// Checks nested component `index` right after it was read and before the next one is; it is null
  /// where the text form lacks it. The default accepts any component that is there.
  virtual bool AcceptNested(size_t index, Refusal& why);
  /// How all arrays are stored.
  virtual BlockForm Form() const { return {}; }
  /// For a layer that is stored as 8-bit blocks: what it keeps of them, one entry for each array.
  /// Null for all others.
  virtual std::vector<FixedBlock>* StoredCodes() { return nullptr; }
  /// Why the last read of the block failed.
  const Refusal& LastRefusal() const { return refusal_; }

  // The block alone, without the header. False on the first short read or write and on a failed
  // check; LastRefusal then tells the reason of a read. The layer may hold part of the block then
  // and must not run. The text reader also throws, as the readers of properties and matrices do.
  virtual bool ReadData(FILE* fp) { return ReadBlock(fp, *this, refusal_); }
  /// Takes the block from an image in memory, without copying, and advances the cursor past it. The
  /// image must outlive the layer, and is trusted to be complete. Only AffineTransform and Blstm
  /// read it; all others leave the cursor where it is.
  virtual bool MapData(const char** /*cursor*/) { return true; }
  virtual bool ReadTextData(FILE* fp, bool binary) {
    return binary ? ReadData(fp) : ReadTextBlock(fp, *this, refusal_);
  }
  virtual bool WriteData(FILE* fp) const { return WriteBlock(fp, *this); }
  virtual bool WriteFixedData(FILE* fp) const { return WriteFixedBlock(fp, *this); }

  /// Computes one call: reads `frames` frames of width in_dim from `in` and writes the output
  /// frames to `out`; the blocks do not overlap unless the layer allows it, and hold what Plan asks
  /// for. Throws when the width or the number of frames does not fit the layer.
  virtual void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                            int call_id) = 0;
  /// The entry that Propagate calls. A negative call_id marks the end of the input.
  virtual void PropagateChunk(const float* in, int64_t frames, int in_dim, float* out,
                              int call_id) {
    PropagateFnc(in, frames, in_dim, out, call_id);
  }

  // What the runtime asks for beside the computation. None of it changes what a call computes.

  /// The plan of a call of `frames` frames of width in_dim, from the layer's present state. The
  /// default is whole blocks: every input and output channel at the widths that this call will use.
  virtual CallPlan Plan(int64_t frames, int in_dim) const;
  /// The most frames that a call of `in_frames` gives, asked in network order while room is made
  /// ahead of the call. A hint, which sizes the buffers of the layers after this one.
  virtual int64_t MostFrames(int64_t in_frames) const { return CalcStreamOutputFrames(in_frames); }
  /// Multiply-adds and comparisons of a call beyond one for every parameter and frame, and beyond
  /// the floats that the plan reads and writes. For layers whose work grows otherwise.
  virtual uint64_t ExtraWork(int64_t /*frames*/, int /*in_dim*/) const { return 0; }
  /// The two visits of linking, each to all layers in network order. Announce offers what layers
  /// after this one may need, and takes what layers before it have offered; Link takes what any
  /// layer has offered. Both throw when something is missing or taken twice. Building another
  /// executor over the network repeats them.
  virtual void Announce(NetworkLinks& /*links*/) {}
  virtual void Link(NetworkLinks& /*links*/) {}
  /// Whether every call gives one frame for each frame it takes, whatever came before, so that a
  /// container may nest the layer.
  virtual bool MapsFrameForFrame() const {
    return !is_2d && LeftContext() == 0 && RightContext() == 0;
  }
  /// Whether a call can change the rows that it is given.
  virtual bool ChangesInput() const { return false; }
  /// Whether the layer's input (its output) is one plane of frames per channel.
  virtual bool TakesPlanes() const { return is_2d; }
  virtual bool GivesPlanes() const { return is_2d; }
  /// Number of values in the arrays, those of nested layers included.
  virtual uint64_t ParameterCount() const;
  /// The layers and registers that this one is linked to, as text for a reader; empty without any.
  virtual std::string Links() const { return {}; }
  /// Whether WriteFixedData gives a block that reads back under GetFixedType.
  virtual bool HasFixedForm() const { return true; }

  /// Throws when CheckInputDim asks for it and in_dim is not the layer's own.
  void CheckWidth(int in_dim) const {
    if (in_dim != input_dim && input_dim_set && CheckInputDim()) {
      ThrowWidthMismatch(input_dim, in_dim);
    }
  }
  /// Runs the layer once on blocks whose sizes the caller guarantees: checks the width, computes,
  /// and stores in *out_dim the width that came out. output_frames holds the frames given.
  void Propagate(const float* in, int64_t frames, int in_dim, float* out, int* out_dim,
                 int call_id);
  /// The same for a caller that has checked the width and holds the plan of the call.
  void Run(const CallPlan& plan, const float* in, int64_t frames, int in_dim, float* out,
           int call_id) {
    output_frames = plan.frames;
    PropagateChunk(in, frames, in_dim, out, call_id);
  }
  /// Runs a nested layer within the blocks that its container has. Throws before anything is
  /// computed when the call would read more than `in` or write more than `out`. Beyond what its
  /// plan writes, `out` is zero afterwards.
  void PropagateWithin(std::span<const float> in, int64_t frames, int in_dim, std::span<float> out,
                       int call_id);

  // Whole components.

  /// Reads one binary component, header and block; the caller owns it. Throws ComponentRefused when
  /// the block is refused, and std::runtime_error when the stream ends, the type is unknown or
  /// components are nested more than 16 deep. The stream is then somewhere inside the component.
  static Component* Read(FILE* fp);
  /// The same for `binary`; otherwise reads the text form and returns null at "</Nnet>".
  static Component* Read(FILE* fp, bool binary);
  /// Writes header and block, under GetType and under GetFixedType. False on the first failed
  /// write.
  bool Write(FILE* fp) const;
  bool WriteFixed(FILE* fp) const;

  // The registry: by type code, the marker and the factory; by marker, the code and the factory.
  // Both maps are built when the library is loaded and only read afterwards, by any thread. A
  // factory takes the two dimensions, or the two channels of a channel layer; its caller owns the
  // result.

  using Factory = Component* (*)(int first, int second);
  using ComponentMap = std::map<int, std::pair<std::string, Factory>>;
  using MarkerMap = std::map<std::string, std::pair<int, Factory>>;
  static const ComponentMap component_map;
  static const MarkerMap marker_map;

  /// From the header; see Shape above for values that are not set.
  int32_t input_dim = 0;
  int32_t output_dim = 0;
  bool input_dim_set = false;
  bool output_dim_set = false;
  int32_t input_channel = 1;
  int32_t output_channel = 1;
  bool is_2d = false;
  /// Frames that the last call gave.
  int64_t output_frames = 0;
  /// See MemoryBytes.
  uint64_t memory_bytes = 0;

 protected:
  /// For rows of the given widths, and for planes of the given channels.
  Component(int input_dim_arg, int output_dim_arg);
  Component(ChannelForm form, int input_channel_arg, int output_channel_arg);

  /// Throws the dimension message: this layer has parameters for rows of `wanted` floats.
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

  /// Why the last read failed; cleared when a read begins.
  Refusal refusal_;

 private:
  /// Writes the header under the given code; logs a failure.
  bool WriteHeader(FILE* fp, int code) const;
};

/// Creates a layer of the given code, owned by the caller. Throws when no layer has it. `first` and
/// `second` are the input and output dimension, or the channels of a channel layer.
Component* NewComponentOfType(int code, int first, int second);

/// Reads the two values of a text component that follow its marker: bare with the output first, or
/// named in either order. Returns the type code of the marker. Throws when the marker is unknown or
/// a value is missing.
int ReadComponentHeader(FILE* fp, const char* marker, int* first, int* second);

/// channels x dim x frames in 64 bits; negative factors count as none, overflow saturates.
uint64_t BlockFloats(int64_t channels, int64_t dim, int64_t frames);

/// The base of layers that work on one plane per channel. Their header carries channels and
/// dimensions; constructed with the channels alone, the dimensions not set.
class ChannelComponent : public Component {
 protected:
  ChannelComponent(int input_channel_arg, int output_channel_arg)
      : Component(ChannelForm(), input_channel_arg, output_channel_arg) {}
};

/// Gives a layer class its two type codes. A code belongs to the leaf of a family, so that
/// everything below it is compiled once.
template <int kCode, class Base = Component, int kFixedCode = FixedTypeOf(kCode)>
class LayerOf : public Base {
 public:
  static constexpr int kType = kCode;
  LayerOf(int first, int second) : Base(first, second) {}
  int GetType() const override { return kCode; }
  int GetFixedType() const override { return kFixedCode; }
};

/// The twin of a layer that is stored as 8-bit blocks. The codes are decoded to floats when they
/// are read, and it then computes as its float twin does.
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
