// Mutates an input of a binary model by its layers: they come, go, change places, get other
// dimensions. Plain mutation of bytes spends itself on counts that no file of the size can hold and
// on widths that no layer can have.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/fuzz/input.h"
#include "tests/support/layer-samples.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

using namespace handwriting::fuzz;  // NOLINT(google-build-using-namespace)
namespace tests = handwriting::tests;

// A header begins with what goes in and out (values a row, or channels) and the type code; that of
// planes goes on with their dimensions.
constexpr size_t kIn = 0, kOut = 1, kCode = 2, kPlaneIn = 3;

class Model {
 public:
  Model(const uint8_t* data, size_t size, unsigned seed) : random_(seed) {
    plan_.assign(data, data + std::min(size, kPlanBytes));
    plan_.resize(kPlanBytes);
    rest_.assign(data + std::min(size, kPlanBytes), data + size);
    while (networks_.size() < 4 && TakeNetwork()) {
    }
    if (networks_.empty()) networks_.emplace_back();
  }

  void Mutate() {
    for (size_t steps = 1 + Below(3); steps > 0; --steps) MutateOnce();
    if (Below(8) != 0) MakePlausible();
    if (Below(4) != 0 && !networks_[0].empty()) {
      plan_[0] = static_cast<char>(std::clamp(Get(networks_[0][0], kIn), 1, 255));
    }
  }

  std::string Bytes() const {
    std::string bytes = plan_;
    for (const auto& network : networks_) {
      tests::Bytes blocks;
      for (const std::string& block : network) blocks.Add(tests::Bytes(block));
      const auto count = static_cast<uint32_t>(network.size());
      bytes += tests::Bytes().Raw(count).Add(blocks).str();
    }
    return bytes + rest_;
  }

 private:
  static const std::vector<std::string>& Samples() {
    static const std::vector<std::string> samples = [] {
      std::vector<std::string> all;
      for (const tests::Bytes& sample : tests::SamplesOfAllForms()) all.push_back(sample.str());
      return all;
    }();
    return samples;
  }

  size_t Below(size_t end) { return random_() % end; }

  // Cuts the next network off the rest, as far as it can be read. False where there is none.
  bool TakeNetwork() {
    uint32_t count = 0;
    if (rest_.size() < sizeof(count)) return false;
    std::memcpy(&count, rest_.data(), sizeof(count));
    const File file = StreamOf(rest_);
    std::fseek(file.get(), sizeof(count), SEEK_SET);
    std::vector<std::string> blocks;
    size_t begin = sizeof(count);
    bool complete = true;
    while (complete && blocks.size() < std::min<size_t>(count, 32)) {
      try {
        const tests::Layer layer(tests::runtime::Component::Read(file.get()));
        const auto end = static_cast<size_t>(std::ftell(file.get()));
        blocks.push_back(rest_.substr(begin, end - begin));
        begin = end;
      } catch (const std::exception&) {
        complete = false;
      }
    }
    rest_.erase(0, begin);
    networks_.push_back(std::move(blocks));
    return complete;
  }

  static int Get(const std::string& block, size_t index) {
    int value = 0;
    if (block.size() >= (index + 1) * sizeof(value)) {
      std::memcpy(&value, block.data() + index * sizeof(value), sizeof(value));
    }
    return value;
  }
  static void Set(std::string& block, size_t index, int value) {
    if (block.size() < (index + 1) * sizeof(value)) return;
    std::memcpy(block.data() + index * sizeof(value), &value, sizeof(value));
  }

  int SmallInt() {
    constexpr std::array<int, 20> kValues = {-2, -1, 0,  1,  2,  3,  4,  5,   6,   7,
                                             8,  9,  12, 16, 17, 31, 64, 100, 256, 1000};
    return kValues[Below(kValues.size())];
  }
  int AnyWord() {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr std::array<float, 8> kFloats = {
        0.0F,   -1.0F,     0.5F,       1e30F,
        1e-42F, kInfinity, -kInfinity, std::numeric_limits<float>::quiet_NaN()};
    if (Below(2) == 0) return SmallInt();
    if (Below(2) == 0) return std::bit_cast<int>(kFloats[Below(kFloats.size())]);
    return 1 << Below(32);
  }

  static std::string MutatedByBytes(const std::string& bytes) {
    std::string mutated = bytes;
    mutated.resize(bytes.size() + 64);
    auto* data = reinterpret_cast<uint8_t*>(mutated.data());
    mutated.resize(LLVMFuzzerMutate(data, bytes.size(), mutated.size()));
    return mutated;
  }

  void MutateOnce() {
    auto& network = networks_[Below(networks_.size())];
    const size_t size = network.size();
    if (size == 0 || Below(6) == 0) {
      const std::string& sample = Samples()[Below(Samples().size())];
      network.insert(network.begin() + static_cast<std::ptrdiff_t>(Below(size + 1)), sample);
      return;
    }
    const size_t position = Below(size);
    std::string& block = network[position];
    switch (Below(12)) {
      case 0:
        block = Samples()[Below(Samples().size())];
        break;
      case 1:
        network.erase(network.begin() + static_cast<std::ptrdiff_t>(position));
        break;
      case 2:
        std::swap(block, network[Below(size)]);
        break;
      case 3:
        network.insert(network.begin() + static_cast<std::ptrdiff_t>(position), std::string(block));
        break;
      case 4:
        Set(block, Below(2), SmallInt());
        break;
      case 5:
        Set(block, kPlaneIn + Below(2), SmallInt());
        break;
      case 6:
        Set(block, kCode, Get(Samples()[Below(Samples().size())], kCode));
        break;
      case 7:
        if (position > 0) Set(block, kIn, Get(network[position - 1], kOut));
        break;
      case 8:
        if (position > 0) Set(network[position - 1], kOut, Get(block, kIn));
        break;
      case 9: {
        const size_t words = block.size() / sizeof(int);
        if (words > kCode + 1) Set(block, kCode + 1 + Below(words - kCode - 1), AnyWord());
        break;
      }
      case 10:
        plan_ = MutatedByBytes(plan_).substr(0, kPlanBytes);
        plan_.resize(kPlanBytes);
        break;
      default:
        block = MutatedByBytes(block);
    }
  }

  // Dimensions that a layer of a file of this size can have.
  void MakePlausible() {
    for (auto& network : networks_) {
      for (std::string& block : network) {
        for (const size_t index : {kIn, kOut}) {
          const int value = Get(block, index);
          if (value < -1 || value > 4096) Set(block, index, value & 63);
        }
      }
    }
    if (Below(4) != 0) rest_.clear();
  }

  std::string plan_;
  std::vector<std::vector<std::string>> networks_;
  std::string rest_;
  std::minstd_rand random_;
};

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  if (seed % 16 == 0) return LLVMFuzzerMutate(data, size, max_size);
  Model model(data, size, seed);
  model.Mutate();
  const std::string bytes = model.Bytes();
  const size_t taken = std::min(bytes.size(), max_size);
  std::copy_n(bytes.data(), taken, data);
  return taken;
}
