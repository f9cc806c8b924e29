#include "nnet/convolution/convolution.h"

#include <algorithm>
#include <limits>
#include <tuple>

#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"

namespace handwriting::tests {
namespace {

struct Planes {
  int in_channels, out_channels, width, frames;
  int out_width = 0;  // 0: not set
};

struct Weights {
  Floats kernel, bias;
};

Weights RandomWeights(const Planes& s, uint32_t seed) {
  return {Random(static_cast<size_t>(s.in_channels * s.out_channels * 3), seed),
          Random(static_cast<size_t>(s.out_channels), seed + 1)};
}

Bytes SimpleFile(int code, const Planes& s, const Weights& weights) {
  return Component2d(code, s.in_channels, s.out_channels, s.width, s.out_width,
                     Bytes().Floats(weights.kernel).Floats(weights.bias));
}

Floats RandomInput(const Planes& s, uint32_t seed) {
  return Random(static_cast<size_t>(s.in_channels * s.frames * s.width), seed);
}

float At(const Floats& planes, const Planes& s, int c, int t, int x) {
  return x < 0 || x >= s.width ? 0.0F
                               : planes[static_cast<size_t>((c * s.frames + t) * s.width + x)];
}

const float* KernelAt(const Weights& weights, const Planes& s, int o, int i) {
  return weights.kernel.data() + (o * s.in_channels + i) * 3;
}

Floats PlainHalve(const Planes& s, const Weights& weights, const Floats& in, int out_width) {
  Floats out;
  for (int o = 0; o < s.out_channels; ++o) {
    for (int row = 0; row < s.frames * out_width; ++row) {
      const int t = row / out_width;
      const int x = row % out_width;
      float sum = weights.bias[static_cast<size_t>(o)];
      for (int i = 0; i < s.in_channels; ++i) {
        const float* w = KernelAt(weights, s, o, i);
        sum += ((At(in, s, i, t, 2 * x - 1) * w[0]) + At(in, s, i, t, 2 * x) * w[1]) +
               At(in, s, i, t, 2 * x + 1) * w[2];
      }
      out.push_back(sum);
    }
  }
  return out;
}

// Adds every input value to the three columns that it reaches, then crops the first column.
Floats PlainDouble(const Planes& s, const Weights& weights, const Floats& in) {
  Floats out;
  const size_t columns = static_cast<size_t>(2 * s.width + 1);
  for (int o = 0; o < s.out_channels; ++o) {
    for (int t = 0; t < s.frames; ++t) {
      Floats sums(columns, weights.bias[static_cast<size_t>(o)]);
      for (int i = 0; i < s.in_channels; ++i) {
        const float* w = KernelAt(weights, s, o, i);
        for (int x = 0; x < s.width; ++x) {
          for (int j = 0; j < 3; ++j) {
            sums[static_cast<size_t>(2 * x + j)] += At(in, s, i, t, x) * w[j];
          }
        }
      }
      out.insert(out.end(), sums.begin() + 1, sums.end());
    }
  }
  return out;
}

// Positions and channels around the widths of the kernels, and without any.
constexpr Planes kPlanes[] = {{1, 1, 4, 1},  {1, 1, 1, 1},   {2, 3, 7, 5},   {3, 4, 2, 3},
                              {5, 9, 16, 2}, {4, 8, 33, 1},  {0, 2, 3, 2},   {2, 0, 3, 2},
                              {1, 6, 1, 9},  {8, 5, 20, 11}, {2, 2, 5, 3, 3}};

/// Runs both layers on every vector target.
void ExpectPlainBits(Planes s, const Weights& weights, const Floats& in) {
  const int out_width = s.out_width > 0 ? s.out_width : s.width / 2;
  const Layer halve = ReadLayer(SimpleFile(0x305, s, weights));
  s.out_width = 0;
  const Layer twice = ReadLayer(SimpleFile(0x306, s, weights));
  ForEachVectorTarget([&] {
    ExpectSameBits(RunLayer(*halve, Floats(in), s.frames, s.width),
                   PlainHalve(s, weights, in, out_width));
    ExpectSameBits(RunLayer(*twice, Floats(in), s.frames, s.width), PlainDouble(s, weights, in));
  });
  EXPECT_EQ(halve->OutputDim(), out_width);
}

TEST(SimpleConvolutions, GiveTheBitsOfThePlainLoop) {
  for (const Planes& s : kPlanes) ExpectPlainBits(s, RandomWeights(s, 1), RandomInput(s, 3));
}

// Zeros of padding take part in the halving sum, so that an infinite weight makes them NaN; nothing
// lies beyond the last position of the doubling one.
TEST(SimpleConvolutions, SpecialValuesAtTheEdges) {
  const Planes s = {2, 5, 3, 4};
  Weights weights = {RandomWeights(s, 7).kernel, Floats(5, -0.0F)};
  for (size_t i = 0; i < weights.kernel.size(); i += 3) {
    weights.kernel[i] = i % 2 == 0 ? std::numeric_limits<float>::infinity() : -0.0F;
  }
  Floats in = RandomInput(s, 8);
  for (size_t i = 0; i < in.size(); i += 4) in[i] = i % 8 == 0 ? -0.0F : 0.0F;
  ExpectPlainBits(s, weights, in);
}

TEST(SimpleConvolutions, RowsWorkedByHand) {
  const Weights weights = {{2, 3, 5}, {100}};
  // Columns 0 1 2 | 2 3 4 of the padded row 0, 1, 10, 100, 1000, 0.
  const Layer halve = ReadLayer(SimpleFile(0x305, {1, 1, 4, 1, 2}, weights));
  EXPECT_EQ(RunLayer(*halve, {1, 10, 100, 1000}, 1, 4), (Floats{153, 5420}));
  // Seven positions give three when the header says nothing.
  const Layer adopting = ReadLayer(Component2d(0x305, 1, 1, 0, 0, Bytes().Floats({0, 1, 0, 0})));
  EXPECT_EQ(RunLayer(*adopting, {1, 2, 3, 4, 5, 6, 7}, 1, 7), (Floats{1, 3, 5}));
  EXPECT_EQ(RunLayer(*adopting, {1, 2, 3, 4}, 2, 2), (Floats{1, 3}));
  const Layer two = ReadLayer(SimpleFile(0x306, {1, 1, 2, 1, 4}, weights));
  EXPECT_EQ(RunLayer(*two, {1, 10}, 1, 2), (Floats{103, 125, 130, 150}));
}

TEST(SimpleConvolutions, RefuseWidthsThatDoNotFit) {
  const auto failure = [](int code, int out_width) {
    const Planes s = {1, 1, 4, 1, out_width};
    const Layer layer = ReadLayer(SimpleFile(code, s, RandomWeights(s, 1)));
    return ThrownBy([&] { RunLayer(*layer, Floats(4), 1, 4); });
  };
  EXPECT_EQ(failure(0x305, 3),
            "mismatched widths! layer[<SimpleConv2d1x3s2>] input [4] output [3]");
  EXPECT_EQ(failure(0x306, 7),
            "mismatched widths! layer[<SimpleDeconv2d1x3s2>] input [4] output [7]");
  // Without input channels no input backs the width, and twice of it is no dimension.
  const Layer layer = ReadLayer(Component2d(0x306, 0, 1, 0, 0, Bytes().Floats({1})));
  float out = 0.0F;
  int width = 0;
  EXPECT_EQ(ThrownBy([&] { layer->Propagate(nullptr, 1, 2147483647, &out, &width, 1); }),
            "mismatched widths! layer[<SimpleDeconv2d1x3s2>] input [0] output [4294967294]");
}

// What is stored only.

Bytes Conv2dFile(int in_channels, int out_channels, int groups, int height = 2, int width = 3) {
  const int count = in_channels * out_channels / std::max(groups, 1) * height * width;
  const Bytes block = Bytes()
                          .Ints({height, width, 1, 2, 3, 4, 5, 6, 7, 8, groups, 0})
                          .Floats(Random(static_cast<size_t>(std::max(count, 0)), 11));
  return Component2d(0x301, in_channels, out_channels, 9, 0, block);
}
const Bytes kConv = Conv2dFile(2, 2, 2);
const Bytes kNorm = Component2d(0x407, 2, 2, 0, 0, Bytes().Float(0.1F).Floats(Random(8, 13)));
const Bytes kPRelu = Component2d(0x207, 2, 2, 0, 0, Bytes().Float(0.25F));

Bytes Composite(int code, std::initializer_list<Bytes> components) {
  Bytes block;
  for (const Bytes& component : components) block.Add(component);
  return Component2d(code, 2, 2, 0, 0, block);
}

TEST(StoredConvolutions, DoNotRunAndCountWhatTheyHold) {
  const std::tuple<Bytes, const char*, uint64_t, uint64_t> files[] = {
      {kConv, "<Conv2d>", 12, 0},
      {Composite(0x302, {kConv, kNorm, kPRelu}), "<ConvBN2d>", 12 + 8 + 1, 1},
      {Composite(0x303, {kConv, kNorm, kPRelu, kConv, kNorm, kPRelu}), "<ConvDW2d>", 42, 2},
      {Composite(0x304, {kConv, kPRelu, kConv}), "<SeperableConv2d>", 25, 0}};
  for (const auto& [bytes, marker, parameters, norms] : files) {
    SCOPED_TRACE(marker);
    const Layer layer = ReadLayer(bytes);
    EXPECT_EQ(layer->ParameterCount(), parameters);
    EXPECT_GE(layer->MemoryBytes(), 12U * 4 + norms * ReadLayer(kNorm)->MemoryBytes());
    // The fixed-point code makes the same class, which says the same.
    const Layer again = ReadLayer(FixedWrittenBy(*layer));
    for (runtime::Component* refusing : {layer.get(), again.get()}) {
      EXPECT_EQ(ThrownBy([&] { RunLayer(*refusing, {}, 1, 9); }),
                "propagate function of [" + std::string(marker) + "] is not implemented!");
    }
  }
}

TEST(StoredConvolutions, RefuseShapesWithoutMeaning) {
  // The sizes of the last one have a product that wraps around.
  const Bytes wrapping = Bytes().Ints({1 << 30, 1 << 30, 1, 1, 0, 0, 0, 0, 1, 1, 1, 0});
  for (const Bytes& bytes :
       {Conv2dFile(2, 2, 0), Conv2dFile(2, 2, -1), Conv2dFile(1, 1, 2), Conv2dFile(-1, 1, 1),
        Conv2dFile(1, 1, 1, -1, 1), Conv2dFile(1, 1, 1, 1, -1),
        SimpleFile(0x305, {-1, 1, 1, 1}, {}), SimpleFile(0x306, {1, -1, 1, 1}, {}),
        Component2d(0x301, 1 << 16, 1 << 16, 0, 0, wrapping)}) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(bytes); }), "read component failed!");
  }
}

