// Layers that work row by row with a vector or two of parameters: splices, shifts, scales and
// priors, and the normalisation layers with the definition of each kernel on every vector target.

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <tuple>

#include "bench/plain-kernels.h"
#include "nnet/dense/nnet-layer.h"
#include "nnet/dense/normalisation-kernels.h"
#include "nnet/dense/normalisation.h"
#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"
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

// Normalisation.

Bytes BatchNormBlock(float epsilon, const std::vector<Floats>& arrays) {
  Bytes block;
  block.Float(epsilon);
  for (const Floats& array : arrays) block.Floats(array);
  return block;
}

// Target 2.
const Bytes kNormalize = Component1d(0x404, 2, 2, Bytes().Float(2));
// Scales 1/2 and 2, offsets -1/2 and -4.
const Bytes kBatchNormComponent = Component1d(0x405, 2, 2, Bytes().Int(2).Floats({1, 2, 4, 0.25F}));
// Scales 1 and 1, offsets -1 and 7.
const Bytes kStatistics = BatchNormBlock(1, {{1, 0}, {3, 0}, {2, 1}, {0, 7}});
const Bytes kBatchNorm1d = Component1d(0x409, 2, 2, kStatistics);
const Bytes kBatchNorm2d = Component2d(0x407, 2, 2, 0, 0, kStatistics);
const Bytes kLayerNorm =
    Component1d(0x406, 3, 3, Bytes().Int(3).Float(1).Floats({1, 2, 4, 0, 10, 0}));

// Two rows, or for the channel layer two planes of two rows of width 1.
TEST(Normalisation, HandWorkedRows) {
  const struct {
    Bytes component;
    int dim;
    Floats in, out;
    bool in_place;
    uint64_t bytes;
  } cases[] = {{kNormalize, 2, {5, -5, 0, 0}, {2, -2, 0, 0}, false, 0},
               {kBatchNormComponent, 2, {1, 2, 5, 4}, {0, 0, 2, 4}, true, 16},
               {kBatchNorm1d, 2, {1, 1, 3, 3}, {0, 8, 2, 10}, true, 32},
               {kBatchNorm2d, 1, {1, 3, 1, 3}, {0, 2, 8, 10}, false, 32},
               // Mean 2, deviation 1; a row of zeros gives the offsets.
               {kLayerNorm, 3, {1, 2, 3, 0, 0, 0}, {-0.5F, 10, 2, 0, 10, 0}, false, 24}};
  for (const auto& c : cases) {
    const Layer layer = ReadLayer(c.component);
    SCOPED_TRACE(layer->TypeMarker());
    Floats in = c.in;
    EXPECT_EQ(RunLayer(*layer, in, 2, c.dim), c.out);
    EXPECT_EQ(in, c.in_place ? c.out : c.in);
    EXPECT_EQ(RunLayer(*layer, Floats(c.in), 2, c.dim), c.out);  // once folded
    EXPECT_TRUE(RunLayer(*layer, {}, 0, c.dim).empty());
    EXPECT_EQ(layer->MemoryBytes(), c.bytes);
  }
}

// What is written after the first call holds scale and offset in place of the statistics.
TEST(BatchNorm, FoldedParametersAreWritten) {
  const std::pair<Bytes, Bytes> cases[] = {
      {kBatchNormComponent, Bytes().Int(2).Floats({-0.5F, -4, 0.5F, 2})},
      {kBatchNorm1d, BatchNormBlock(1, {{1, 0}, {3, 0}, {1, 1}, {-1, 7}})},
      {kBatchNorm2d, kStatistics}};
  for (const auto& [component, folded_block] : cases) {
    const Layer layer = ReadLayer(component);
    RunLayer(*layer, {1, 1}, 1, layer->is_2d ? 1 : 2);
    EXPECT_EQ(Written([&](FILE* fp) { return layer->WriteFixedData(fp); }), folded_block.str());
  }
}

TEST(BatchNorm, TextFormSetsTargetAndEpsilon) {
  const Layer layer =
      ReadTextLayer("<BatchNormComponent> 1 1 <BlockDim> 1 <Epsilon> 3 <TargetRms> 4\n[ 5 ] [ 1 ]");
  EXPECT_EQ(RunLayer(*layer, {5, 6}, 2, 1), Floats({0, 2}));
}

TEST(BatchNorm2d, TakesItsWidthFromTheCaller) {
  const Layer layer = ReadLayer(kBatchNorm2d);
  EXPECT_EQ(RunLayer(*layer, Floats(12, 1.0F), 2, 3), Floats({0, 0, 0, 0, 0, 0, 8, 8, 8, 8, 8, 8}));
  EXPECT_EQ(layer->InputDim(), 3);
  EXPECT_EQ(layer->OutputDim(), 3);
}

