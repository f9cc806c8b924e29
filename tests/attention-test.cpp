// Positional encoding and the transformer blocks, against their definition in double precision.

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "nnet/attention/decoder-layer.h"
#include "nnet/attention/positional-encoding.h"
#include "tests/support/expect.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Row = std::vector<double>;
using Rows = std::vector<Row>;

// Room for rounding and for the fast exponential of the softmax.
constexpr double kTolerance = 2e-5;

struct Dense {
  int in, out;
  Floats bias, weights;

  Bytes Component() const { return Affine(in, out, bias, weights); }
  Rows operator()(const Rows& rows) const {
    Rows result;
    for (const Row& row : rows) {
      Row& sums = result.emplace_back(bias.begin(), bias.end());
      for (size_t o = 0; o < sums.size(); ++o) {
        for (size_t i = 0; i < row.size(); ++i) sums[o] += weights[o * row.size() + i] * row[i];
      }
    }
    return result;
  }
};

void Add(Rows& rows, const Rows& other) {
  for (size_t r = 0; r < rows.size(); ++r) {
    for (size_t i = 0; i < rows[r].size(); ++i) rows[r][i] += other[r][i];
  }
}

// Scaled dot-product attention, head by head.
Rows Attend(const Rows& query, const Rows& key, const Rows& value, size_t heads, bool causal) {
  Rows context(query.size(), Row(query[0].size()));
  const size_t width = query[0].size() / heads;
  for (size_t t = 0; t < query.size(); ++t) {
    Row scores(causal ? t + 1 : key.size());
    for (size_t column = 0; column < query[t].size(); column += width) {
      double sum = 0;
      for (size_t s = 0; s < scores.size(); ++s) {
        const auto q = query[t].begin() + static_cast<ptrdiff_t>(column);
        const auto k = key[s].begin() + static_cast<ptrdiff_t>(column);
        const double product = std::inner_product(q, q + static_cast<ptrdiff_t>(width), k, 0.0);
        sum += scores[s] = std::exp(product / std::sqrt(static_cast<double>(width)));
      }
      for (size_t s = 0; s < scores.size(); ++s) {
        const double part = scores[s] / sum;
        for (size_t i = column; i < column + width; ++i) context[t][i] += part * value[s][i];
      }
    }
  }
  return context;
}

// A transformer block of affine layers: those of one attention or two, two feed-forward layers and
// a normalisation before each of these.
struct Block {
  Block(int code, int width, int head_num, int hidden) : type(code), d(width), heads(head_num) {
    const int attentions = code == 0x109 ? 1 : 2;
    for (int i = 0; i < 4 * attentions; ++i) Make(d, d);
    Make(d, hidden);
    Make(hidden, d);
    for (int i = 0; i <= attentions; ++i) Make(d, d);
  }
  void Make(int in, int out) {
    const auto seed = static_cast<uint32_t>(layers.size() + 1);
    const float range = 1.5F / std::sqrt(static_cast<float>(in));
    const Floats bias = Random(static_cast<size_t>(out), seed, 0.5F);
    layers.push_back({in, out, bias, Random(bias.size() * in, 100 + seed, range)});
  }
  Bytes Component() const {
    Bytes block;
    block.Int(heads);
    for (const Dense& layer : layers) block.Add(layer.Component());
    return Component1d(type, d, d, block);
  }

  // The residual sums after the attentions replace `x`; `memory` is of use to a decoder only.
  Rows operator()(Rows& x, const Rows& memory = {}) const {
    const auto h = static_cast<size_t>(heads);
    const bool decodes = type == 0x10a;
    const size_t ff = decodes ? 8 : 4;
    const Dense* norm = &layers[ff + 2];
    const Rows y = norm[0](x);
    Add(x, layers[3](Attend(layers[0](y), layers[1](y), layers[2](y), h, decodes)));
    if (decodes) {
      const Rows query = layers[4](norm[1](x));
      Add(x, layers[7](Attend(query, layers[5](memory), layers[6](memory), h, false)));
    }
    Rows hidden = layers[ff](norm[decodes ? 2 : 1](x));
    for (Row& row : hidden) {
      for (double& value : row) value = std::max(0.0, value);
    }
    Rows out = layers[ff + 1](hidden);
    Add(out, x);
    return out;
  }

  int type, d, heads;
  std::vector<Dense> layers;
};

Rows ToRows(const Floats& values, int width) {
  Rows rows;
  for (auto at = values.begin(); at != values.end(); at += width) rows.emplace_back(at, at + width);
  return rows;
}

