// The recurrent layers: their recurrences in double precision over sequences of calls, their 8-bit
// twins, and what an executor lends them.

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "nnet/recurrent/lstm.h"
#include "tests/support/expect.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Doubles = std::vector<double>;

/// One layer type; `half`: the float form stores binary16, the fixed form codes with a zero point.
struct Family {
  const char* name;
  int code;
  size_t gates, directions;
  bool projected, has_cell_dim, half;
};

constexpr Family kFamilies[] = {{"Lstm", 0x103, 4, 1, false, false, false},
                                {"LstmProjectedNnet3Streams", 0x106, 4, 1, true, true, false},
                                {"Blstm", 0x10e, 4, 2, false, true, true},
                                {"BlstmProjectedNnet3Streams", 0x10c, 4, 2, true, true, false},
                                {"Gru", 0x10d, 3, 1, false, true, false},
                                {"BGru", 0x110, 3, 2, false, true, false}};
constexpr const Family& kProjected = kFamilies[1];
constexpr const Family& kBlstm = kFamilies[2];

/// A family with dimensions.
struct Layout {
  struct Array {
    size_t rows, cols;
  };
  using Values = std::vector<Floats>;

  /// The arrays of one direction in file order.
  std::vector<Array> Arrays() const {
    const size_t g = family.gates * cell;
    if (!family.projected) return {{g, input}, {g, cell}, {1, g}, {1, g}};
    return {{g, input}, {g, proj}, {1, g},       {1, cell},
            {1, cell},  {1, cell}, {proj, cell}, {1, proj}};
  }
  /// Columns of the output of one direction, and of all.
  size_t Width() const { return family.projected ? proj : cell; }
  int OutputDim() const { return static_cast<int>(family.directions * Width()); }

  /// Random parameters of all directions, which the float form holds exactly.
  Values RandomValues(uint32_t seed = 50) const {
    Values values;
    for (size_t direction = 0; direction < family.directions; ++direction) {
      for (const auto& [rows, cols] : Arrays()) {
        values.push_back(Random(rows * cols, seed++, 0.7F));
        if (!family.half) continue;
        for (float& x : values.back()) x = HalfToFloat(FloatToHalf(x));
      }
    }
    return values;
  }

  Bytes Component(int code, const Bytes& arrays) const {
    Bytes block;
    if (family.has_cell_dim) block.Int(static_cast<int32_t>(cell));
    return Component1d(code, static_cast<int>(input), OutputDim(), block.Add(arrays));
  }
  Bytes Float(const Values& values) const {
    Bytes arrays;
    for (const Floats& array : values) {
      for (const float x : array) family.half ? arrays.Raw(FloatToHalf(x)) : arrays.Float(x);
    }
    return Component(family.code, arrays);
  }
  std::string Text(const std::string& prefix, const Values& values) const {
    std::string text = "<" + prefix + family.name + "> " + std::to_string(OutputDim()) + " " +
                       std::to_string(input) + " ";
    if (family.has_cell_dim) text += "<CellDim> " + std::to_string(cell);
    if (family.has_cell_dim) text += family.gates == 4 ? " <ClipGradient> 5\n" : "\n";
    for (const Floats& array : values) text += TextMatrix(array);
    return text;
  }

  Family family;
  size_t input, cell, proj;
};

// Calls of odd and even lengths, of one frame and of none, and a reset between two sequences. A
// projected layer computes in two halves of its state in turn, so the parity matters.
constexpr int64_t kReset = -1;
constexpr int64_t kCalls[] = {5, 4, 0, 1, 3, 2, kReset, 3, 6};

Floats InputOf(size_t call, int64_t frames, size_t dim) {
  return Random(ToSize(frames) * dim, static_cast<uint32_t>(80 + call));
}

/// All rows that come out of the calls; `run` gets each call's input, and nothing for a reset.
template <class Run, class Reset>
Floats JoinCalls(size_t dim, Run run, Reset reset) {
  Floats all;
  for (size_t call = 0; call < std::size(kCalls); ++call) {
    if (kCalls[call] == kReset) {
      reset();
      continue;
    }
    const Floats out = run(InputOf(call, kCalls[call], dim), kCalls[call]);
    all.insert(all.end(), out.begin(), out.end());
  }
  return all;
}

