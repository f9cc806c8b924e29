// The recurrent layers against their recurrences in double precision, and what only LSTMs have.

#include "nnet/lstm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/recurrent-sample.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;
using Doubles = std::vector<double>;

double Sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

Doubles Product(const Floats& matrix, const Doubles& x) {
  Doubles y(matrix.size() / x.size());
  for (size_t i = 0; i < matrix.size(); ++i) y[i / x.size()] += double{matrix[i]} * x[i % x.size()];
  return y;
}

struct State {
  Doubles cell;
  Doubles out;
};

// One frame; `p` are the arrays of the direction. The gates stand as i, f, g, o, or in a projected
// layer, where the first, second and fourth also see the cell, as g, i, f, o.
void LstmStep(const Floats* p, bool projected, const Doubles& x, State& s) {
  const size_t c = s.cell.size();
  const Doubles from_in = Product(p[0], x);
  const Doubles from_out = Product(p[1], s.out);
  const size_t first = projected ? 1 : 0;
  Doubles m(c);
  for (size_t j = 0; j < c; ++j) {
    const auto sum = [&](size_t gate) {
      const size_t r = gate * c + j;
      return from_in[r] + from_out[r] + p[2][r] + (projected ? 0.0F : p[3][r]);
    };
    const auto peephole = [&](size_t array) { return projected ? p[array][j] * s.cell[j] : 0.0; };
    const double i = Sigmoid(sum(first) + peephole(3));
    const double f = Sigmoid(sum(first + 1) + peephole(4));
    s.cell[j] = i * std::tanh(sum(projected ? 0 : 2)) + f * s.cell[j];
    m[j] = Sigmoid(sum(3) + peephole(5)) * std::tanh(s.cell[j]);
  }
  s.out = projected ? Product(p[6], m) : m;
  for (size_t r = 0; projected && r < s.out.size(); ++r) s.out[r] += p[7][r];
}

void GruStep(const Floats* p, const Doubles& x, State& s) {
  const size_t n = s.out.size();
  const Doubles from_in = Product(p[0], x);
  const Doubles from_out = Product(p[1], s.out);
  for (size_t j = 0; j < n; ++j) {
    const auto in = [&](size_t gate) { return from_in[gate * n + j] + p[2][gate * n + j]; };
    const auto out = [&](size_t gate) { return from_out[gate * n + j] + p[3][gate * n + j]; };
    const double r = Sigmoid(in(0) + out(0));
    const double z = Sigmoid(in(1) + out(1));
    s.out[j] = (1.0 - z) * std::tanh(in(2) + r * out(2)) + z * s.out[j];
  }
}

Floats Reference(const RecurrentLayout& layout, const RecurrentLayout::Values& values,
                 const Floats& in) {
  const size_t frames = in.size() / layout.input;
  const size_t width = layout.Width();
  const size_t directions = layout.family.directions;
  Floats all(frames * width * directions);
  for (size_t direction = 0; direction < directions; ++direction) {
    const Floats* p = &values[direction * layout.Arrays().size()];
    State state{Doubles(layout.cell), Doubles(width)};
    for (size_t k = 0; k < frames; ++k) {
      const size_t t = direction == 0 ? k : frames - 1 - k;
      const Floats row = RowsOf(in, layout.input, t, t + 1);
      const Doubles x(row.begin(), row.end());
      layout.family.gates == 3 ? GruStep(p, x, state)
                               : LstmStep(p, layout.family.projected, x, state);
      std::ranges::copy(state.out, &all[(t * directions + direction) * width]);
    }
  }
  return all;
}