void ExpectRows(const Floats& values, const Rows& wanted) {
  ASSERT_EQ(values.size(), wanted.size() * wanted[0].size());
  for (size_t i = 0; i < values.size(); ++i) {
    const double want = wanted[i / wanted[0].size()][i % wanted[0].size()];
    ASSERT_NEAR(values[i], want, kTolerance * (1 + std::abs(want))) << "value " << i;
  }
}

TEST(Encoder, FollowsItsDefinition) {
  for (const auto& [d, heads, hidden, most] :
       {std::array{1, 1, 1, 1}, {4, 1, 4, 1}, {6, 6, 9, 5}, {8, 2, 16, 3}, {12, 3, 40, 131}}) {
    const Block block(0x109, d, heads, hidden);
    const Layer layer = ReadLayer(block.Component());
    for (const int frames : {most, 1, most + 2}) {
      Floats in = Random(static_cast<size_t>(frames * d), 7, 2.0F);
      Rows x = ToRows(in, d);
      const Rows wanted = block(x);
      ExpectRows(RunLayer(*layer, in, frames, d), wanted);
      ExpectRows(in, x);
    }
    EXPECT_TRUE(RunLayer(*layer, {}, 0, d).empty());
  }
}

TEST(Encoder, ResidualSumsSeeTheRowsAsASubLayerLeftThem) {
  const Bytes same = Affine(1, 1, {0}, {1});
  // Scale 2 and offset 1, written through the input.
  const Bytes doubles = Component1d(0x409, 1, 1, Bytes().Floats({1, 0, 3, 4, 1}));
  Bytes block;
  block.Int(1).Add(same).Add(same).Add(same).Add(same).Add(same).Add(same).Add(doubles).Add(same);
  const Layer layer = ReadLayer(Component1d(0x109, 1, 1, block));
  Floats in = {3};
  EXPECT_EQ(RunLayer(*layer, in, 1, 1), Floats{28});  // 7 + 7 = 14, then 14 + 14
  EXPECT_EQ(in, Floats{14});
}

// Feeds `in` to the decoder in calls of the given sizes.
Floats RunSteps(Component& layer, const Floats& in, const std::vector<int>& calls, int d) {
  Floats out;
  int at = 0;
  for (const int frames : calls) {
    const auto from = in.begin() + at * d;
    const Floats part = RunLayer(layer, Floats(from, from + frames * d), frames, d, at);
    out.insert(out.end(), part.begin(), part.end());
    at += frames;
  }
  return out;
}

TEST(Decoder, StepsFollowTheCausalWhole) {
  for (const auto& [d, heads, hidden, held] :
       {std::array{1, 1, 1, 0}, {4, 1, 4, 1}, {6, 6, 9, 0}, {8, 2, 16, 7}, {12, 3, 12, 200}}) {
    const Block block(0x10a, d, heads, hidden);
    const Layer layer = ReadLayer(block.Component());
    auto& decoder = dynamic_cast<Decoder&>(*layer);
    const Floats in = Random(static_cast<size_t>(9 * d), 8, 2.0F);
    Floats memory = Random(static_cast<size_t>(held * d), 9, 2.0F);
    Rows x = ToRows(in, d);
    const Rows wanted = block(x, ToRows(memory, d));
    layer->Reserve(2);
    for (const auto& calls : {std::vector<int>(9, 1), {9}, {2, 0, 3, 4}}) {
      decoder.SetMemory(memory.data(), held);
      ExpectRows(RunSteps(*layer, in, calls, d), wanted);
      layer->Reset();
    }
    // A memory that is set again serves the steps from there on.
    Floats other = Random(static_cast<size_t>(3 * d), 10, 2.0F);
    x = ToRows(in, d);
    Rows late = block(x, ToRows(other, d));
    late.erase(late.begin(), late.begin() + 4);
    decoder.SetMemory(memory.data(), held);
    RunSteps(*layer, in, {3, 1}, d);
    decoder.SetMemory(other.data(), 3);
    ExpectRows(RunSteps(*layer, Floats(in.begin() + 4 * d, in.end()), {2, 3}, d), late);
    layer->Reset();
    // A reset forgets the memory too.
    Rows alone = ToRows(in, d);
    ExpectRows(RunSteps(*layer, in, {4, 5}, d), block(alone));
    EXPECT_EQ(ThrownBy([&] { decoder.SetMemory(memory.data(), -1); }), "Wrong parameter(s)!");
    EXPECT_EQ(ThrownBy([&] { decoder.SetMemory(nullptr, 1); }), "Wrong parameter(s)!");
  }
}

