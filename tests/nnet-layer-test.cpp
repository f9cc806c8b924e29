// Splices and the layers with one vector for all rows, alone and in a network.

#include "nnet/nnet-layer.h"

#include <cmath>
#include <tuple>

#include "tests/support/expect.h"
#include "utils/fast-math.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

constexpr int kSplice = 0x401;
constexpr int kAddShift = 0x402;
constexpr int kRescale = 0x403;
constexpr int kAddComponent = 0x408;
constexpr int kPrior = 0x600;

Bytes SpliceOf(int dim, int output_dim, const std::vector<int>& offsets) {
  Bytes block;
  for (const int offset : offsets) block.Int(offset);
  return Component1d(kSplice, dim, output_dim, block);
}

Bytes ColumnLayer(int code, const Floats& values) {
  const int dim = static_cast<int>(values.size());
  return Component1d(code, dim, dim, Bytes().Floats(values));
}

TEST(NnetLayer, HandWorkedRows) {
  const Floats rows = {1, 2, 3, 4};
  const Floats pairs = {1, 2, 3, 4, 5, 6, 7, 8};
  const Floats spliced = {1, 2, 3, 4, 5, 6, 3, 4, 5, 6, 7, 8};
  const Floats triples = {1, 2, 3, 4, 5, 6, 0, 1, 0, 1, 0, 1};
  const Bytes sum = Component1d(kAddComponent, 6, 2, Bytes().Int(3).Floats({1, 1, -2}));
  const struct {
    Bytes component;
    Floats in, out;
    bool in_place = false;
  } cases[] = {{SpliceOf(2, 6, {-1, 0, 1}), pairs, spliced},
               {SpliceOf(1, 2, {0, 2}), rows, {1, 3, 2, 4}},
               {SpliceOf(2, 2, {0}), rows, rows},
               {ColumnLayer(kAddShift, {10, -1}), rows, {11, 1, 13, 3}, true},
               {ColumnLayer(kRescale, {10, -1}), rows, {10, -2, 30, -4}, true},
               {ColumnLayer(kPrior, {10, -1}), rows, {-9, 3, -7, 5}},
               {sum, triples, {-6, -6, 0, 0}}};
  for (const auto& c : cases) {
    const Layer layer = ReadLayer(c.component);
    SCOPED_TRACE(layer->TypeMarker());
    Floats in = c.in;
    const auto frames = static_cast<int64_t>(in.size()) / layer->input_dim;
    EXPECT_EQ(RunLayer(*layer, in, frames, layer->input_dim), c.out);
    EXPECT_EQ(in, c.in_place ? c.out : c.in);
  }
}

TEST(Splice, FramesAndContext) {
  const std::tuple<std::vector<int>, int64_t, int64_t, int64_t, int64_t> cases[] = {
      {{-3, 0, 3}, 3, 3, 6, 0},
      {{-3, 0, 3}, 3, 3, 7, 1},
      {{-2, -1, 0, 1, 2}, 2, 2, 10, 6},
      {{0, 2}, 0, 2, -5, 0},
      {{INT32_MIN, 0, INT32_MAX}, 1LL << 31, INT32_MAX, 1LL << 40, (1LL << 40) - 0xFFFFFFFF}};
  for (const auto& [offsets, left, right, in, out] : cases) {
    const Layer layer = ReadLayer(SpliceOf(1, static_cast<int>(offsets.size()), offsets));
    EXPECT_EQ(layer->LeftContext(), left);
    EXPECT_EQ(layer->RightContext(), right);
    EXPECT_EQ(layer->CalcOutputFrames(in), out);
  }
  const Layer layer = ReadLayer(SpliceOf(1, 3, {-1, 0, 1}));
  EXPECT_EQ(RunLayer(*layer, {1, 2, 3}, 3, 1), Floats({1, 2, 3}));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, Floats(2), 2, 1); }),
            "too few input frames! [frames:2, left:1, right:1]");
}

