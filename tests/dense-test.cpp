// Affine, linear, embedding and highway layers, the 8-bit blocks, and the activations.

#include <algorithm>
#include <cmath>
#include <limits>

#include "nnet/contract/parameter-block.h"
#include "nnet/dense/activation.h"
#include "nnet/dense/affine.h"
#include "tests/support/expect.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

// W = [1 2; 3 4; 5 6] on the rows (1, 0) and (1, -1).
const Floats kWeights = {1, 2, 3, 4, 5, 6};
const Floats kRows = {1, 0, 1, -1};

TEST(Dense, HandWorkedRows) {
  const std::pair<Bytes, Floats> cases[] = {
      {Affine(2, 3, {10, 20, 30}, kWeights), {11, 23, 35, 9, 19, 29}},
      {Component1d(0x101, 2, 3, Bytes().Floats(kWeights)), {1, 3, 5, -1, -1, -1}},
      {Component1d(0x10b, 2, 3, Bytes().Float(2).Floats(kWeights)), {2, 6, 10, -2, -2, -2}}};
  for (const auto& [component, out] : cases) {
    const Layer layer = ReadLayer(component);
    EXPECT_EQ(RunLayer(*layer, Floats(kRows), 2, 2), out);
    EXPECT_EQ(RunLayer(*layer, {1, -1}, 1, 2), Floats(out.begin() + 3, out.end()));
    EXPECT_TRUE(RunLayer(*layer, {}, 0, 2).empty());
    EXPECT_EQ(layer->ParameterCount(), layer->GetType() == 0x100 ? 9U : 6U);
    const uint64_t weight_bytes = 4 * 8 * 2;
    EXPECT_EQ(layer->MemoryBytes(), layer->GetType() == 0x100 ? weight_bytes + 12 : weight_bytes);
  }
}

TEST(Dense, AWidthOtherThanTheWeightsThrowsEvenWhenItIsNotSet) {
  const Layer layer = ReadLayer(Affine(0, 2, {1, 2}, {}));
  EXPECT_EQ(RunLayer(*layer, {}, 1, 0), Floats({1, 2}));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, {5}, 1, 1); }),
            "mismatched input dimension! layer[<AffineTransform>] [0] vs [1]");
}

TEST(Dense, MappedParametersAreUsedInPlaceAndNeverFreed) {
  alignas(float) char image[36];
  const std::string block = Bytes().Floats({10, 20, 30}).Floats(kWeights).str();
  std::copy(block.begin(), block.end(), image);
  const char* cursor = image;
  {
    AffineTransform layer(2, 3);
    ASSERT_TRUE(layer.MapData(&cursor));
    EXPECT_EQ(cursor, image + 36);
    EXPECT_EQ(layer.row_capacity, 3);
    EXPECT_EQ(layer.MemoryBytes(), 36U);
    EXPECT_EQ(static_cast<const void*>(layer.bias.data()), image);
    EXPECT_EQ(RunLayer(layer, Floats(kRows), 2, 2), Floats({11, 23, 35, 9, 19, 29}));
  }
  cursor = image + 1;
  AffineTransform misaligned(2, 3);
  EXPECT_FALSE(misaligned.MapData(&cursor));
}

FloatArray ArrayOf(const Floats& values) {
  FloatArray array;
  uint64_t bytes = 0;
  array.Allocate(1, values.size(), bytes);
  std::copy(values.begin(), values.end(), array.data());
  return array;
}

TEST(FixedBlocks, SymmetricEncoding) {
  const std::pair<Floats, Bytes> cases[] = {
      {{1.0F, -0.5F, 0.25F}, Bytes().Float(127).Codes({127, -64, 32})},
      {{0.5F, -1.0F}, Bytes().Float(127).Codes({64, -127})},
      {{0.0F, -0.0F}, Bytes().Float(1).Codes({0, 0})},
      {{}, Bytes().Float(1)},
      {{NAN, 2.0F}, Bytes().Float(63.5F).Codes({0, 127})}};
  for (const auto& [values, bytes] : cases) {
    FloatArray array = ArrayOf(values);
    const ParameterRef ref = Vector("values", array, static_cast<int64_t>(values.size()));
    EXPECT_EQ(Written([&](FILE* fp) { return WriteCodeBlock(fp, ref, CodeForm::kSymmetric); }),
              bytes.str());
  }
}

