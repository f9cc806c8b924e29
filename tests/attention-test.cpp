// Positional encoding and the transformer blocks, against their definition in double precision.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "nnet/decoder-layer.h"
#include "nnet/positional-encoding.h"
#include "tests/model-builder.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;
using Row = std::vector<double>;
using Rows = std::vector<Row>;

// Room for rounding and for the fast exponential of the softmax.
constexpr double kTolerance = 2e-5;

struct Dense {
  int in;
  int out;
  Floats bias;
  Floats weights;

  Bytes Component() const { return Affine(in, out, bias, weights); }
  std::string Text() const {
    return "<AffineTransform> " + std::to_string(out) + " " + std::to_string(in) + "\n" +
           TextMatrix(weights) + TextMatrix(bias);
  }
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

// Scaled dot-product attention of one query row and one head over the first `keys` keys.
void AttendHead(const Row& query, const Rows& key, const Rows& value, size_t keys, size_t column,
                size_t width, Row& context) {
  Row scores(keys);
  for (size_t s = 0; s < keys; ++s) {
    for (size_t i = column; i < column + width; ++i) scores[s] += query[i] * key[s][i];
    scores[s] /= std::sqrt(static_cast<double>(width));
  }
  const double max = *std::max_element(scores.begin(), scores.end());
  double sum = 0;
  for (double& score : scores) sum += score = std::exp(score - max);
  for (size_t s = 0; s < keys; ++s) {
    for (size_t i = column; i < column + width; ++i) context[i] += scores[s] / sum * value[s][i];
  }
}

Rows Attend(const Rows& query, const Rows& key, const Rows& value, size_t heads, bool causal) {
  Rows context(query.size(), Row(query[0].size()));
  const size_t width = query[0].size() / heads;
  for (size_t t = 0; t < query.size() && !key.empty(); ++t) {
    for (size_t column = 0; column < query[t].size(); column += width) {
      AttendHead(query[t], key, value, causal ? t + 1 : key.size(), column, width, context[t]);
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
    const auto cells = static_cast<size_t>(in) * static_cast<size_t>(out);
    const float range = 1.5F / std::sqrt(static_cast<float>(in));
    layers.push_back(
        {in, out, Random(static_cast<size_t>(out), seed, 0.5F), Random(cells, 100 + seed, range)});
  }
  Bytes Component() const {
    Bytes block;
    block.Int(heads);
    for (const Dense& layer : layers) block.Add(layer.Component());
    return Component1d(type, d, d, block);
  }

  // The residual sums behind the attentions replace `x`; `memory` is of use to a decoder only.
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

  int type;
  int d;
  int heads;
  std::vector<Dense> layers;
};

Rows ToRows(const Floats& values, size_t width) {
  Rows rows;
  for (auto at = values.begin(); at != values.end(); at += static_cast<ptrdiff_t>(width)) {
    rows.emplace_back(at, at + static_cast<ptrdiff_t>(width));
  }
  return rows;
}

void ExpectNear(const Floats& values, const Rows& wanted) {
  ASSERT_EQ(values.size(), wanted.size() * wanted[0].size());
  for (size_t i = 0; i < values.size(); ++i) {
    const double want = wanted[i / wanted[0].size()][i % wanted[0].size()];
    ASSERT_NEAR(values[i], want, kTolerance * (1 + std::abs(want))) << "value " << i;
  }
}

TEST(Encoder, FollowsItsDefinition) {
  const struct {
    int width, heads, hidden;
    size_t frames;
  } cases[] = {{1, 1, 1, 1}, {4, 1, 4, 1}, {6, 6, 9, 5}, {8, 2, 16, 3}, {12, 3, 40, 131}};
  for (const auto& c : cases) {
    const Block block(0x109, c.width, c.heads, c.hidden);
    const auto d = static_cast<size_t>(c.width);
    const Layer layer = ReadLayer(block.Component());
    for (const size_t frames : {c.frames, size_t{1}, c.frames + 2}) {
      Floats in = Random(frames * d, 7, 2.0F);
      Rows x = ToRows(in, d);
      const Rows wanted = block(x);
      ExpectNear(RunLayer(*layer, in, static_cast<int64_t>(frames), c.width), wanted);
      ExpectNear(in, x);
    }
    EXPECT_TRUE(RunLayer(*layer, {}, 0, c.width).empty());
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
Floats RunSteps(Component& layer, Floats in, const std::vector<size_t>& calls, size_t d) {
  Floats out;
  size_t at = 0;
  for (const size_t frames : calls) {
    Floats rows(in.begin() + static_cast<ptrdiff_t>(at * d),
                in.begin() + static_cast<ptrdiff_t>((at + frames) * d));
    const Floats part = RunLayer(layer, rows, static_cast<int64_t>(frames), static_cast<int>(d),
                                 static_cast<int>(at));
    out.insert(out.end(), part.begin(), part.end());
    at += frames;
  }
  return out;
}

TEST(Decoder, StepsFollowTheCausalWhole) {
  const struct {
    int width, heads, hidden;
    size_t memory;
  } cases[] = {{1, 1, 1, 0}, {4, 1, 4, 1}, {6, 6, 9, 0}, {8, 2, 16, 7}, {12, 3, 12, 200}};
  for (const auto& c : cases) {
    const Block block(0x10a, c.width, c.heads, c.hidden);
    const auto d = static_cast<size_t>(c.width);
    const Layer layer = ReadLayer(block.Component());
    auto& decoder = dynamic_cast<Decoder&>(*layer);
    const Floats in = Random(9 * d, 8, 2.0F);
    Floats memory = Random(c.memory * d, 9, 2.0F);
    Rows x = ToRows(in, d);
    const Rows wanted = block(x, ToRows(memory, d));
    layer->Reserve(2);
    for (const std::vector<size_t>& calls :
         std::vector<std::vector<size_t>>{{1, 1, 1, 1, 1, 1, 1, 1, 1}, {9}, {2, 0, 3, 4}}) {
      decoder.SetMemory(memory.data(), static_cast<int64_t>(c.memory));
      ExpectNear(RunSteps(*layer, in, calls, d), wanted);
      layer->Reset();
    }
    // A reset forgets the memory too.
    Rows alone = ToRows(in, d);
    const Rows without = block(alone);
    ExpectNear(RunSteps(*layer, in, {4, 5}, d), without);
    EXPECT_EQ(ThrownBy([&] { decoder.SetMemory(memory.data(), -1); }), "Wrong parameter(s)!");
    EXPECT_EQ(ThrownBy([&] { decoder.SetMemory(nullptr, 1); }), "Wrong parameter(s)!");
  }
}

TEST(Attention, BlocksReadAndWriteInAllForms) {
  for (const int code : {0x109, 0x10a}) {
    const Block block(code, 4, 2, 6);
    const Layer layer = ReadLayer(block.Component());
    EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), block.Component().str());
    EXPECT_TRUE(EveryPrefixIsRefused(block.Component()));
    EXPECT_EQ(layer->ParameterCount(), (code == 0x109 ? 6U : 11U) * 20U + 30U + 28U);
    EXPECT_TRUE(layer->HasFixedForm());

    std::string text =
        std::string(code == 0x109 ? "<Encoder>" : "<Decoder>") + " 4 4\n<HeadNum> 2\n";
    for (const Dense& dense : block.layers) text += dense.Text();
    const Layer from_text = ReadTextLayer(text);
    EXPECT_EQ(Written([&](FILE* fp) { return from_text->Write(fp); }), block.Component().str());
    const std::string fixed = Written([&](FILE* fp) { return layer->WriteFixed(fp); });
    const File file = FileOf(fixed);
    const Layer from_fixed(Component::Read(file.get()));
    EXPECT_EQ(from_fixed->GetType(), code);
    const Floats in = Random(12, 3);
    const Floats wanted = RunLayer(*layer, Floats(in), 3, 4);
    const Floats of_fixed = RunLayer(*from_fixed, Floats(in), 3, 4);
    for (size_t i = 0; i < wanted.size(); ++i) {
      EXPECT_NEAR(of_fixed[i], wanted[i], 0.2);  // eight bits a weight
    }
  }
}

TEST(Attention, RunsInANetwork) {
  const Block block(0x109, 4, 2, 6);
  const Bytes encoding = Component1d(0x108, 4, 4);
  Model model(Network({encoding, block.Component(), block.Component()}));
  const Floats in = Random(20, 5);
  Rows x = ToRows(in, 4);
  for (size_t t = 0; t < x.size(); ++t) {
    const auto p = static_cast<double>(t);
    const double table[] = {std::sin(p), std::cos(p), std::sin(0.01 * p), std::cos(0.01 * p)};
    for (size_t i = 0; i < 4; ++i) x[t][i] += table[i];
  }
  Rows middle = block(x);
  const Rows wanted = block(middle);
  ExpectNear(model.Call(in, 5, 4), wanted);
  ExpectNear(model.Call(in, 5, 4), wanted);
}

// The text that a refused text component leaves in the log.
std::string LogOf(const std::string& text) {
  ::testing::internal::CaptureStderr();
  const std::string thrown = ThrownBy([&] { ReadTextLayer(text); });
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(thrown, "read component failed!") << text;
  return log;
}

TEST(Attention, NestedLayersThatCannotServeAreRefused) {
  const std::string same = "<AffineTransform> 2 2 [ 1 0 0 1 ] [ 0 0 ]\n";
  const std::string wide = "<AffineTransform> 3 2 [ 1 0 0 1 0 0 ] [ 0 0 0 ]\n";
  const std::string narrow = "<AffineTransform> 1 2 [ 1 0 ] [ 0 ]\n";
  const std::string back = "<AffineTransform> 2 3 [ 1 0 0 1 0 0 ] [ 0 0 ]\n";
  const std::string four = same + same + same + same;
  const struct {
    std::string text;
    const char* source;
    const char* reason;
  } cases[] = {
      {"<Encoder> 2 2\n<HeadNum> 0\n", "encoder-layer", "wrong head number! [0] for dimension [2]"},
      {"<Encoder> 2 2\n<HeadNum> -1\n", "encoder-layer", "wrong head number! [-1]"},
      {"<Encoder> 3 3\n<HeadNum> 2\n", "encoder-layer", "wrong head number! [2] for dimension [3]"},
      {"<Encoder> 2 4\n<HeadNum> 1\n", "encoder-layer", "[4 -> 2]"},
      {"<Decoder> 0 0\n<HeadNum> 1\n", "decoder-layer", "[0 -> 0]"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + same + "</Nnet>", "encoder-layer",
       "self_atten layer is NULL"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + four + "</Nnet>", "encoder-layer", "ff layer is NULL"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + four + wide + back + "</Nnet>", "encoder-layer",
       "sub layer is NULL"},
      {"<Decoder> 2 2\n<HeadNum> 1\n" + four + same + "</Nnet>", "decoder-layer",
       "self_atten layer is NULL"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + wide, "encoder-layer", "[2 -> 3], wanted [2 -> 2]"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + four + narrow, "encoder-layer",
       "hidden dimension is too small! layer[<AffineTransform>] [1 < 2]"},
      {"<Encoder> 2 2\n<HeadNum> 1\n" + four + wide + same, "encoder-layer",
       "[2 -> 2], wanted [3 -> 2]"},
      {"<Encoder> 2 2\n<HeadNum> 1\n<Splice> 2 1 [ 0 1 ]\n", "encoder-layer",
       "self_atten layer does not map frame to frame! layer[<Splice>]"},
      {"<Encoder> 2 2\n<HeadNum> 1\n<SlidingWindowComponent> 2 2\n<WindowSize> 1 <HopSize> 1\n",
       "encoder-layer", "layer[<SlidingWindowComponent>]"},
      {"<Decoder> 2 2\n<HeadNum> 1\n<ReLU2d> 1 1 <InputDim> 2 <OutputDim> 2\n", "decoder-layer",
       "layer[<ReLU2d>]"},
  };
  for (const auto& c : cases) {
    const std::string log = LogOf(c.text);
    EXPECT_NE(log.find(c.source), std::string::npos) << log;
    EXPECT_NE(log.find(c.reason), std::string::npos) << c.reason << " in " << log;
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

// A hidden width that stands in headers alone: no memory is taken for it, and what the second layer
// would read of it is not there.
TEST(Attention, AWidthWithoutValuesBehindItIsNotBelieved) {
  constexpr int kHuge = 1 << 28;
  const Bytes same = Component1d(0x202, 2, 2);
  Bytes block;
  block.Int(1).Add(same).Add(same).Add(same).Add(same);
  block.Add(Component1d(0x108, 2, kHuge)).Add(Component1d(0x202, kHuge, 2)).Add(same).Add(same);
  const Layer hidden = ReadLayer(Component1d(0x109, 2, 2, block));
  hidden->Reserve(16);
  EXPECT_LT(hidden->MemoryBytes(), 1000U);
  const std::string thrown = ThrownBy([&] { RunLayer(*hidden, Floats(6), 3, 2); });
  EXPECT_EQ(thrown.substr(0, 16), "too little input");

  const Bytes wide = Component1d(0x202, kHuge, kHuge);
  Bytes all;
  all.Int(1);
  for (int i = 0; i < 8; ++i) all.Add(wide);
  const Layer model = ReadLayer(Component1d(0x109, kHuge, kHuge, all));
  model->Reserve(1000);
  EXPECT_EQ(model->MemoryBytes(), 0U);
}

TEST(PositionalEncoding, AddsTheTableFromPositionZeroOnEveryCall) {
  const float s = std::sin(1.0F);
  const float c = std::cos(1.0F);
  const Floats table = {0, 1, 0, 1, s, c, std::sin(0.01F), std::cos(0.01F)};
  const Layer layer = ReadLayer(Component1d(0x108, 4, 4));
  for (int call = 1; call <= 2; ++call) {
    const Floats out = RunLayer(*layer, Floats(8, 0.0F), 2, 4, call);
    for (size_t i = 0; i < 8; ++i) EXPECT_NEAR(out[i], table[i], 1e-6F) << i;
  }
  // More frames than the header names rows, and the same rows as before in front of them.
  const Floats many = RunLayer(*layer, Floats(4000, 0.0F), 1000, 4);
  EXPECT_NEAR(many[999 * 4], std::sin(999.0), 1e-4);
  EXPECT_NEAR(many[999 * 4 + 3], std::cos(9.99), 1e-4);
  EXPECT_NEAR(many[4], s, 1e-6F);

  // A layer without a width of its own follows its caller.
  const Layer unset = ReadLayer(Component1d(0x808, 0, 0));
  EXPECT_EQ(RunLayer(*unset, Floats(6, 1.0F), 1, 6).size(), 6U);
  EXPECT_NEAR(RunLayer(*unset, Floats(4, 0.0F), 2, 2)[2], s, 1e-6F);
  const Layer huge = ReadLayer(Component1d(0x108, 1 << 30, 1 << 30));
  huge->Reserve(1000);
  EXPECT_EQ(huge->MemoryBytes(), 0U);
}

}  // namespace
}  // namespace handwriting::tests
