#ifndef TESTS_FUZZ_INPUT_H_
#define TESTS_FUZZ_INPUT_H_

// What the fuzz targets share: how an input is cut, and what ends one.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/model-builder.h"

namespace handwriting::fuzz {

using tests::File;

/// The first bytes of an input of a model: how the model is called. The rest is the model.
struct Plan {
  uint8_t dim;
  uint8_t channels;
  std::array<uint8_t, 3> frames;
  uint8_t options;
  uint8_t values;
  uint8_t nbest;
};
constexpr size_t kPlanBytes = sizeof(Plan);

struct ModelInput {
  Plan plan;
  std::string model;
};

/// Nothing where there is no model.
inline std::optional<ModelInput> ModelInputOf(const uint8_t* data, size_t size) {
  if (size <= kPlanBytes) return std::nullopt;
  ModelInput input{{}, std::string(data + kPlanBytes, data + size)};
  std::memcpy(&input.plan, data, kPlanBytes);
  return input;
}

/// How many frames a call has, `least` or more: enough for the second chunk of a recognizer.
inline int FramesOf(uint8_t byte, int least) { return least + byte % 24; }

/// Tells whether what an input does takes long already, so that it is not done once more. A
/// call may bring some hundred million steps, each of which instrumented code makes ten times slower.
class Patience {
 public:
  bool IsOver() const {
    return std::chrono::steady_clock::now() - begin_ > std::chrono::milliseconds(300);
  }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

/// All buffers of an input together.
constexpr uint64_t kBufferBytes = uint64_t{128} << 20;

/// Exactly `count` features, so that a sanitizer sees a read behind them: of one kind for each
/// `values`, the third with what no camera or pen would give.
inline std::vector<float> Features(size_t count, uint8_t values) {
  std::vector<float> features(count);
  uint32_t state = values;
  for (float& value : features) {
    state = state * 1664525 + 1013904223;
    switch (values % 3) {
      case 0:
        value = 0.5F;
        break;
      case 1:
        value = static_cast<float>(state >> 20) / 1024.0F - 2.0F;
        break;
      default:
        constexpr std::array<float, 8> kHard = {0.0F,
                                                -0.0F,
                                                1e-42F,
                                                std::numeric_limits<float>::quiet_NaN(),
                                                std::numeric_limits<float>::infinity(),
                                                -std::numeric_limits<float>::infinity(),
                                                std::numeric_limits<float>::max(),
                                                1.0F};
        value = kHard[state >> 29];
    }
  }
  return features;
}

/// What must hold for every input.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  __builtin_trap();
}

/// A stream of the bytes, or null where there are none: no stream can be made of them.
inline File StreamOf(std::string& bytes) {
  return File(bytes.empty() ? nullptr : fmemopen(bytes.data(), bytes.size(), "rb"));
}

/// The path of a file with these bytes, which stands in no folder. The next call replaces it.
inline const std::string& PathWith(const uint8_t* data, size_t size) {
  static const int descriptor = memfd_create("input", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  Require(ftruncate(descriptor, 0) == 0 &&
              pwrite(descriptor, data, size, 0) == static_cast<ssize_t>(size),
          "there is memory for the file");
  return path;
}

/// A layer in its own or in fixed-point form; nothing where it refuses.
inline std::optional<std::string> Written(const tests::runtime::Component& layer, bool fixed) {
  char* bytes = nullptr;
  size_t size = 0;
  bool good = false;
  {
    const File file(open_memstream(&bytes, &size));
    good = fixed ? layer.WriteFixed(file.get()) : layer.Write(file.get());
  }
  const std::unique_ptr<char, decltype(&std::free)> owned(bytes, &std::free);
  return good ? std::optional(std::string(bytes, size)) : std::nullopt;
}

/// What a layer writes reads as a layer that writes the same.
inline void CheckWriters(const tests::runtime::Component& layer) {
  for (const bool fixed : {false, true}) {
    if (fixed && !layer.HasFixedForm()) continue;
    std::optional<std::string> bytes = Written(layer, fixed);
    if (!bytes) continue;
    const tests::Layer again(tests::runtime::Component::Read(StreamOf(*bytes).get()));
    // Codes of the fixed-point form are chosen from floats, and chosen again from what they gave.
    Require(fixed || Written(*again, false) == bytes, "what is written reads as what was written");
  }
}

}  // namespace handwriting::fuzz

#endif  // TESTS_FUZZ_INPUT_H_
