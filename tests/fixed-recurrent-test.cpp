// The recurrent layers whose parameters are stored as 8-bit codes, beside their float twins.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "tests/recurrent-sample.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;

constexpr int kInput = 3;
constexpr size_t kCell = 4;
constexpr size_t kProj = 2;

// One array as it is stored, and the floats that its codes stand for.
struct Stored {
  size_t cols;
  bool half;
  bool has_row_sums;
  float scale;
  int32_t zero_point;
  std::vector<uint8_t> codes;

  // Values that 8 bits hold exactly, spread so that encoding them finds this scale again.
  Stored(bool half_arg, const RecurrentLayout::Array& array, bool row_sums, uint32_t seed)
      : cols(array.cols),
        half(half_arg),
        has_row_sums(row_sums),
        scale(half ? 256.0F : 128.0F),
        zero_point(half ? -128 : 0) {
    for (const float x : Random(array.rows * cols, seed, 126.0F)) {
      codes.push_back(static_cast<uint8_t>(static_cast<int>(x) - zero_point));
    }
    codes[0] = half ? 0 : 127;
    if (half) codes[1] = 255;
  }

  Floats Values() const {
    Floats values;
    for (const uint8_t code : codes) {
      const int q = half ? code + zero_point : static_cast<int8_t>(code);
      values.push_back(static_cast<float>(q) / scale);
    }
    return values;
  }

  void WriteTo(Bytes& block) const {
    block.Float(scale);
    if (half) block.Int(zero_point);
    for (auto row = codes.begin(); has_row_sums && row != codes.end();) {
      const auto end = row + static_cast<long>(cols);
      block.Float(std::accumulate(row, end, 0.0F));
      row = end;
    }
    for (const uint8_t code : codes) block.Byte(code);
  }
};

struct Sample {
  explicit Sample(const RecurrentFamily& family) : layout{family, kInput, kCell, kProj} {
    const std::vector<RecurrentLayout::Array> one = layout.Arrays();
    for (size_t i = 0; i < family.directions * one.size(); ++i) {
      const size_t k = i % one.size();
      arrays.emplace_back(family.half, one[k], family.half && k < 2, static_cast<uint32_t>(20 + i));
    }
  }

  int FixedCode() const { return FixedTypeOf(layout.family.code); }
  Bytes Fixed() const {
    Bytes block;
    for (const Stored& array : arrays) array.WriteTo(block);
    return layout.Component(FixedCode(), block);
  }
  Bytes Float() const {
    RecurrentLayout::Values values;
    for (const Stored& array : arrays) values.push_back(array.Values());
    return layout.Float(values);
  }

  RecurrentLayout layout;
  std::vector<Stored> arrays;
};

// Two calls that continue one another, a reset, and a third.
Floats RunThreeCalls(Component& layer) {
  Floats all;
  for (const int64_t frames : {5, 3, 2}) {
    if (frames == 2) layer.Reset();
    const Floats out = RunLayer(layer, Random(ToSize(frames) * kInput, 30), frames, kInput);
    all.insert(all.end(), out.begin(), out.end());
  }
  return all;
}

double LargestDifference(const Floats& a, const Floats& b) {
  double largest = a.size() == b.size() ? 0.0 : HUGE_VAL;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    largest = std::max(largest, std::fabs(double{a[i]} - b[i]));
  }
  return largest;
}

TEST(FixedRecurrent, TwinsAgreeExactlyOnValuesThatEightBitsHold) {
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    SCOPED_TRACE(family.name);
    const Sample sample(family);
    const Bytes stored = sample.Fixed();
    const Layer fixed = ReadLayer(stored);
    const Layer twin = ReadLayer(sample.Float());
    EXPECT_EQ(Written([&](FILE* fp) { return fixed->Write(fp); }), stored.str());
    EXPECT_EQ(Written([&](FILE* fp) { return fixed->WriteFixed(fp); }), stored.str());
    EXPECT_EQ(Written([&](FILE* fp) { return twin->WriteFixed(fp); }), stored.str());
    EXPECT_TRUE(EveryPrefixIsRefused(stored));
    EXPECT_EQ(RunThreeCalls(*fixed), RunThreeCalls(*twin));
    EXPECT_EQ(fixed->ParameterCount(), twin->ParameterCount());
    EXPECT_EQ(fixed->MemoryBytes(), twin->MemoryBytes());
  }
}

TEST(FixedRecurrent, TwinsAgreeWithinTheQuantisation) {
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    SCOPED_TRACE(family.name);
    const RecurrentLayout layout{family, kInput, kCell, kProj};
    const Layer twin = ReadLayer(layout.Float(layout.RandomValues()));
    const File file = FileOf(Written([&](FILE* fp) { return twin->WriteFixed(fp); }));
    const Layer fixed(Component::Read(file.get()));
    const double difference = LargestDifference(RunThreeCalls(*fixed), RunThreeCalls(*twin));
    EXPECT_LT(difference, 0.03);
    EXPECT_GT(difference, 0.0);
  }
}

// Scales, zero points and row sums are written back as they were read, and so are codes that
// encoding the decoded values would not give back: the code -128, a scale of 0, a zero point beyond
// the precision of a float.
TEST(FixedRecurrent, AnyStoredBlockIsWrittenBack) {
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    SCOPED_TRACE(family.name);
    for (const float scale : {0.0F, 1e-30F, 17.3F, -5.5F, 1e30F, INFINITY, NAN}) {
      for (const int32_t zero_point : {0, -77, 123456789, INT32_MIN}) {
        Sample sample(family);
        for (Stored& array : sample.arrays) {
          array.scale = scale;
          array.zero_point = zero_point;
          array.codes[0] = 0x80;
        }
        const Bytes stored = sample.Fixed();
        const Layer layer = ReadLayer(stored);
        EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), stored.str()) << scale;
      }
    }
  }
}

// The row sums take part in no computation.
TEST(FixedRecurrent, RowSumsAreKeptAsStored) {
  const Sample sample(kRecurrentFamilies[2]);
  std::string bytes = sample.Fixed().str();
  const float sum = -1.5F;
  std::memcpy(&bytes[12 + 4 + 8], &sum, sizeof(sum));  // behind header, cell dim, scale, zero point
  const File file = FileOf(bytes);
  const Layer layer(Component::Read(file.get()));
  EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), bytes);
  EXPECT_EQ(RunThreeCalls(*layer), RunThreeCalls(*ReadLayer(sample.Fixed())));
}

// Values of the text form stay as they are; only the scale of a later write follows from them.
TEST(FixedRecurrent, TextFormIsNotQuantised) {
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    SCOPED_TRACE(family.name);
    const RecurrentLayout layout{family, kInput, kCell, kProj};
    const RecurrentLayout::Values values = layout.RandomValues();
    if (family.half) {
      EXPECT_EQ(ThrownBy([&] { ReadTextLayer(layout.Text("Fixed", values)); }),
                "read component failed!");
      continue;
    }
    const Layer fixed = ReadTextLayer(layout.Text("Fixed", values));
    const Layer twin = ReadTextLayer(layout.Text("", values));
    EXPECT_EQ(RunThreeCalls(*fixed), RunThreeCalls(*twin));
    EXPECT_EQ(Written([&](FILE* fp) { return fixed->Write(fp); }),
              Written([&](FILE* fp) { return twin->WriteFixed(fp); }));
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<FixedLstm> 1 1 stray [ 0 0 0 0 ]"); }),
            "wrong matrix format! [leading:stray]");
}

}  // namespace
}  // namespace handwriting::tests
