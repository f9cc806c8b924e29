// The LSTM layers against the recurrence in double precision.

#include "nnet/lstm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/model-builder.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;
using Doubles = std::vector<double>;

struct Shape {
  size_t input;
  size_t cell;
  size_t proj;  // 0: no projection
  size_t frames;
};

double Sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

// One direction's arrays, cut from a flat run of values in file order.
struct Arrays {
  Arrays(const Shape& shape, const Floats& values, size_t& at) {
    const size_t c = shape.cell;
    const size_t out = shape.proj == 0 ? c : shape.proj;
    sizes = {4 * c * shape.input, 4 * c * out, 4 * c};
    if (shape.proj == 0) {
      sizes.push_back(4 * c);
    } else {
      sizes.insert(sizes.end(), {c, c, c, out * c, out});
    }
    for (const size_t size : sizes) {
      arrays.emplace_back(values.begin() + static_cast<long>(at),
                          values.begin() + static_cast<long>(at + size));
      at += size;
    }
  }
  static size_t Count(const Shape& s) {
    const size_t out = s.proj == 0 ? s.cell : s.proj;
    const size_t shared = 4 * s.cell * (s.input + out + 1);
    return shared + (s.proj == 0 ? 4 * s.cell : 3 * s.cell + s.proj * (s.cell + 1));
  }
  std::vector<size_t> sizes;
  std::vector<Floats> arrays;
};

double Dot(const Floats& matrix, size_t row, const Doubles& x) {
  double sum = 0.0;
  for (size_t k = 0; k < x.size(); ++k) sum += double{matrix[row * x.size() + k]} * x[k];
  return sum;
}

// The rows that one direction writes, in the order of the frames given.
std::vector<Doubles> Reference(const Shape& s, const Arrays& p, const std::vector<Doubles>& in) {
  const size_t c = s.cell;
  const bool projected = s.proj != 0;
  Doubles cell(c, 0.0);
  Doubles out(projected ? s.proj : c, 0.0);
  std::vector<Doubles> rows;
  for (const Doubles& x : in) {
    Doubles g(4 * c);
    for (size_t r = 0; r < 4 * c; ++r) {
      g[r] = Dot(p.arrays[0], r, x) + Dot(p.arrays[1], r, out) + p.arrays[2][r];
      if (!projected) g[r] += p.arrays[3][r];
    }
    Doubles m(c);
    for (size_t j = 0; j < c; ++j) {
      if (projected) {  // g, i, f, o
        const double i = Sigmoid(g[c + j] + p.arrays[3][j] * cell[j]);
        const double f = Sigmoid(g[2 * c + j] + p.arrays[4][j] * cell[j]);
        cell[j] = i * std::tanh(g[j]) + f * cell[j];
        m[j] = Sigmoid(g[3 * c + j] + p.arrays[5][j] * cell[j]) * std::tanh(cell[j]);
      } else {  // i, f, g, o
        cell[j] = Sigmoid(g[c + j]) * cell[j] + Sigmoid(g[j]) * std::tanh(g[2 * c + j]);
        m[j] = Sigmoid(g[3 * c + j]) * std::tanh(cell[j]);
      }
    }
    out = m;
    if (projected) {
      out.resize(s.proj);
      for (size_t r = 0; r < s.proj; ++r) out[r] = Dot(p.arrays[6], r, m) + p.arrays[7][r];
    }
    rows.push_back(out);
  }
  return rows;
}

std::vector<Doubles> Rows(const Floats& values, size_t frames) {
  std::vector<Doubles> rows;
  const size_t width = values.size() / frames;
  for (size_t t = 0; t < frames; ++t) {
    const auto first = values.begin() + static_cast<long>(t * width);
    rows.emplace_back(first, first + static_cast<long>(width));
  }
  return rows;
}

struct Family {
  const char* marker;
  int code;
  bool projected;
  bool both;
  bool half;
};
constexpr Family kFamilies[] = {
    {"<Lstm>", 0x103, false, false, false},
    {"<LstmProjectedNnet3Streams>", 0x106, true, false, false},
    {"<Blstm>", 0x10e, false, true, true},
    {"<BlstmProjectedNnet3Streams>", 0x10c, true, true, false},
};

// A component of a family with random parameters, and what it was made of.
struct Sample {
  Sample(const Family& family_arg, const Shape& shape_arg) : family(family_arg), shape(shape_arg) {
    if (!family.projected) shape.proj = 0;
    const size_t directions = family.both ? 2 : 1;
    values = Random(directions * Arrays::Count(shape), 11, 0.7F);
    if (family.half) {  // values that binary16 holds
      for (float& value : values) value = HalfToFloat(FloatToHalf(value));
    }
    out_dim = directions * (family.projected ? shape.proj : shape.cell);
    if (family.code != 0x103) block.Int(static_cast<int32_t>(shape.cell));
    for (const float value : values) {
      if (family.half) {
        block.Raw(FloatToHalf(value));
      } else {
        block.Float(value);
      }
    }
    component =
        Component1d(family.code, static_cast<int>(shape.input), static_cast<int>(out_dim), block);
  }