TEST(Recurrent, AgreesWithDoublePrecision) {
  const struct {
    size_t input, cell, proj, frames;
  } shapes[] = {{3, 1, 1, 1}, {5, 7, 4, 12}, {4, 8, 8, 1}, {16, 24, 24, 33}, {20, 33, 17, 9}};
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    for (const auto& [input, cell, proj, frames] : shapes) {
      SCOPED_TRACE(testing::Message() << family.name << " " << input << " -> " << cell);
      const RecurrentLayout layout{family, input, cell, proj};
      const RecurrentLayout::Values values = layout.RandomValues();
      const Layer layer = ReadLayer(layout.Float(values));
      const Floats in = Random(frames * input, 12);
      ExpectNear(
          RunLayer(*layer, Floats(in), static_cast<int64_t>(frames), static_cast<int>(input)),
          Reference(layout, values, in), 2e-4);
    }
  }
}

TEST(Recurrent, StoredFormsHoldTheSameLayer) {
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    SCOPED_TRACE(family.name);
    const RecurrentLayout layout{family, 3, 4, 2};
    const RecurrentLayout::Values values = layout.RandomValues();
    const Bytes bytes = layout.Float(values);
    const Layer layer = ReadLayer(bytes);
    EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), bytes.str());
    const Layer text = ReadTextLayer(layout.Text("", values));
    EXPECT_EQ(Written([&](FILE* fp) { return text->Write(fp); }), bytes.str());
    uint64_t parameters = 0;
    for (const Floats& array : values) parameters += array.size();
    EXPECT_EQ(layer->ParameterCount(), parameters);
    EXPECT_TRUE(EveryPrefixIsRefused(bytes));
  }
}

// Exchanging the directions' parameters and reversing time exchanges the halves of the output.
TEST(Recurrent, BackwardIsForwardInReversedTime) {
  const Floats in = Random(36, 14);
  Floats reversed(in.size());
  for (size_t i = 0; i < in.size(); ++i) reversed[i] = in[(8 - i / 4) * 4 + i % 4];
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    if (family.directions == 1) continue;
    SCOPED_TRACE(family.name);
    const RecurrentLayout layout{family, 4, 6, 3};
    RecurrentLayout::Values values = layout.RandomValues();
    const Floats out = RunLayer(*ReadLayer(layout.Float(values)), Floats(in), 9, 4);
    std::ranges::rotate(values, values.begin() + static_cast<long>(values.size() / 2));
    const Floats other = RunLayer(*ReadLayer(layout.Float(values)), Floats(reversed), 9, 4);
    const size_t half = layout.Width();
    for (size_t i = 0; i < out.size(); ++i) {
      const size_t t = 8 - i / (2 * half);
      ASSERT_EQ(out[i], other[t * 2 * half + (i + half) % (2 * half)]) << i;
    }
  }
}

// Two calls continue where the first ended, whatever their lengths; a reset starts from zero.
TEST(Recurrent, StateIsCarriedUntilReset) {
  const Floats in = Random(40, 13);
  for (const RecurrentFamily& family : kRecurrentFamilies) {
    if (family.directions == 2) continue;
    SCOPED_TRACE(family.name);
    const RecurrentLayout layout{family, 4, 6, 3};
    const Layer layer = ReadLayer(layout.Float(layout.RandomValues()));
    const Floats whole = RunLayer(*layer, Floats(in), 10, 4);
    layer->Reset();
    Floats halves = RunLayer(*layer, RowsOf(in, 4, 0, 3), 3, 4);
    EXPECT_TRUE(RunLayer(*layer, {}, 0, 4).empty());
    const Floats rest = RunLayer(*layer, RowsOf(in, 4, 3, 10), 7, 4);
    halves.insert(halves.end(), rest.begin(), rest.end());
    ExpectNear(halves, whole, 1e-6);
    layer->Reset();
    ExpectNear(RunLayer(*layer, Floats(in), 10, 4), whole, 0.0);
  }
}

