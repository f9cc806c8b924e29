#ifndef NNET_NNET_COMPONENT_H_
#define NNET_NNET_COMPONENT_H_

// The contract between a layer and the rest of the runtime, with the readers and writers of a whole
// component. Everything above sees a layer only through this class.

#include <cstdint>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "nnet/nnet-util.h"

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

/// A dimension as a size; a negative one counts as none.
constexpr size_t ToSize(int64_t n) { return n > 0 ? static_cast<size_t>(n) : 0; }

/// One array of a parameter block: where its values live and the shape that the file gives them.
/// Vectors have one row. Behind the values the array may hold further rows of zeros.
struct ParameterRef {
  FloatArray* array;
  size_t rows;
  size_t cols;
  size_t spare_rows = 0;

  size_t count() const { return rows * cols; }
};
using ParameterList = std::vector<ParameterRef>;

/// The same for a writer.
struct ConstParameterRef {
  const FloatArray* array;
  size_t rows;
  size_t cols;

  ConstParameterRef(const ParameterRef& other)  // NOLINT(google-explicit-constructor)
      : array(other.array), rows(other.rows), cols(other.cols) {}
  size_t count() const { return rows * cols; }
};
using ConstParameterList = std::vector<ConstParameterRef>;

/// How many floats of its input block one call of a layer reads at most, and how many floats of its
/// output block it writes at most. The executor lends no layer less room than this.
struct CallExtent {
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

  // The parameter block. False on the first short read or write and on a failed check.
  virtual bool ReadData(FILE* /*fp*/) { return true; }
  /// Takes the block from an image in memory that outlives the layer and advances the cursor past
  /// it.
  virtual bool MapData(const char** /*cursor*/) { return true; }
  virtual bool ReadTextData(FILE* fp, bool binary) { return binary ? ReadData(fp) : true; }
  virtual bool WriteData(FILE* /*fp*/) const { return true; }
  virtual bool WriteFixedData(FILE* fp) const { return WriteData(fp); }

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

  /// See CallExtent. The default is whole blocks: every input channel and every output channel at
  /// the widths that this call will use. A layer with another rule answers for itself.
  virtual CallExtent Extent(int64_t frames, int in_dim) const;
  /// The arrays of the parameter block in file order, with the shapes that the dimensions give.
  virtual ParameterList MutableParameters() { return {}; }
  ConstParameterList Parameters() const;
  /// Number of values in them, those of nested layers included.
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
  /// The width of this call's input rows.
  int CallInputDim(int in_dim) const { return input_dim_set ? input_dim : in_dim; }

 private:
  bool WriteHeader(FILE* fp, int code) const;
};

/// Creates a layer of the given code, owned by the caller.
Component* NewComponentOfType(int code, int first, int second);

/// Reads the dimensions of a text component behind its marker; returns the type code.
int ReadComponentHeader(FILE* fp, const char* marker, int* first, int* second);

/// channels x dim x frames in 64 bits; negative factors count as none, overflow saturates.
uint64_t BlockFloats(int64_t channels, int64_t dim, int64_t frames);

/// A one-dimensional layer class with its two type codes.
template <int kCode, int kFixedCode = FixedTypeOf(kCode)>
class LayerOf : public Component {
 public:
  static constexpr int kType = kCode;
  LayerOf(int input_dim_arg, int output_dim_arg) : Component(input_dim_arg, output_dim_arg) {}
  int GetType() const override { return kCode; }
  int GetFixedType() const override { return kFixedCode; }
};

/// A channel layer class with its two type codes.
template <int kCode, int kFixedCode = FixedTypeOf(kCode)>
class ChannelLayerOf : public Component {
 public:
  static constexpr int kType = kCode;
  ChannelLayerOf(int input_channel_arg, int output_channel_arg)
      : Component(ChannelForm(), input_channel_arg, output_channel_arg) {}
  int GetType() const override { return kCode; }
  int GetFixedType() const override { return kFixedCode; }
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_NNET_COMPONENT_H_