TEST(Attention, FixedFormHoldsTheSameLayer) {
  for (const int code : {0x109, 0x10a}) {
    const Layer layer = ReadLayer(Block(code, 4, 2, 6).Component());
    EXPECT_EQ(layer->ParameterCount(), (code == 0x109 ? 6U : 11U) * 20U + 30U + 28U);
    const Layer fixed = ReadLayer(FixedWrittenBy(*layer));
    EXPECT_EQ(fixed->GetType(), code);
    const Floats in = Random(12, 3);
    const Floats wanted = RunLayer(*layer, Floats(in), 3, 4);
    ExpectNear(RunLayer(*fixed, Floats(in), 3, 4), wanted, 0.2);  // 8 bits a weight
  }
}

// A layer of another kind in the place of each that a container nests.
TEST(Attention, ResetAndFixedFormGoByEveryNestedLayer) {
  const Bytes lstm = Component1d(0x103, 2, 2, Bytes().Floats(Random(48, 4, 2.0F)));
  const Bytes highway = Component1d(0x10f, 2, 2, Bytes().Floats(Random(12, 5)));
  const Floats in = Random(6, 6);
  Floats memory = Random(8, 7);
  for (const auto& [code, places] : {std::pair{0x109, 8}, {0x10a, 13}}) {
    const auto container = [&, code = code, places = places](int place, const Bytes& other) {
      Bytes block = Bytes().Int(1);
      for (int i = 0; i < places; ++i) {
        block.Add(i == place ? other : Affine(2, 2, {0, 1}, Random(4, static_cast<uint32_t>(i))));
      }
      return ReadLayer(Component1d(code, 2, 2, block));
    };
    EXPECT_TRUE(container(-1, lstm)->HasFixedForm());
    for (int place = 0; place < places; ++place) {
      SCOPED_TRACE(testing::Message() << code << " " << place);
      EXPECT_FALSE(container(place, highway)->HasFixedForm());
      const Layer layer = container(place, lstm);
      const auto run = [&, decoder = dynamic_cast<Decoder*>(layer.get())] {
        layer->Reset();
        if (decoder != nullptr) decoder->SetMemory(memory.data(), 4);
        return RunLayer(*layer, Floats(in), 3, 2);
      };
      const Floats first = run();
      EXPECT_EQ(run(), first);
    }
  }
}

TEST(Attention, NestedLayersThatCannotServeAreRefused) {
  const std::string same = "<AffineTransform> 2 2 [ 1 0 0 1 ] [ 0 0 ]\n";
  const std::string wide = "<AffineTransform> 3 2 [ 1 0 0 1 0 0 ] [ 0 0 0 ]\n";
  const std::string narrow = "<AffineTransform> 1 2 [ 1 0 ] [ 0 ]\n";
  const std::string back = "<AffineTransform> 2 3 [ 1 0 0 1 0 0 ] [ 0 0 ]\n";
  const std::string encoder = "<Encoder> 2 2\n<HeadNum> 1\n", end = "</Nnet>";
  const std::string decoder = "<Decoder> 2 2\n<HeadNum> 1\n", four = same + same + same + same;
  const std::string windows = "<SlidingWindowComponent> 2 2\n<WindowSize> 1 <HopSize> 1\n";
  const std::pair<std::string, const char*> cases[] = {
      {"<Encoder> 2 2\n<HeadNum> 0\n", "wrong head number! [0] for dimension [2]"},
      {"<Encoder> 2 2\n<HeadNum> -1\n", "wrong head number! [-1]"},
      {"<Encoder> 3 3\n<HeadNum> 2\n", "wrong head number! [2] for dimension [3]"},
      {"<Encoder> 2 4\n<HeadNum> 1\n", "[4 -> 2]"},
      {"<Decoder> 0 0\n<HeadNum> 1\n", "[0 -> 0]"},
      {encoder + same + end, "self_atten layer is NULL"},
      {encoder + four + end, "ff layer is NULL"},
      {encoder + four + wide + back + end, "sub layer is NULL"},
      {decoder + four + same + end, "self_atten layer is NULL"},
      {encoder + wide, "[2 -> 3], wanted [2 -> 2]"},
      {encoder + four + narrow, "hidden dimension is too small! layer[<AffineTransform>] [1 < 2]"},
      {encoder + four + wide + same, "[2 -> 2], wanted [3 -> 2]"},
      {encoder + "<Splice> 2 1 [ 0 1 ]\n", "layer does not map frame to frame! layer[<Splice>]"},
      {encoder + windows, "layer[<SlidingWindowComponent>]"},
      {decoder + "<ReLU2d> 1 1 <InputDim> 2 <OutputDim> 2\n", "layer[<ReLU2d>]"}};
  for (const auto& [text, reason] : cases) {
    const std::string log = PrintedBy([&, &t = text] {
      EXPECT_EQ(ThrownBy([&] { ReadTextLayer(t); }), "read component failed!") << t;
    });
    const char* source = text[1] == 'E' ? "encoder-layer" : "decoder-layer";
    EXPECT_NE(log.find(source), std::string::npos) << log;
    EXPECT_NE(log.find(reason), std::string::npos) << reason << " in " << log;
  }
}