TEST(StoredConvolutions, NameTheComponentThatIsMissing) {
  const std::string conv =
      "<Conv2d> 2 2 <KernelHeight> 1 <KernelWidth> 1 <StrideHeight> 1 <StrideWidth> 1 <Top> 0 "
      "<Bottom> 0 <Left> 0 <Right> 0 <DilationHeight> 1 <DilationWidth> 1 <Groups> 2 <Bias> 0\n"
      "[ 1 ] [ 1 ]\n";
  const std::string prelu = "<PReLU2d> 2 2 <Alpha> 0.25\n";
  const std::pair<std::string, const char*> cases[] = {
      {"<ConvBN2d> 2 2\n", "Failed to read Conv2d layer!"},
      {"<ConvBN2d> 2 2\n" + conv, "Failed to read BatchNorm2d layer!"},
      {"<SeperableConv2d> 2 2\n" + conv, "Failed to read PRelu2d layer!"},
      {"<SeperableConv2d> 2 2\n" + conv + prelu, "Failed to read Conv2d layer!"}};
  for (const auto& [text, message] : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text + "</Nnet>\n"); }), "read component failed!");
    EXPECT_NE(testing::internal::GetCapturedStderr().find(message), std::string::npos) << text;
  }
  // What the reader of the component itself says passes through.
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<ConvBN2d> 2 2\n<NoLayer> 1 1\n"); }),
            "unknown or unimplemented nnet layer! [<NoLayer>]");
}

}  // namespace
}  // namespace handwriting::tests