  Floats Expected(const Floats& in) const {
    size_t at = 0;
    const Arrays forward(shape, values, at);
    std::vector<Doubles> rows = Rows(in, shape.frames);
    std::vector<Doubles> out = Reference(shape, forward, rows);
    if (family.both) {
      const Arrays backward(shape, values, at);
      std::reverse(rows.begin(), rows.end());
      std::vector<Doubles> reversed = Reference(shape, backward, rows);
      for (size_t t = 0; t < out.size(); ++t) {
        const Doubles& other = reversed[out.size() - 1 - t];
        out[t].insert(out[t].end(), other.begin(), other.end());
      }
    }
    Floats flat;
    for (const Doubles& row : out) flat.insert(flat.end(), row.begin(), row.end());
    return flat;
  }

  std::string Text() const {
    std::string text = std::string(family.marker) + " " + std::to_string(out_dim) + " " +
                       std::to_string(shape.input) + " ";
    if (family.code != 0x103) {
      text += "<CellDim> " + std::to_string(shape.cell) + " <ClipGradient> 5\n";
    }
    size_t at = 0;
    for (size_t direction = 0; direction < (family.both ? 2 : 1); ++direction) {
      for (const Floats& array : Arrays(shape, values, at).arrays) {
        text += "[ ";
        for (const float value : array) {
          char number[32];
          std::snprintf(number, sizeof(number), "%.9g ", static_cast<double>(value));
          text += number;
        }
        text += "]\n";
      }
    }
    return text;
  }

  Family family;
  Shape shape;
  Floats values;
  size_t out_dim;
  Bytes block;
  Bytes component;
};

void ExpectNear(const Floats& got, const Floats& wanted, double tolerance) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], tolerance) << i;
}

TEST(Lstm, AgreesWithDoublePrecision) {
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.marker);
    for (const Shape& shape : {Shape{3, 1, 1, 1}, Shape{5, 7, 4, 12}, Shape{16, 24, 24, 33}}) {
      const Sample sample(family, shape);
      const Layer layer = ReadLayer(sample.component);
      const Floats in = Random(shape.frames * shape.input, 12);
      ExpectNear(RunLayer(*layer, Floats(in), static_cast<int64_t>(shape.frames),
                          static_cast<int>(shape.input)),
                 sample.Expected(in), 2e-4);
    }
  }
}

TEST(Lstm, StoredFormsHoldTheSameLayer) {
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.marker);
    const Sample sample(family, {3, 4, 2, 1});
    const Layer layer = ReadLayer(sample.component);
    EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), sample.component.str());
    const Layer text = ReadTextLayer(sample.Text());
    EXPECT_EQ(Written([&](FILE* fp) { return text->Write(fp); }), sample.component.str());
    EXPECT_EQ(layer->ParameterCount(), sample.values.size());
    EXPECT_TRUE(EveryPrefixIsRefused(sample.component));
  }
}

// Two calls continue where the first ended, whatever their lengths; a reset starts from zero.
TEST(Lstm, StateIsCarriedUntilReset) {
  const Shape shape{4, 6, 3, 10};
  const Floats in = Random(40, 13);
  for (const Family& family : kFamilies) {
    if (family.both) continue;
    SCOPED_TRACE(family.marker);
    const Sample sample(family, shape);
    const Layer layer = ReadLayer(sample.component);
    const Floats whole = RunLayer(*layer, Floats(in), 10, 4);
    layer->Reset();
    Floats halves = RunLayer(*layer, Floats(in.begin(), in.begin() + 12), 3, 4);
    EXPECT_TRUE(RunLayer(*layer, {}, 0, 4).empty());
    const Floats rest = RunLayer(*layer, Floats(in.begin() + 12, in.end()), 7, 4);
    halves.insert(halves.end(), rest.begin(), rest.end());
    ExpectNear(halves, whole, 1e-6);
    layer->Reset();
    ExpectNear(RunLayer(*layer, Floats(in), 10, 4), whole, 0.0);
  }
}