TEST(Attention, NestingIsBounded) {
  const Bytes leaf = Affine(1, 1, {0}, {1});
  const auto nested = [&leaf](int encoders) {
    Bytes inner = leaf;
    for (int i = 0; i < encoders; ++i) {
      Bytes block;
      block.Int(1).Add(inner);
      for (int k = 1; k < 8; ++k) block.Add(leaf);
      inner = Component1d(0x109, 1, 1, block);
    }
    return inner;
  };
  const std::string too_deep = "components nested too deeply! [16]";
  EXPECT_EQ(ThrownBy([&] { ReadLayer(nested(16)); }), too_deep);
  EXPECT_EQ(ThrownBy([&] { ReadLayer(nested(1000)); }), too_deep);
  const Layer layer = ReadLayer(nested(15));
  // The n-th block from within leaves (n + 1) x in its input rows, the query projection in its turn
  // being in front of the value projection; its output is twice that.
  EXPECT_EQ(RunLayer(*layer, {1}, 1, 1), Floats{32});
  EXPECT_EQ(layer->ParameterCount(), 2U * (15 * 7 + 1));
}

// Widths that stand in headers alone: a layer that cannot widen its rows is refused, and no memory
// is taken ahead for the others.
TEST(Attention, AWidthWithoutValuesBehindItIsNotBelieved) {
  constexpr int kHuge = 1 << 28;
  const Bytes same = Component1d(0x202, 2, 2);
  Bytes block;
  block.Int(1).Add(same).Add(same).Add(same).Add(same);
  block.Add(Component1d(0x108, 2, kHuge)).Add(Component1d(0x202, kHuge, 2)).Add(same).Add(same);
  EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(0x109, 2, 2, block)); }),
            "read component failed!");

  const Bytes wide = Component1d(0x202, kHuge, kHuge);
  Bytes all;
  all.Int(1);
  for (int i = 0; i < 8; ++i) all.Add(wide);
  for (const Bytes& component :
       {Component1d(0x109, kHuge, kHuge, all), Component1d(0x108, kHuge, kHuge)}) {
    const Layer layer = ReadLayer(component);
    layer->Reserve(1000);
    EXPECT_EQ(layer->MemoryBytes(), 0U);
  }
}

// More frames than the header names rows, and fewer again; a layer without a width of its own takes
// any, and a table for each.
TEST(PositionalEncoding, AddsTheTableFromPositionZeroOnEveryCall) {
  const std::pair<int, std::vector<std::array<int, 2>>> cases[] = {
      {4, {{2, 4}, {2, 4}, {1000, 4}, {3, 4}}}, {0, {{5, 6}, {4, 4}, {3, 2}, {5, 6}, {7, 2}}}};
  for (const auto& [width, calls] : cases) {
    const Layer layer = ReadLayer(Component1d(0x108, width, width));
    for (const auto& [frames, dim] : calls) {
      const Floats out = RunLayer(*layer, Floats(ToSize(frames * dim), 1.0F), frames, dim);
      ASSERT_EQ(out.size(), ToSize(frames * dim));
      for (size_t i = 0; i < out.size(); ++i) {
        const size_t n = ToSize(dim), pair = i % n / 2;
        const double angle =
            static_cast<double>(i / n) * std::pow(10000.0, -2.0 * static_cast<double>(pair) / dim);
        const double wanted = 1 + (i % 2 == 0 ? std::sin(angle) : std::cos(angle));
        EXPECT_NEAR(out[i], wanted, 1e-6 * (1 + angle / 10)) << i;
      }
    }
  }
}

}  // namespace
}  // namespace handwriting::tests