TEST(FixedBlocks, AsymmetricEncoding) {
  const float far = 3e9F;  // its zero point would leave 32 bits
  const struct {
    Floats values;
    int64_t rows;
    Bytes bytes;
  } cases[] = {
      {{0.0F, 1.0F}, 0, Bytes().Float(255).Int(0).Codes({0, 255})},
      {{-1.0F, 1.0F}, 0, Bytes().Float(127.5F).Int(-128).Codes({0, 255})},
      {{0.0F, 255.0F, 3.0F, 100.0F},
       2,
       Bytes().Float(1).Int(0).Float(255).Float(103).Codes({0, 255, 3, 100})},
      {{}, 0, Bytes().Float(1).Int(0)},
      {{0.0F, 0.0F}, 1, Bytes().Float(1).Int(0).Float(0).Codes({0, 0})},
      {{2.0F, 2.0F}, 0, Bytes().Float(63.5F).Int(127).Codes({0, 0})},
      {{-2.0F, -2.0F}, 2, Bytes().Float(63.5F).Int(-127).Floats({0, 0}).Codes({0, 0})},
      {{far, far + 256.0F},
       0,
       Bytes().Float(255.0F / 256.0F).Int(std::numeric_limits<int32_t>::max()).Codes({255, 255})}};
  for (const auto& c : cases) {
    FloatArray array = ArrayOf(c.values);
    const auto count = static_cast<int64_t>(c.values.size());
    const ParameterRef ref = c.rows == 0 ? Vector("values", array, count)
                                         : Matrix("values", array, c.rows, count / c.rows);
    EXPECT_EQ(Written([&](FILE* fp) { return WriteCodeBlock(fp, ref, CodeForm::kAsymmetric); }),
              c.bytes.str());
  }
}