TEST(Lstm, ProjectedCallsOverlap) {
  const RecurrentLayout layout{kRecurrentFamilies[1], 4, 6, 3};
  const Layer layer = ReadLayer(layout.Float(layout.RandomValues()));
  dynamic_cast<LstmProjectedNnet3Streams&>(*layer).overlap_frames = 2;
  const Floats in = Random(60, 15);
  const Floats whole = RunLayer(*layer, Floats(in), 15, 4);
  layer->Reset();
  RunLayer(*layer, RowsOf(in, 4, 0, 10), 10, 4);  // leaves the state after frame 7
  ExpectNear(RunLayer(*layer, RowsOf(in, 4, 8, 10), 2, 4), RowsOf(whole, 3, 8, 10), 1e-6);
  // A call of two frames or fewer moves nothing.
  ExpectNear(RunLayer(*layer, RowsOf(in, 4, 8, 15), 7, 4), RowsOf(whole, 3, 8, 15), 1e-6);
}

TEST(Recurrent, ShapesThatCannotRunAreRefused) {
  constexpr int kHuge = 0x7fffffff;
  const struct {
    int code, input, output, cell;
    bool refused = true;
  } cases[] = {
      {0x103, 3, 0, 0},     {0x103, -1, 2, 0},        {0x106, 2, 3, 2},        {0x106, 2, 1, -5},
      {0x106, 2, 1, kHuge}, {0x106, 2, 1, 2, false},  {0x10c, 2, 3, 4},        {0x10e, 2, 6, 2},
      {0x80e, 2, 6, 2},     {0x10d, 2, 3, 3, false},  {0x10d, 2, 3, 2},        {0x10d, 2, 0, 0},
      {0x10d, -1, 2, 2},    {0x10d, 2, kHuge, kHuge}, {0x110, 2, 6, 3, false}, {0x110, 2, 8, 3},
      {0x110, 2, 7, 3},     {0x110, 2, -4, -2},       {0x80d, 2, 3, 2},        {0x810, 2, 8, 3},
  };
  for (const auto& c : cases) {
    Bytes block;
    if (c.code != 0x103) block.Int(c.cell);
    block.Floats(Floats(1000));
    EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(c.code, c.input, c.output, block)); }),
              c.refused ? "read component failed!" : "")
        << std::hex << c.code << std::dec << " " << c.output << " " << c.cell;
  }
  for (const char* text :
       {"<Blstm> 4 1 <CellDim> 1\n", "<Gru> 4 1 <CellDim> 2\n", "<BGru> 8 1 <CellDim> 3\n",
        "<Gru> 1 1 [ 0 ]", "<FixedBGru> 8 1 <CellDim> 3\n"}) {
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), "read component failed!") << text;
  }
  for (const auto& [component, marker] :
       {std::pair{Component1d(0x103, 0, 1, Bytes().Floats(Floats(12))), "<Lstm>"},
        {Component1d(0x10d, 0, 1, Bytes().Int(1).Floats(Floats(9))), "<Gru>"}}) {
    const Layer layer = ReadLayer(component);
    EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, {1}, 1, 1); }),
              std::string("mismatched input dimension! layer[") + marker + "] [0] vs [1]");
  }
}

TEST(Lstm, MappedBlstmHoldsFloats) {
  const RecurrentLayout layout{kRecurrentFamilies[2], 3, 4, 0};
  const RecurrentLayout::Values values = layout.RandomValues();
  Floats image = {std::bit_cast<float>(int32_t{4})};
  for (const Floats& array : values) image.insert(image.end(), array.begin(), array.end());
  const char* cursor = reinterpret_cast<const char*>(image.data());
  Blstm mapped(3, 8);
  ASSERT_TRUE(mapped.MapData(&cursor));
  EXPECT_EQ(cursor, reinterpret_cast<const char*>(image.data() + image.size()));
  const Layer read = ReadLayer(layout.Float(values));
  const Floats in = Random(15, 16);
  EXPECT_EQ(RunLayer(mapped, Floats(in), 5, 3), RunLayer(*read, Floats(in), 5, 3));
  Blstm other(3, 10);
  cursor = reinterpret_cast<const char*>(image.data());
  EXPECT_FALSE(other.MapData(&cursor));
}

}  // namespace
}  // namespace handwriting::tests