Floats RunCalls(Component& layer) {
  const int dim = layer.InputDim();
  return JoinCalls(
      ToSize(dim), [&](Floats&& in, int64_t frames) { return RunLayer(layer, in, frames, dim); },
      [&] { layer.Reset(); });
}

// The recurrences.

double Sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

Doubles Product(const Floats& matrix, const Doubles& x) {
  Doubles y(matrix.size() / x.size());
  for (size_t i = 0; i < matrix.size(); ++i) y[i / x.size()] += double{matrix[i]} * x[i % x.size()];
  return y;
}

struct State {
  Doubles cell, out;
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

/// The calls by the definition: each direction goes on from the frame that it saw last.
Floats Reference(const Layout& layout, const Layout::Values& values) {
  const size_t width = layout.Width();
  const size_t directions = layout.family.directions;
  const std::vector<State> zero(directions, {Doubles(layout.cell), Doubles(width)});
  std::vector<State> states = zero;
  const auto run = [&](const Floats& in, int64_t count) {
    const size_t frames = ToSize(count);
    Floats out(frames * width * directions);
    for (size_t step = 0; step < frames * directions; ++step) {
      const size_t direction = step % directions, k = step / directions;
      const size_t t = direction == 0 ? k : frames - 1 - k;
      const Floats row = RowsOf(in, layout.input, t, t + 1);
      const Floats* p = &values[direction * layout.Arrays().size()];
      State& state = states[direction];
      layout.family.gates == 3
          ? GruStep(p, {row.begin(), row.end()}, state)
          : LstmStep(p, layout.family.projected, {row.begin(), row.end()}, state);
      std::ranges::copy(state.out, &out[(t * directions + direction) * width]);
    }
    return out;
  };
  return JoinCalls(layout.input, run, [&] { states = zero; });
}

TEST(Recurrent, SequencesOfCallsAgreeWithDoublePrecision) {
  const std::array<size_t, 3> shapes[] = {
      {3, 1, 1}, {5, 7, 4}, {4, 8, 8}, {16, 24, 24}, {20, 33, 17}};
  for (const Family& family : kFamilies) {
    for (const auto& [input, cell, proj] : shapes) {
      SCOPED_TRACE(testing::Message() << family.name << " " << input << " -> " << cell);
      const Layout layout{family, input, cell, proj};
      const Layout::Values values = layout.RandomValues();
      const Bytes bytes = layout.Float(values);
      const Layer layer = ReadLayer(bytes);
      ExpectNear(RunCalls(*layer), Reference(layout, values), 2e-4);
      const Layer text = ReadTextLayer(layout.Text("", values));
      EXPECT_EQ(WrittenBy(*text), bytes.str());
      uint64_t parameters = 0;
      for (const Floats& array : values) parameters += array.size();
      EXPECT_EQ(layer->ParameterCount(), parameters);
      const uint64_t stored = family.half ? 2 : 4;
      EXPECT_GE(layer->MemoryBytes(), stored * parameters + 4 * 6 * family.gates * cell);
    }
  }
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
      {0x110, 2, 7, 3},     {0x110, 2, -4, -2},       {0x80d, 2, 3, 2},        {0x810, 2, 8, 3}};
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

TEST(Recurrent, MappedBlstmHoldsFloats) {
  const Layout layout{kBlstm, 3, 4, 0};
  const Layout::Values values = layout.RandomValues();
  Floats image = {std::bit_cast<float>(int32_t{4})};
  for (const Floats& array : values) image.insert(image.end(), array.begin(), array.end());
  const char* cursor = reinterpret_cast<const char*>(image.data());
  Blstm mapped(3, 8);
  ASSERT_TRUE(mapped.MapData(&cursor));
  EXPECT_EQ(cursor, reinterpret_cast<const char*>(image.data() + image.size()));
  ExpectNear(RunCalls(mapped), RunCalls(*ReadLayer(layout.Float(values))), 1e-6);
  Blstm other(3, 10);
  cursor = reinterpret_cast<const char*>(image.data());
  EXPECT_FALSE(other.MapData(&cursor));
}

// The 8-bit forms.

// One array as it is stored, and the floats that its codes stand for.
struct Stored {
  size_t cols;
  bool half, has_row_sums;
  float scale;
  int32_t zero_point;
  std::vector<uint8_t> codes;
  float sum_offset = 0.0F;