// Blocks as an exporter may write them, extreme ones included: what was read is written back.
TEST(FixedDense, ReadingAndWritingGivesTheSameBytes) {
  const Bytes bias = Bytes().Float(127.5F).Int(-128).Codes({0, 255, 100});
  const Bytes sums = Bytes().Floats({1.5F, -2, 9});
  const auto affine = [&](float scale, int zero_point) {
    return Component1d(
        0x800, 2, 3,
        Bytes().Add(bias).Float(scale).Int(zero_point).Add(sums).Codes({0, 1, 127, 128, 254, 255}));
  };
  const auto linear = [](float scale) {
    return Component1d(0x801, 2, 3, Bytes().Float(scale).Codes({-127, -128, 0, 1, 127, 3}));
  };
  const Bytes cases[] = {
      affine(2.0F, -7),
      affine(1e-3F, 2'000'000'000),
      affine(3.0F, std::numeric_limits<int32_t>::min()),
      affine(0.0F, 5),
      linear(12.7F),
      linear(0.0F),
      linear(INFINITY),
      Component1d(0x80b, 1, 2, Bytes().Float(0.5F).Float(127).Codes({64, -127}))};
  for (const Bytes& component : cases) {
    const Layer layer = ReadLayer(component);
    EXPECT_EQ(WrittenBy(*layer), component.str());
    EXPECT_EQ(FixedWrittenBy(*layer), component.str());
    EXPECT_TRUE(EveryPrefixIsRefused(component));
  }
}

TEST(FixedDense, DecodesAndComputesAsItsTwin) {
  const Layer layer = ReadLayer(Component1d(
      0x800, 2, 1, Bytes().Float(10).Int(-5).Codes({15}).Float(2).Int(-3).Float(0).Codes({5, 1})));
  EXPECT_EQ(RunLayer(*layer, {3, 10}, 1, 2), Floats({1.0F + 3.0F * 1.0F - 10.0F * 1.0F}));
  const Layer embedding =
      ReadLayer(Component1d(0x80b, 1, 2, Bytes().Float(0.5F).Float(127).Codes({127, -127})));
  EXPECT_EQ(RunLayer(*embedding, {4}, 1, 1), Floats({2, -2}));
}

TEST(FixedDense, FloatTwinWritesWhatItReads) {
  const Bytes twins[] = {Affine(2, 3, {0, 51, 255}, {0, 255, 1, 2, 3, 4}),
                         Component1d(0x101, 2, 3, Bytes().Floats({127, -127, 0, 1, 2, 3})),
                         Component1d(0x10b, 2, 1, Bytes().Float(2).Floats({-127, 64}))};
  for (const Bytes& bytes : twins) {  // values that 8 bits hold exactly
    const Layer twin = ReadLayer(bytes);
    const Layer fixed = ReadLayer(FixedWrittenBy(*twin));
    EXPECT_EQ(fixed->GetType(), twin->GetFixedType());
    EXPECT_EQ(RunLayer(*fixed, {1, -2, 0.5F, 3}, 2, 2), RunLayer(*twin, {1, -2, 0.5F, 3}, 2, 2));
  }
}

TEST(FixedDense, TextFormDerivesTheScale) {
  const Layer layer = ReadTextLayer("<FixedLinearTransform> 1 2 stray [ 0.3 -2 ]");
  EXPECT_EQ(dynamic_cast<FixedLinearTransform&>(*layer).block_scales[0].scale, 63.5F);
  EXPECT_EQ(RunLayer(*layer, {10, 1}, 1, 2), Floats({10 * 0.3F - 2}));
  const Layer embedding = ReadTextLayer("<FixedEmbedding> 1 1 <Scale> 3\nstray [ 2 ]");
  EXPECT_EQ(RunLayer(*embedding, {1}, 1, 1), Floats({6}));
}

TEST(Activations, OneDimensionalLayersUseTheirOwnWidth) {
  EXPECT_EQ(RunLayer(*ReadLayer(Component1d(0x203, 2, 2)), {-1, 2, 3, -4}, 2, 2),
            Floats({0, 2, 3, 0}));
  const Layer prelu = ReadLayer(Component1d(0x205, 2, 2, Bytes().Float(0.5F)));
  EXPECT_EQ(RunLayer(*prelu, {-1, 2, 3, -4}, 2, 2), Floats({-0.5F, 2, 3, -2}));
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<PReLU> 2 2 [ 1 ]"); }),
            "necessary property is not set! [<Alpha>]");
  const Layer flat = ReadTextLayer("<PReLU> 2 2 <Alpha> 0\n");
  EXPECT_TRUE(std::isnan(RunLayer(*flat, {NAN, -1}, 1, 2)[0]));
}

TEST(Activations, RowsSumToOneInBothScales) {
  const Floats in = {1, 2, 3, 0, 0, 0};
  const Layer softmax = ReadLayer(Component1d(0x201, 3, 3));
  const Layer log_softmax = ReadLayer(Component1d(0x904, 3, 3));
  const Floats p = RunLayer(*softmax, Floats(in), 2, 3);
  const Floats q = RunLayer(*log_softmax, Floats(in), 2, 3);
  const double sum = std::exp(-2.0) + std::exp(-1.0) + 1.0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(p[static_cast<size_t>(i)], std::exp(i - 2.0) / sum, 1e-5);
    EXPECT_NEAR(q[static_cast<size_t>(i)], i - 2.0 - std::log(sum), 2e-4);
    EXPECT_NEAR(q[static_cast<size_t>(3 + i)], -std::log(3.0), 2e-4);
  }
  const Layer single = ReadLayer(Component1d(0x204, 1, 1));
  EXPECT_NEAR(RunLayer(*single, {5}, 1, 1)[0], -1.65e-6, 1e-8);
  const Layer pair = ReadLayer(Component1d(0x204, 2, 2));
  EXPECT_NEAR(RunLayer(*pair, {0, -90}, 1, 2)[1], -88.03, 0.01);
}

