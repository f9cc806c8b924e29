// The GRU layers against the recurrence in double precision.

#include "nnet/gru.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "nnet/recurrent-kernels.h"
#include "tests/model-builder.h"
#include "tests/vector-targets.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;
using Doubles = std::vector<double>;

constexpr int kGru = 0x10d;
constexpr int kBGru = 0x110;

double Sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

// The arrays of one direction in file order.
struct Direction {
  size_t input;
  size_t hidden;
  Floats input_weights;
  Floats recurrent_weights;
  Floats input_bias;
  Floats recurrent_bias;

  Direction(size_t d, size_t h, uint32_t seed)
      : input(d),
        hidden(h),
        input_weights(Random(3 * h * d, seed)),
        recurrent_weights(Random(3 * h * h, seed + 1)),
        input_bias(Random(3 * h, seed + 2)),
        recurrent_bias(Random(3 * h, seed + 3)) {}

  std::vector<const Floats*> Arrays() const {
    return {&input_weights, &recurrent_weights, &input_bias, &recurrent_bias};
  }

  Doubles Product(const Floats& weights, const Floats& bias, const Doubles& x) const {
    Doubles y(bias.begin(), bias.end());
    for (size_t r = 0; r < y.size(); ++r) {
      for (size_t k = 0; k < x.size(); ++k) y[r] += double{weights[r * x.size() + k]} * x[k];
    }
    return y;
  }

  // Hidden vectors of all frames, in sequence order.
  std::vector<Doubles> Run(const std::vector<Doubles>& in, bool backward) const {
    std::vector<Doubles> out(in.size());
    Doubles h(hidden, 0.0);
    for (size_t k = 0; k < in.size(); ++k) {
      const size_t t = backward ? in.size() - 1 - k : k;
      const Doubles from_input = Product(input_weights, input_bias, in[t]);
      const Doubles from_hidden = Product(recurrent_weights, recurrent_bias, h);
      for (size_t j = 0; j < hidden; ++j) {
        const double r = Sigmoid(from_input[j] + from_hidden[j]);
        const double z = Sigmoid(from_input[hidden + j] + from_hidden[hidden + j]);
        const double n = std::tanh(from_input[2 * hidden + j] + r * from_hidden[2 * hidden + j]);
        h[j] = (1.0 - z) * n + z * h[j];
      }
      out[t] = h;
    }
    return out;
  }
};

struct Sample {
  Sample(size_t d, size_t h, size_t directions_arg) : input(d), hidden(h) {
    for (size_t i = 0; i < directions_arg; ++i) {
      directions.emplace_back(d, h, 100 + 10 * static_cast<uint32_t>(i));
    }
  }

  int OutputDim() const { return static_cast<int>(directions.size() * hidden); }
  int Code() const { return directions.size() == 1 ? kGru : kBGru; }

  Bytes Component() const {
    Bytes block;
    block.Int(static_cast<int32_t>(hidden));
    for (const Direction& direction : directions) {
      for (const Floats* array : direction.Arrays()) block.Floats(*array);
    }
    return Component1d(Code(), static_cast<int>(input), OutputDim(), block);
  }

  std::string Text() const {
    std::string text = directions.size() == 1 ? "<Gru> " : "<BGru> ";
    text += std::to_string(OutputDim()) + " " + std::to_string(input) + " <CellDim> " +
            std::to_string(hidden) + "\n";
    for (const Direction& direction : directions) {
      for (const Floats* array : direction.Arrays()) text += TextMatrix(*array);
    }
    return text;
  }

  Floats Expected(const Floats& in) const {
    std::vector<Doubles> rows;
    for (size_t at = 0; at < in.size(); at += input) {
      rows.emplace_back(in.begin() + static_cast<long>(at),
                        in.begin() + static_cast<long>(at + input));
    }
    std::vector<std::vector<Doubles>> halves;
    for (size_t i = 0; i < directions.size(); ++i)
      halves.push_back(directions[i].Run(rows, i == 1));
    Floats out;
    for (size_t t = 0; t < rows.size(); ++t) {
      for (const auto& half : halves) out.insert(out.end(), half[t].begin(), half[t].end());
    }
    return out;
  }