TEST(Normalisation, BlocksThatDoNotFitAreRefused) {
  const Bytes cases[] = {Component1d(0x405, 3, 3, Bytes().Int(2).Floats({1, 2, 3, 4})),
                         Component1d(0x405, -2, -2, Bytes().Int(-2)),
                         Component1d(0x406, 3, 3, Bytes().Int(2).Float(1).Floats({1, 2, 3, 4})),
                         Component1d(0x406, -1, 1, Bytes().Int(-1).Float(1)),
                         Component1d(0x409, -1, 1, Bytes().Float(1)),
                         Component1d(0x409, 0x7fffffff, 1, Bytes().Float(1)),
                         Component2d(0x407, -1, 1, 0, 0, Bytes().Float(1))};
  for (const Bytes& component : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(component); }), "read component failed!");
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<BatchNormComponent> 2 2 <BlockDim> 3\n[ 1 2 3 ]"); }),
            "read component failed!");
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<LayerNorm> 2 2 <Epsilon> 1\nx [ 1 2 ] [ 1 2 ]"); }),
            "wrong matrix format! [leading:x]");
}

// A header may claim other widths than the layer uses: it reads and writes rows of input_dim.
// The scalar meaning of the kernels.

void RmsNormRow(const float* x, size_t n, float target, float* y) {
  float s = 0;
  for (size_t j = 0; j < n; ++j) s += x[j] * x[j];
  s /= target * target * static_cast<float>(n);
  const float factor = s >= 1.3552527e-20F ? 1 / std::sqrt(s) : 8589934592.0F;
  for (size_t j = 0; j < n; ++j) y[j] = x[j] * factor;
}

// Ordinary rows, and some with values that leave no ordinary result.
Floats TestRows(size_t rows, size_t cols) {
  Floats in = Random(rows * cols, 60, 3.0F);
  const auto fill = [&](size_t row, float value) {
    if (row < rows) std::fill_n(in.begin() + static_cast<long>(row * cols), cols, value);
  };
  fill(1, 0.0F);
  fill(2, 0.1F);
  fill(3, 1.0001F * 0.7F * 0x1p-33F);  // at the floor of the mean square, for the target of 0.7
  fill(5, 0.9999F * 0.7F * 0x1p-33F);
  fill(4, 1e-30F);
  fill(6, 1e30F);
  fill(7, 0.7F);
  if (rows > 7) in[7 * cols] = std::nextafter(0.7F, 1.0F);  // in 33 columns of a deviation of 0
  if (rows > 8) in[8 * cols] = std::numeric_limits<float>::quiet_NaN();
  if (rows > 9) in[9 * cols] = std::numeric_limits<float>::infinity();
  return in;
}

TEST(NormalisationKernels, SameBitsAsTheirDefinitionOnEveryTarget) {
  for (const size_t rows : {1, 3, 4, 5, 7, 8, 15, 16, 17, 31, 37}) {
    for (const size_t cols : {1, 2, 3, 4, 7, 16, 33, 300}) {
      SCOPED_TRACE(testing::Message() << rows << " x " << cols);
      const Floats in = TestRows(rows, cols);
      Floats gamma = Random(cols, 61);
      Floats beta = Random(cols, 62);
      if (cols == 7) beta[2] = -0.0F;  // shows the sign of a zero
      if (cols == 4) gamma[3] = std::numeric_limits<float>::infinity();
      const float epsilon = cols == 33 ? 0.0F : 1e-5F;
      if (cols == 300) {  // offsets that leave of one row the last bits of its quotients
        Floats row(cols);
        PlainLayerNorm(&in[std::min<size_t>(20, rows - 1) * cols], cols, gamma.data(), row.data(),
                       epsilon, beta.data());
        std::ranges::transform(beta, beta.begin(), std::negate());
      }
      Floats layer_wanted(in.size());
      Floats rms_wanted(in.size());
      Floats plane_wanted(in.size());
      for (size_t at = 0; at < in.size(); at += cols) {
        PlainLayerNorm(&in[at], cols, gamma.data(), beta.data(), epsilon, &layer_wanted[at]);
        RmsNormRow(&in[at], cols, 0.7F, &rms_wanted[at]);
      }
      std::ranges::transform(in, plane_wanted.begin(), [](float x) { return x * 0.3F + 0.1F; });
      ForEachVectorTarget([&] {
        Floats out(in.size());
        layer_norm(in.data(), rows, cols, gamma.data(), beta.data(), epsilon, out.data());
        ExpectSameBits(out, layer_wanted);
        rms_norm(in.data(), rows, cols, 0.7F, out.data());
        ExpectSameBits(out, rms_wanted);
        scale_and_shift(in.data(), in.size(), 0.3F, 0.1F, out.data());
        ExpectSameBits(out, plane_wanted);
      });
    }
  }
}

}  // namespace
}  // namespace handwriting::tests
