// The recurrent layers whose parameters are stored as 8-bit codes, beside their float twins.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "nnet/gru.h"
#include "nnet/lstm.h"
#include "tests/model-builder.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;

constexpr int kInput = 3;
constexpr int kCell = 4;
constexpr int kProj = 2;

struct Family {
  const char* name;
  int code;  // of the float twin
  int gates;
  bool projected;
  int directions;
  bool has_cell_dim;
  bool asymmetric;  // codes with a zero point; the float twin stores binary16

  int FixedCode() const { return FixedTypeOf(code); }
  int OutputDim() const { return directions * (projected ? kProj : kCell); }
  std::string Marker(const char* prefix) const {
    return std::string("<") + prefix + name + "> " + std::to_string(OutputDim()) + " " +
           std::to_string(kInput) + " ";
  }
};

constexpr Family kFamilies[] = {
    {"Lstm", 0x103, 4, false, 1, false, false},
    {"LstmProjectedNnet3Streams", 0x106, 4, true, 1, true, false},
    {"Blstm", 0x10e, 4, false, 2, true, true},
    {"BlstmProjectedNnet3Streams", 0x10c, 4, true, 2, true, false},
    {"Gru", 0x10d, 3, false, 1, true, false},
    {"BGru", 0x110, 3, false, 2, true, false},
};

struct Shape {
  size_t rows;
  size_t cols;
  bool has_row_sums;
};

// The arrays of a family in file order.
std::vector<Shape> ShapesOf(const Family& family) {
  constexpr size_t c = kCell;
  constexpr size_t p = kProj;
  const size_t g = static_cast<size_t>(family.gates) * c;
  std::vector<Shape> one = {{g, kInput, family.asymmetric},
                            {g, family.projected ? p : c, family.asymmetric},
                            {1, g, false}};
  if (family.projected) {
    one.insert(one.end(),
               {{1, c, false}, {1, c, false}, {1, c, false}, {p, c, false}, {1, p, false}});
  } else {
    one.push_back({1, g, false});
  }
  std::vector<Shape> shapes = one;
  if (family.directions == 2) shapes.insert(shapes.end(), one.begin(), one.end());
  return shapes;
}

// One array as it is stored, and the floats that its codes stand for.
struct Stored {
  Shape shape;
  float scale;
  int32_t zero_point;
  std::vector<uint8_t> codes;

  // Values that 8 bits hold exactly, spread so that encoding them finds this scale again.
  Stored(const Family& family, const Shape& shape_arg, uint32_t seed)
      : shape(shape_arg),
        scale(family.asymmetric ? 256.0F : 128.0F),
        zero_point(family.asymmetric ? -128 : 0) {
    for (const float x : Random(shape.rows * shape.cols, seed, 126.0F)) {
      codes.push_back(static_cast<uint8_t>(static_cast<int>(x) + (family.asymmetric ? 128 : 0)));
    }
    codes[0] = family.asymmetric ? 0 : 127;
    if (family.asymmetric) codes[1] = 255;
  }

  Floats Values(bool asymmetric) const {
    Floats values;
    for (const uint8_t code : codes) {
      const int q = asymmetric ? code + zero_point : static_cast<int8_t>(code);
      values.push_back(static_cast<float>(q) / scale);
    }
    return values;
  }

  void WriteTo(Bytes& block, bool asymmetric) const {
    block.Float(scale);
    if (asymmetric) block.Int(zero_point);
    for (size_t r = 0; shape.has_row_sums && r < shape.rows; ++r) {
      const auto row = codes.begin() + static_cast<long>(r * shape.cols);
      block.Float(std::accumulate(row, row + static_cast<long>(shape.cols), 0.0F));
    }
    for (const uint8_t code : codes) block.Byte(code);
  }
};

struct Sample {
  explicit Sample(const Family& family_arg) : family(family_arg) {
    uint32_t seed = 20;
    for (const Shape& shape : ShapesOf(family)) arrays.emplace_back(family, shape, seed++);
  }

  Bytes Fixed() const {
    Bytes block = CellDim();
    for (const Stored& array : arrays) array.WriteTo(block, family.asymmetric);
    return Component1d(family.FixedCode(), kInput, family.OutputDim(), block);
  }

  Bytes Float() const {
    std::vector<Floats> values;
    for (const Stored& array : arrays) values.push_back(array.Values(family.asymmetric));
    return FloatOf(values);
  }
  Bytes FloatOf(const std::vector<Floats>& values) const {
    Bytes block = CellDim();
    for (const Floats& array : values) {
      for (const float value : array) {
        family.asymmetric ? block.Raw(FloatToHalf(value)) : block.Float(value);
      }
    }
    return Component1d(family.code, kInput, family.OutputDim(), block);
  }

  std::string Text(const char* prefix, const std::vector<Floats>& values) const {
    std::string text = family.Marker(prefix);
    if (family.has_cell_dim) text += "<CellDim> " + std::to_string(kCell) + "\n";
    for (const Floats& array : values) text += TextMatrix(array);
    return text;
  }

  // Parameters that no 8 bits hold.
  std::vector<Floats> RandomValues() const {
    std::vector<Floats> values;
    for (const Stored& array : arrays) {
      values.push_back(Random(array.codes.size(), static_cast<uint32_t>(50 + values.size()), 0.7F));
    }
    return values;
  }

  Bytes CellDim() const { return family.has_cell_dim ? Bytes().Int(kCell) : Bytes(); }

  Family family;
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
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    const Sample sample(family);
    const Bytes stored = sample.Fixed();
    const Layer fixed = ReadLayer(stored);
    const Layer twin = ReadLayer(sample.Float());
    EXPECT_EQ(fixed->GetType(), family.FixedCode());
    EXPECT_EQ(fixed->GetFixedType(), family.FixedCode());
    EXPECT_EQ(twin->GetFixedType(), family.FixedCode());
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
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    const Sample sample(family);
    const Layer twin = ReadLayer(sample.FloatOf(sample.RandomValues()));
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
  for (const Family& family : kFamilies) {
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
  const Sample sample(kFamilies[2]);
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
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    const Sample sample(family);
    const std::vector<Floats> values = sample.RandomValues();
    if (family.asymmetric) {
      EXPECT_EQ(ThrownBy([&] { ReadTextLayer(sample.Text("Fixed", values)); }),
                "read component failed!");
      continue;
    }
    const Layer fixed = ReadTextLayer(sample.Text("Fixed", values));
    const Layer twin = ReadTextLayer(sample.Text("", values));
    EXPECT_EQ(RunThreeCalls(*fixed), RunThreeCalls(*twin));
    EXPECT_EQ(Written([&](FILE* fp) { return fixed->Write(fp); }),
              Written([&](FILE* fp) { return twin->WriteFixed(fp); }));
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<FixedLstm> 1 1 stray [ 0 0 0 0 ]"); }),
            "wrong matrix format! [leading:stray]");
}

}  // namespace
}  // namespace handwriting::tests