  // Values that 8 bits hold exactly, spread so that encoding them finds this scale again.
  Stored(bool half_arg, const Layout::Array& array, bool row_sums, uint32_t seed)
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
      block.Float(std::accumulate(row, end, sum_offset));
      row = end;
    }
    for (const uint8_t code : codes) block.Byte(code);
  }
};

struct Sample {
  explicit Sample(const Family& family) : layout{family, 3, 4, 2} {
    const std::vector<Layout::Array> one = layout.Arrays();
    for (size_t i = 0; i < family.directions * one.size(); ++i) {
      const size_t k = i % one.size();
      arrays.emplace_back(family.half, one[k], family.half && k < 2, static_cast<uint32_t>(20 + i));
    }
  }

  Bytes Fixed() const {
    Bytes block;
    for (const Stored& array : arrays) array.WriteTo(block);
    return layout.Component(FixedTypeOf(layout.family.code), block);
  }
  Bytes Float() const {
    Layout::Values values;
    for (const Stored& array : arrays) values.push_back(array.Values());
    return layout.Float(values);
  }

  Layout layout;
  std::vector<Stored> arrays;
};

TEST(FixedRecurrent, TwinsAgreeOnValuesThatEightBitsHold) {
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    const Sample sample(family);
    const std::string stored = sample.Fixed().str();
    const Layer fixed = ReadLayer(stored);
    const Layer twin = ReadLayer(sample.Float());
    EXPECT_EQ(FixedWrittenBy(*twin), stored);
    ExpectNear(RunCalls(*fixed), RunCalls(*twin), 1e-5);
    EXPECT_EQ(fixed->ParameterCount(), twin->ParameterCount());
    EXPECT_LT(fixed->MemoryBytes(), twin->MemoryBytes());
  }
}

// Scales, zero points and row sums are written back as they were read, and so are codes that
// encoding the decoded values would not give back: the code -128, a scale of 0, a zero point beyond
// the precision of a float. The row sums take part in no computation.
TEST(FixedRecurrent, AnyStoredBlockIsWrittenBack) {
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    Sample sample(family);
    const Floats wanted = RunCalls(*ReadLayer(sample.Fixed()));
    for (Stored& array : sample.arrays) array.sum_offset = -1.5F;
    EXPECT_EQ(RunCalls(*ReadLayer(sample.Fixed())), wanted);
    for (const float scale : {0.0F, 1e-30F, 17.3F, -5.5F, 1e30F, INFINITY, NAN}) {
      for (const int32_t zero_point : {0, -77, 123456789, INT32_MIN}) {
        for (Stored& array : sample.arrays) {
          array.scale = scale;
          array.zero_point = zero_point;
          array.codes[0] = 0x80;
        }
        const std::string stored = sample.Fixed().str();
        EXPECT_EQ(WrittenBy(*ReadLayer(stored)), stored) << scale;
      }
    }
  }
}

// Values of the text form stay as they are; only the scale of a later write follows from them.
TEST(FixedRecurrent, TextFormIsNotQuantised) {
  for (const Family& family : kFamilies) {
    SCOPED_TRACE(family.name);
    const Layout layout{family, 3, 4, 2};
    const Layout::Values values = layout.RandomValues();
    if (family.half) {
      EXPECT_EQ(ThrownBy([&] { ReadTextLayer(layout.Text("Fixed", values)); }),
                "read component failed!");
      continue;
    }
    const Layer fixed = ReadTextLayer(layout.Text("Fixed", values));
    const Layer twin = ReadTextLayer(layout.Text("", values));
    EXPECT_EQ(RunCalls(*fixed), RunCalls(*twin));
    EXPECT_EQ(WrittenBy(*fixed), FixedWrittenBy(*twin));
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<FixedLstm> 1 1 stray [ 0 0 0 0 ]"); }),
            "wrong matrix format! [leading:stray]");
}