  size_t input;
  size_t hidden;
  std::vector<Direction> directions;
};

void ExpectNear(const Floats& got, const Floats& wanted, float tolerance) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], tolerance) << i;
}

Floats Part(const Floats& values, size_t begin, size_t end) {
  return {values.begin() + static_cast<long>(begin), values.begin() + static_cast<long>(end)};
}

TEST(Gru, AgreesWithDoublePrecision) {
  const struct {
    size_t input, hidden, frames;
  } shapes[] = {{1, 1, 1}, {3, 5, 7}, {4, 8, 1}, {13, 16, 20}, {20, 33, 9}};
  for (const auto& s : shapes) {
    for (const size_t directions : {1, 2}) {
      SCOPED_TRACE(testing::Message() << s.input << " -> " << s.hidden << " x " << directions);
      const Sample sample(s.input, s.hidden, directions);
      const Layer layer = ReadLayer(sample.Component());
      const Floats in = Random(s.frames * s.input, 1);
      ExpectNear(
          RunLayer(*layer, Floats(in), static_cast<int64_t>(s.frames), static_cast<int>(s.input)),
          sample.Expected(in), 2e-4F);
    }
  }
}

TEST(Gru, StoredFormsHoldTheSameLayer) {
  for (const size_t directions : {1, 2}) {
    const Sample sample(3, 4, directions);
    const Bytes component = sample.Component();
    const Layer layer = ReadLayer(component);
    EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), component.str());
    const Layer text = ReadTextLayer(sample.Text());
    EXPECT_EQ(Written([&](FILE* fp) { return text->Write(fp); }), component.str());
    EXPECT_TRUE(EveryPrefixIsRefused(component));
    const uint64_t parameters = directions * (12 * 3 + 12 * 4 + 12 + 12);
    EXPECT_EQ(layer->ParameterCount(), parameters);
    layer->Reserve(10);
    EXPECT_EQ(layer->MemoryBytes(), 4 * (parameters + 10 * 12 + directions * 8));
  }
}

TEST(Gru, StateIsCarriedUntilReset) {
  const Sample sample(4, 6, 1);
  const Layer layer = ReadLayer(sample.Component());
  const Floats in = Random(40, 2);
  const Floats whole = RunLayer(*layer, Floats(in), 10, 4);
  layer->Reset();
  Floats halves = RunLayer(*layer, Part(in, 0, 12), 3, 4);
  EXPECT_TRUE(RunLayer(*layer, {}, 0, 4).empty());
  const Floats rest = RunLayer(*layer, Part(in, 12, 40), 7, 4);
  halves.insert(halves.end(), rest.begin(), rest.end());
  ExpectNear(halves, whole, 1e-6F);
  layer->Reset();
  ExpectNear(RunLayer(*layer, Floats(in), 10, 4), whole, 0);
}

// The backward direction continues from frame 0 of the call before it.
TEST(Gru, BothDirectionsContinueFromTheirOwnLastFrame) {
  const Sample sample(4, 6, 2);
  const Layer layer = ReadLayer(sample.Component());
  const Floats in = Random(40, 3);
  const Floats late = RunLayer(*layer, Part(in, 20, 40), 5, 4);
  const Floats early = RunLayer(*layer, Part(in, 0, 20), 5, 4);
  const Floats whole = sample.Expected(in);
  for (size_t t = 0; t < 5; ++t) {
    for (size_t j = 6; j < 12; ++j) {
      EXPECT_NEAR(late[t * 12 + j], whole[(t + 5) * 12 + j], 2e-4);
      EXPECT_NEAR(early[t * 12 + j], whole[t * 12 + j], 2e-4);
    }
  }
}

