#ifndef TESTS_SUPPORT_MODEL_BUILDER_H_
#define TESTS_SUPPORT_MODEL_BUILDER_H_

// Models and parameter blocks as raw bytes, written from the description of the file format and not
// through the library's writers, and what tests and benchmarks do with what is read from them.

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "nnet/contract/nnet-component.h"
#include "nnet/runtime/nnet-nnet.h"

namespace handwriting::tests {

namespace runtime = tarev::nnet::handwriting_CTC;

using Floats = std::vector<float>;

/// Bytes of a model file, little-endian and back to back.
class Bytes {
 public:
  Bytes() = default;
  explicit Bytes(std::string bytes) : data_(std::move(bytes)) {}

  template <class T>
  Bytes& Raw(T value) {
    const auto* p = reinterpret_cast<const char*>(&value);
    data_.append(p, sizeof(value));
    return *this;
  }
  Bytes& Int(int32_t value) { return Raw(value); }
  Bytes& Float(float value) { return Raw(value); }
  Bytes& Byte(int value) { return Raw(static_cast<uint8_t>(value)); }
  Bytes& Floats(const std::vector<float>& values) {
    for (const float value : values) Float(value);
    return *this;
  }
  Bytes& Ints(std::initializer_list<int> values) {
    for (const int value : values) Int(value);
    return *this;
  }
  Bytes& Codes(std::initializer_list<int> values) {
    for (const int value : values) Byte(value);
    return *this;
  }
  Bytes& String(const std::string& text) {
    Int(static_cast<int32_t>(text.size()));
    data_ += text;
    return *this;
  }
  Bytes& Add(const Bytes& other) {
    data_ += other.data_;
    return *this;
  }

  const std::string& str() const { return data_; }

 private:
  std::string data_;
};

/// A one-dimensional component: header, then its block.
inline Bytes Component1d(int code, int input_dim, int output_dim, const Bytes& block = {}) {
  return Bytes().Int(input_dim).Int(output_dim).Int(code).Add(block);
}

/// A channel component; a dimension of 0 is written as not set.
inline Bytes Component2d(int code, int input_channel, int output_channel, int input_dim,
                         int output_dim, const Bytes& block = {}) {
  return Bytes()
      .Int(input_channel)
      .Int(output_channel)
      .Int(code)
      .Int(input_dim)
      .Int(output_dim)
      .Byte(input_dim > 0)
      .Byte(output_dim > 0)
      .Add(block);
}

/// A network of the given components.
inline Bytes Network(const std::vector<Bytes>& components) {
  Bytes network;
  network.Raw(static_cast<uint32_t>(components.size()));
  for (const Bytes& component : components) network.Add(component);
  return network;
}

/// An affine component: bias, then weights row by row.
inline Bytes Affine(int input_dim, int output_dim, const std::vector<float>& bias,
                    const std::vector<float>& weights) {
  return Component1d(0x100, input_dim, output_dim, Bytes().Floats(bias).Floats(weights));
}

struct CloseFile {
  void operator()(FILE* fp) const { std::fclose(fp); }
};
using File = std::unique_ptr<FILE, CloseFile>;

/// A real temporary file that holds the bytes, positioned at its start.
inline File FileOf(const std::string& bytes) {
  File file(std::tmpfile());
  std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  std::rewind(file.get());
  return file;
}
inline File FileOf(const Bytes& bytes) { return FileOf(bytes.str()); }

/// What a writer put into a file.
template <class Write>
std::string Written(Write write) {
  File file(std::tmpfile());
  if (!write(file.get())) return "write failed";
  std::string bytes(static_cast<size_t>(std::ftell(file.get())), '\0');
  std::rewind(file.get());
  if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) return "read failed";
  return bytes;
}

using Layer = std::unique_ptr<runtime::Component>;

inline Layer ReadLayer(const std::string& bytes) {
  const File file = FileOf(bytes);
  return Layer(runtime::Component::Read(file.get()));
}
inline Layer ReadLayer(const Bytes& bytes) { return ReadLayer(bytes.str()); }

/// A component in text form; null at the end marker.
inline Layer ReadTextLayer(const std::string& text) {
  const File file = FileOf(text);
  return Layer(runtime::Component::Read(file.get(), false));
}

/// A layer as it writes itself, in its own form and in fixed-point form.
inline std::string WrittenBy(const runtime::Component& layer) {
  return Written([&](FILE* fp) { return layer.Write(fp); });
}
inline std::string FixedWrittenBy(const runtime::Component& layer) {
  return Written([&](FILE* fp) { return layer.WriteFixed(fp); });
}