TEST(NnetLayer, BlocksThatCannotRunAreRefused) {
  const Bytes cases[] = {
      SpliceOf(2, 5, {0, 1}),
      SpliceOf(2, 1, {0}),
      SpliceOf(0, 2, {0}),
      SpliceOf(2, -2, {0}),
      SpliceOf(-2, -2, {0}),
      SpliceOf(1, 3, {-1, 1, 0}),
      SpliceOf(1, 3, {-1, 0, 0}),
      SpliceOf(1, 2, {1, 2}),
      SpliceOf(1, 2, {-2, -1}),
      SpliceOf(1, 0x7fffffff, {0}),
      Component1d(kAddShift, -1, 1, Bytes().Float(1)),
      Component1d(kPrior, 0x7fffffff, 1, Bytes().Float(1)),
      Component1d(kAddComponent, 6, 3, Bytes().Int(3).Floats({1, 1, 1})),
      Component1d(kAddComponent, 0, 3, Bytes().Int(0)),
      Component1d(kAddComponent, 6, -3, Bytes().Int(-2)),
      Component1d(kAddComponent, 0, 1 << 30, Bytes().Int(4).Floats({1, 1, 1, 1}))};
  for (const Bytes& component : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(component); }), "read component failed!");
  }
  for (const char* text : {"<Splice> 5 2 [ 0 1 ]", "<Splice> 2 1 [ 1 2 ]", "<AddShift> 1 -1 [ ]",
                           "<AddComponent> 2 6 <InputNum> 2\n[ 1 1 ]"}) {
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), "read component failed!") << text;
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<Splice> 2147483647 1 [ 0 1 ]"); }),
            "mismatched matrix dimension! [rows:0/1, cols:2/2147483647]");
}

// The stored vector rules the width, even when the header leaves it open; an output dimension that
// differs from it makes the layer write no more than its input.
TEST(NnetLayer, OtherWidthsThanTheStoredVectorThrow) {
  for (const int code : {kAddShift, kRescale, kPrior}) {
    const Layer unset = ReadLayer(Component1d(code, 0, 4));
    EXPECT_EQ(ThrownBy([&] { RunLayer(*unset, Floats(2), 1, 2); }),
              "mismatched input dimension! layer[" + unset->TypeMarker() + "] [0] vs [2]");
    const Layer narrow = ReadLayer(Component1d(code, 3, 1, Bytes().Floats({1, 2, 3})));
    EXPECT_EQ(narrow->Extent(5, 3).writes, 15U);
  }
}

TEST(Prior, TextHoldsWeightsBinaryHoldsLogarithms) {
  const Layer text = ReadTextLayer("<Prior> 2 2 [ 0.125 0.375 ]");
  const auto& prior = dynamic_cast<const Prior&>(*text).prior;
  EXPECT_EQ(prior[0], fast_math::FastLog(0.25F));
  EXPECT_EQ(prior[1], fast_math::FastLog(0.75F));
  EXPECT_NEAR(prior[0], std::log(0.25), 2e-4);
  const Layer binary = ReadLayer(WrittenBy(*text));
  EXPECT_EQ(RunLayer(*binary, {0, 0}, 1, 2), RunLayer(*text, {0, 0}, 1, 2));
  // A weight of 0 becomes a probability of 1e-20.
  const Layer zero = ReadTextLayer("<Prior> 2 2 [ 0 1 ]");
  EXPECT_EQ(dynamic_cast<const Prior&>(*zero).prior[0], fast_math::FastLog(1e-20F));
}

TEST(NnetLayer, InPlaceLayersChangeTheCallersRows) {
  Model model(Network({ColumnLayer(kAddShift, {1, 2}), ColumnLayer(kRescale, {10, 100}),
                       ColumnLayer(kPrior, {5, 5})}));
  Floats features = {1, 2, 3, 4};
  model.forward->Forward(features.data(), 2, 2);
  const float* out = model.forward->Output();
  EXPECT_EQ(Floats(out, out + 4), Floats({15, 395, 35, 595}));
  EXPECT_EQ(features, Floats({2, 4, 4, 6}));
}

}  // namespace
}  // namespace handwriting::tests