// Exchanging the two directions and reversing time exchanges the output halves.
TEST(Gru, BackwardIsForwardInReversedTime) {
  Sample sample(4, 6, 2);
  const Layer layer = ReadLayer(sample.Component());
  std::swap(sample.directions[0], sample.directions[1]);
  const Layer swapped = ReadLayer(sample.Component());
  const Floats in = Random(36, 4);
  Floats reversed(in.size());
  for (size_t i = 0; i < in.size(); ++i) reversed[i] = in[(8 - i / 4) * 4 + i % 4];
  const Floats out = RunLayer(*layer, Floats(in), 9, 4);
  const Floats other = RunLayer(*swapped, std::move(reversed), 9, 4);
  for (size_t i = 0; i < out.size(); ++i) {
    ASSERT_EQ(out[i], other[(8 - i / 12) * 12 + (i % 12 + 6) % 12]) << i;
  }
}

TEST(Gru, ShapesThatCannotRunAreRefused) {
  const struct {
    int code, input, output, cell;
    bool refused;
  } cases[] = {{kGru, 2, 3, 3, false},
               {kGru, 2, 3, 2, true},
               {kGru, 2, 0, 0, true},
               {kGru, -1, 2, 2, true},
               {kGru, 2, 0x7fffffff, 0x7fffffff, true},
               {kBGru, 2, 6, 3, false},
               {kBGru, 2, 8, 3, true},
               {kBGru, 2, 7, 3, true},
               {kBGru, 2, -4, -2, true},
               {0x80d, 2, 3, 2, true},
               {0x810, 2, 8, 3, true}};
  for (const auto& c : cases) {
    const Bytes block = Bytes().Int(c.cell).Floats(Floats(1000));
    EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(c.code, c.input, c.output, block)); }),
              c.refused ? "read component failed!" : "")
        << std::hex << c.code << std::dec << " " << c.output << " " << c.cell;
  }
  for (const char* text : {"<Gru> 4 1 <CellDim> 2\n", "<BGru> 8 1 <CellDim> 3\n", "<Gru> 1 1 [ 0 ]",
                           "<FixedBGru> 8 1 <CellDim> 3\n"}) {
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), "read component failed!") << text;
  }
  const Layer unset = ReadLayer(Component1d(kGru, 0, 1, Bytes().Int(1).Floats(Floats(9))));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*unset, {1}, 1, 1); }),
            "mismatched input dimension! layer[<Gru>] [0] vs [1]");
}

// The fused update gives the bits of the separate steps, on every target and for every tail.
TEST(GruCell, SameBitsAsTheSeparateSteps) {
  for (size_t n = 1; n <= 35; ++n) {
    const Floats gates = Random(3 * n, 5, 6.0F);
    const Floats candidate = Random(n, 6, 3.0F);
    const Floats bias = Random(3 * n, 7);
    const Floats before = Random(n, 8);
    Floats g = gates;
    Floats s = candidate;
    add_vec_to_rows(g.data(), 1, 2 * n, bias.data(), 1.0F);
    fast_sigmoid(g.data(), 1, 2 * n, g.data());
    add_vec_to_rows(s.data(), 1, n, bias.data() + 2 * n, 1.0F);
    float* m = g.data() + 2 * n;
    for (size_t j = 0; j < n; ++j) m[j] += g[j] * s[j];
    fast_tanh(m, 1, n, m);
    for (size_t j = 0; j < n; ++j) {
      m[j] -= g[n + j] * m[j];
      m[j] += g[n + j] * before[j];
    }
    ForEachVectorTarget([&] {
      Floats hidden(n);
      gru_cell({gates.data(), candidate.data(), bias.data(), before.data(), hidden.data()}, n);
      EXPECT_EQ(hidden, Floats(m, m + n)) << n;
    });
  }
}

}  // namespace
}  // namespace handwriting::tests