// Exchanging the two directions' parameters and reversing time exchanges the output halves.
TEST(Lstm, BackwardIsForwardInReversedTime) {
  for (const Family& family : kFamilies) {
    if (!family.both) continue;
    SCOPED_TRACE(family.marker);
    const Sample sample(family, {4, 6, 3, 9});
    const size_t half_block = sample.block.str().size() / 2 - 2;
    const std::string head = sample.component.str().substr(0, 16);
    const std::string blocks = sample.component.str().substr(16);
    ASSERT_EQ(blocks.size(), 2 * half_block);
    const File swapped_file =
        FileOf(head + blocks.substr(half_block) + blocks.substr(0, half_block));
    const Layer swapped(Component::Read(swapped_file.get()));
    const Layer layer = ReadLayer(sample.component);
    const Floats in = Random(36, 14);
    Floats reversed(in.size());
    for (size_t i = 0; i < in.size(); ++i) reversed[i] = in[(8 - i / 4) * 4 + i % 4];
    const Floats out = RunLayer(*layer, Floats(in), 9, 4);
    const Floats other = RunLayer(*swapped, std::move(reversed), 9, 4);
    const size_t width = sample.out_dim;
    for (size_t i = 0; i < out.size(); ++i) {
      const size_t t = 8 - i / width;
      ASSERT_EQ(out[i], other[t * width + (i % width + width / 2) % width]) << i;
    }
  }
}

TEST(Lstm, ProjectedCallsOverlap) {
  const Sample sample(kFamilies[1], {4, 6, 3, 10});
  const Layer layer = ReadLayer(sample.component);
  dynamic_cast<LstmProjectedNnet3Streams&>(*layer).overlap_frames = 2;
  const Floats in = Random(60, 15);
  const auto frames = [&](size_t first, size_t last) {
    return Floats(in.begin() + static_cast<long>(4 * first),
                  in.begin() + static_cast<long>(4 * last));
  };
  const Floats whole = RunLayer(*layer, frames(0, 15), 15, 4);
  layer->Reset();
  RunLayer(*layer, frames(0, 10), 10, 4);  // leaves the state after frame 7
  ExpectNear(RunLayer(*layer, frames(8, 10), 2, 4), Floats(whole.begin() + 24, whole.begin() + 30),
             1e-6);
  // A call of two frames or fewer moves nothing.
  ExpectNear(RunLayer(*layer, frames(8, 15), 7, 4), Floats(whole.begin() + 24, whole.end()), 1e-6);
}

TEST(Lstm, ShapesThatCannotRunAreRefused) {
  const auto refused = [](int code, int in, int out, int cell) {
    Bytes block;
    if (code != 0x103) block.Int(cell);
    for (int i = 0; i < 4000; ++i) block.Byte(0);
    return ThrownBy([&] { ReadLayer(Component1d(code, in, out, block)); }) ==
           "read component failed!";
  };
  EXPECT_TRUE(refused(0x103, 3, 0, 0));
  EXPECT_TRUE(refused(0x103, -1, 2, 0));
  EXPECT_TRUE(refused(0x106, 2, 3, 2));  // projection wider than the cell
  EXPECT_TRUE(refused(0x106, 2, 1, -5));
  EXPECT_TRUE(refused(0x10c, 2, 3, 4));  // odd output
  EXPECT_TRUE(refused(0x10e, 2, 6, 2));
  EXPECT_TRUE(refused(0x80e, 2, 6, 2));
  EXPECT_TRUE(refused(0x106, 2, 1, 0x7fffffff));
  EXPECT_FALSE(refused(0x106, 2, 1, 2));
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<Blstm> 4 1 <CellDim> 1\n"); }), "read component failed!");
  const Layer layer = ReadLayer(Component1d(0x103, 0, 1, Bytes().Floats(Floats(12))));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, {1}, 1, 1); }),
            "mismatched input dimension! layer[<Lstm>] [0] vs [1]");
}

TEST(Lstm, MappedBlstmHoldsFloats) {
  Sample sample(kFamilies[2], {3, 4, 0, 5});
  std::vector<float> image(1 + sample.values.size());
  image[0] = std::bit_cast<float>(int32_t{4});
  std::copy(sample.values.begin(), sample.values.end(), image.begin() + 1);
  const char* cursor = reinterpret_cast<const char*>(image.data());
  Blstm mapped(3, 8);
  ASSERT_TRUE(mapped.MapData(&cursor));
  EXPECT_EQ(cursor, reinterpret_cast<const char*>(image.data() + image.size()));
  const Layer read = ReadLayer(sample.component);
  const Floats in = Random(15, 16);
  EXPECT_EQ(RunLayer(mapped, Floats(in), 5, 3), RunLayer(*read, Floats(in), 5, 3));
  Blstm other(3, 10);
  cursor = reinterpret_cast<const char*>(image.data());
  EXPECT_FALSE(other.MapData(&cursor));
}

}  // namespace
}  // namespace handwriting::tests