TEST(Activations, ChannelLayersAdoptTheCallersWidth) {
  const Layer layer = ReadLayer(Component2d(0x206, 3, 3, 0, 0));
  EXPECT_EQ(RunLayer(*layer, {-1, 1, -1, 1, -1, 1}, 2, 1), Floats({0, 1, 0, 1, 0, 1}));
  EXPECT_EQ(layer->InputDim(), 1);
  EXPECT_EQ(layer->OutputDim(), 1);
  EXPECT_FALSE(layer->input_dim_set);
  EXPECT_EQ(RunLayer(*layer, {1, -2, 3, -4, 5, -6}, 1, 2), Floats({1, 0, 3, 0, 5, 0}));
  EXPECT_EQ(layer->OutputDim(), 2);
}

// The highway layer.

constexpr int kHighway = 0x10f;

struct HighwaySample {
  explicit HighwaySample(size_t n)
      : arrays{Random(n * n, 70), Random(n * n, 71), Random(n, 72), Random(n, 73)} {}

  Bytes Block() const {
    Bytes block;
    for (const Floats& array : arrays) block.Floats(array);
    return block;
  }
  Bytes Component() const {
    const int n = static_cast<int>(arrays[2].size());
    return Component1d(kHighway, n, n, Block());
  }
  // Row j of weights x + bias in double precision.
  double Affine(size_t which, size_t j, const float* x) const {
    const size_t n = arrays[2].size();
    double sum = arrays[which + 2][j];
    for (size_t k = 0; k < n; ++k) sum += double{arrays[which][j * n + k]} * x[k];
    return sum;
  }

  Floats arrays[4];
};

TEST(Highway, AgreesWithDoublePrecision) {
  for (const size_t n : {1, 3, 16, 37}) {
    const HighwaySample sample(n);
    const Layer layer = ReadLayer(sample.Component());
    for (const size_t frames : {1, 2, 19}) {
      const Floats in = Random(frames * n, 74);
      const Floats out =
          RunLayer(*layer, Floats(in), static_cast<int64_t>(frames), static_cast<int>(n));
      ASSERT_EQ(out.size(), in.size());
      for (size_t i = 0; i < in.size(); ++i) {
        const float* x = &in[i / n * n];
        const double h = std::max(0.0, sample.Affine(0, i % n, x));
        const double g = 1.0 / (1.0 + std::exp(-sample.Affine(1, i % n, x)));
        ASSERT_NEAR(out[i], h * g + in[i] * (1.0 - g), 1e-4) << n << " " << frames << " " << i;
      }
    }
    const size_t rows = (n + 7) / 8 * 8;
    EXPECT_EQ(layer->MemoryBytes(), 4 * (2 * rows * n + 2 * n + 2 * 19 * n));
  }
}

TEST(Highway, StoredForms) {
  const HighwaySample sample(3);
  const Bytes component = sample.Component();
  const Layer layer = ReadLayer(component);
  EXPECT_FALSE(layer->HasFixedForm());
  // The fixed-point code reads the same float block.
  const Layer twin = ReadLayer(Component1d(0x80f, 3, 3, sample.Block()));
  EXPECT_EQ(WrittenBy(*twin), component.str());

  const Layer small = ReadLayer(Component1d(kHighway, 1, 1, Bytes().Floats({0.5F, 0, -2, 4})));
  Bytes codes = Bytes().Float(254).Byte(127).Float(1).Byte(0);
  codes.Float(63.5F).Byte(-127).Float(31.75F).Byte(127);
  EXPECT_EQ(FixedWrittenBy(*small), Component1d(kHighway, 1, 1, codes).str());

  for (const auto& [in, out] : {std::pair{3, 2}, {-1, -1}, {1 << 20, 1 << 20}}) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(kHighway, in, out, sample.Block())); }),
              "read component failed!");
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<Highway> 3 2 [ 1 ]"); }), "read component failed!");
  const Layer unset = ReadLayer(Component1d(kHighway, 0, 0));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*unset, {1}, 1, 1); }),
            "mismatched input dimension! layer[<Highway>] [0] vs [1]");
}

}  // namespace
}  // namespace handwriting::tests