/// A matrix of the text form, with digits enough to read back the same floats.
inline std::string TextMatrix(const std::vector<float>& values) {
  std::string text = "[ ";
  for (const float value : values) {
    char number[32];
    std::snprintf(number, sizeof(number), "%.9g ", static_cast<double>(value));
    text += number;
  }
  return text + "]\n";
}

/// One call of a layer that is run without executor; `in` is changed by layers that work in place.
/// A layer that writes more than its extent says is an error.
inline Floats RunLayer(runtime::Component& layer, Floats& in, int64_t frames, int in_dim,
                       int call_id = 1) {
  constexpr float kUntouched = 12345.0F;
  const size_t writes = layer.Plan(frames, in_dim).writes;
  Floats out(writes + 64, kUntouched);
  int width = in_dim;
  layer.Propagate(in.data(), frames, in_dim, out.data(), &width, call_id);
  for (size_t i = writes; i < out.size(); ++i) {
    if (out[i] != kUntouched) throw std::logic_error(layer.TypeMarker() + " overruns its extent");
  }
  out.resize(writes);
  out.resize(runtime::BlockFloats(layer.OutputChannel(), width, layer.OutputFrames()));
  return out;
}
inline Floats RunLayer(runtime::Component& layer, Floats&& in, int64_t frames, int in_dim,
                       int call_id = 1) {
  return RunLayer(layer, in, frames, in_dim, call_id);
}

/// A network read from bytes, with its executor.
struct Model {
  explicit Model(const Bytes& bytes, runtime::BufferBudget* budget = nullptr) {
    const File file = FileOf(bytes);
    if (!runtime::ReadNnet(nnet, file.get())) throw std::runtime_error("not a network");
    forward = std::make_unique<runtime::NnetForward>(&nnet, budget);
  }

  Floats Output() const {
    return {forward->Output(), forward->Output() + forward->OutputShape().floats()};
  }

  /// The output of one call without a reset before it.
  Floats Call(Floats in, int64_t frames, int dim, int channels = 1) {
    forward->Forward(in.data(), frames, dim, channels);
    return Output();
  }

  /// An input in calls of so many frames; the last one is marked as its end or is not.
  struct Streamed {
    Floats frames;
    std::vector<int64_t> counts;
  };
  Streamed Chunks(const Floats& in, int dim, const std::vector<int64_t>& chunks, bool marked) {
    Streamed result;
    const float* next = in.data();
    for (size_t i = 0; i < chunks.size(); next += chunks[i++] * dim) {
      const int call_id = static_cast<int>(i) + 1;
      const bool last = marked && i + 1 == chunks.size();
      forward->Propagate(next, chunks[i], dim, last ? -call_id : call_id);
      const Floats out = Output();
      result.frames.insert(result.frames.end(), out.begin(), out.end());
      result.counts.push_back(forward->OutputFrames());
    }
    return result;
  }

  runtime::Nnet nnet;
  std::unique_ptr<runtime::NnetForward> forward;
};

/// Uniform values in [-range, range], the same for a seed on every machine.
inline std::vector<float> Random(size_t count, uint32_t seed, float range = 1.0F) {
  std::mt19937 engine(seed);
  std::vector<float> values(count);
  for (float& value : values) {
    value = (static_cast<float>(engine() >> 8) * 0x1p-23F - 1.0F) * range;
  }
  return values;
}

/// The text of the std::runtime_error that `run` throws; empty when it throws none.
template <class Function>
std::string ThrownBy(Function run) {
  try {
    run();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return {};
}

/// Every proper prefix of a component's file must be refused, whatever it is cut in.
inline bool EveryPrefixIsRefused(const std::string& component) {
  for (size_t size = 0; size < component.size(); ++size) {
    if (ThrownBy([&] { ReadLayer(component.substr(0, size)); }).empty()) return false;
  }
  return true;
}
inline bool EveryPrefixIsRefused(const Bytes& component) {
  return EveryPrefixIsRefused(component.str());
}

inline uint32_t BitsOf(float value) { return std::bit_cast<uint32_t>(value); }

/// Same bits, or both NaN.
inline bool SameFloat(float a, float b) { return BitsOf(a) == BitsOf(b) || (a != a && b != b); }

/// The rows [first, last) of a matrix.
inline Floats RowsOf(const Floats& values, size_t cols, size_t first, size_t last) {
  return {values.begin() + static_cast<long>(cols * first),
          values.begin() + static_cast<long>(cols * last)};
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_MODEL_BUILDER_H_