// In a network.

// Splices after a projected LSTM make their context come again in the next call: with the overlap
// of all of them, calls that begin so many frames earlier join to the output of one call. A splice
// before the layer does not count.
TEST(RecurrentNetwork, SplicesMakeTheCallsOfAProjectedLstmOverlap) {
  const Bytes offsets = Bytes().Ints({-1, 0, 1});
  for (const bool is_fixed : {false, true}) {
    const Layout layout{kProjected, 6, 3, 2};
    const Bytes lstm = layout.Float(layout.RandomValues());
    const Bytes stored = is_fixed ? Bytes(FixedWrittenBy(*ReadLayer(lstm))) : lstm;
    Model model(
        Network({Component1d(0x401, 2, 6, offsets), stored, Component1d(0x401, 2, 6, offsets),
                 Component1d(0xa01, 6, 12, Bytes().Ints({0, 2}))}));
    const Floats in = Random(60, 41);
    const Floats whole = model.Call(in, 30, 2);
    ASSERT_EQ(whole.size(), 24U * 12);
    model.forward->Reset();
    Floats joined;
    for (const size_t first : {0, 8, 16}) {  // 14 frames each, 6 of them again in the next
      const Floats out = model.Call(RowsOf(in, 2, first, first + 14), 14, 2);
      joined.insert(joined.end(), out.begin(), out.end());
    }
    ExpectNear(joined, whole, 1e-5);
  }
  // A call of no more frames than come again moves nothing.
  const Layout layout{kProjected, 4, 6, 3};
  const Layer layer = ReadLayer(layout.Float(layout.RandomValues()));
  dynamic_cast<LstmProjectedNnet3Streams&>(*layer).overlap_frames = 2;
  const Floats in = Random(60, 15);
  const Floats whole = RunLayer(*layer, Floats(in), 15, 4);
  layer->Reset();
  for (const auto& [first, last] : {std::pair{0, 10}, {8, 10}, {8, 15}}) {
    ExpectNear(RunLayer(*layer, RowsOf(in, 4, first, last), last - first, 4),
               RowsOf(whole, 3, first, last), 1e-6);
  }
}

// The executor lends its bidirectional layers one gate buffer, which it takes back when it goes.
TEST(RecurrentNetwork, BlstmLayersShareOneGateBuffer) {
  const Layout first{kBlstm, 3, 2, 0}, second{kBlstm, 4, 5, 0};
  const Bytes bytes[] = {first.Float(first.RandomValues(1)), second.Float(second.RandomValues(9))};
  const Floats in = Random(60, 3);
  const Floats between = RunLayer(*ReadLayer(bytes[0]), Floats(in), 20, 3);
  const Floats wanted = RunLayer(*ReadLayer(bytes[1]), Floats(between), 20, 4);
  Model model(Network({bytes[0], bytes[1]}));
  const auto* linked = dynamic_cast<const Blstm*>(model.nnet.layers[0].get());
  model.forward->ReserveFrames(2);  // the slot is read at each call: it may grow
  EXPECT_EQ(model.Call(in, 20, 3), wanted);
  EXPECT_TRUE(linked->gate_buffer.empty());
  EXPECT_EQ(linked->shared_gates->size(), 20U * 4 * 5);
  model.forward.reset();
  for (const Layer& layer : model.nnet.layers) layer->Reset();
  EXPECT_EQ(RunLayer(*model.nnet.layers[0], Floats(in), 20, 3), between);
  model.forward = std::make_unique<NnetForward>(&model.nnet);
  model.forward->Reset();
  EXPECT_EQ(model.Call(in, 20, 3), wanted);
}

}  // namespace
}  // namespace handwriting::tests
