#include "nnet/conv1d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "tests/model-builder.h"
#include "tests/vector-targets.h"

namespace handwriting::tests {
namespace {

using runtime::Conv1d;
using runtime::ConvTranspose1d;
using runtime::MaxPool1d;

constexpr float kLowest = std::numeric_limits<float>::lowest();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

struct Shape {
  int in_dim;
  int out_dim;
  int kernel;
  int stride = 1;
  int left = 0;
  int right = 0;
  int dilation = 1;
  int groups = 1;
  bool bias = true;
  int output_padding = 0;
};

std::string Name(const Shape& s, int frames) {
  std::string name = "D O k s l r d g b op n:";
  for (const int value : {s.in_dim, s.out_dim, s.kernel, s.stride, s.left, s.right, s.dilation,
                          s.groups, int{s.bias}, s.output_padding, frames}) {
    name += " " + std::to_string(value);
  }
  return name;
}

struct Weights {
  std::vector<float> kernel;
  std::vector<float> bias;
};

Weights RandomWeights(const Shape& s, uint32_t seed) {
  const int count = s.in_dim * s.out_dim / s.groups * s.kernel;
  return {Random(static_cast<size_t>(count), seed),
          Random(s.bias ? static_cast<size_t>(s.out_dim) : 0, seed + 1)};
}

Bytes Block(const Shape& s, const Weights& weights) {
  return Bytes()
      .Int(s.kernel)
      .Int(s.stride)
      .Int(s.left)
      .Int(s.right)
      .Int(s.dilation)
      .Int(s.groups)
      .Int(s.bias ? 1 : 0)
      .Floats(weights.kernel)
      .Floats(weights.bias);
}

Bytes ConvFile(const Shape& s, const Weights& weights) {
  return Component1d(0x307, s.in_dim, s.out_dim, Block(s, weights));
}

Bytes TransposeFile(const Shape& s, const Weights& weights) {
  return Component1d(0x308, s.in_dim, s.out_dim,
                     Bytes()
                         .Int(s.kernel)
                         .Int(s.stride)
                         .Int(s.left)
                         .Int(s.right)
                         .Int(s.output_padding)
                         .Int(s.dilation)
                         .Int(s.groups)
                         .Int(s.bias ? 1 : 0)
                         .Floats(weights.kernel)
                         .Floats(weights.bias));
}

Bytes PoolFile(const Shape& s) {
  return Component1d(0x309, s.in_dim, s.in_dim,
                     Bytes().Int(s.kernel).Int(s.stride).Int(s.left).Int(s.right).Int(s.dilation));
}

// ---- The definitions, one product at a time
// -------------------------------------------------------

int ConvFrames(const Shape& s, int n) {
  int frames = 0;
  const int span = (s.kernel - 1) * s.dilation + 1;
  for (int start = -s.left; start + span <= n + s.right; start += s.stride) ++frames;
  return frames;
}

enum class Order { kTapsFirst, kChannelsFirst };

std::vector<float> PlainConv(const Shape& s, const Weights& weights, const std::vector<float>& in,
                             int n, Order order = Order::kTapsFirst) {
  const int in_group = s.in_dim / s.groups;
  const int out_group = s.out_dim / s.groups;
  std::vector<float> out;
  for (int t = 0; t < ConvFrames(s, n); ++t) {
    for (int o = 0; o < s.out_dim; ++o) {
      float sum = 0.0F;
      for (int term = 0; term < s.kernel * in_group; ++term) {
        const bool taps_first = order == Order::kTapsFirst;
        const int j = taps_first ? term / in_group : term % s.kernel;
        const int c = taps_first ? term % in_group : term / s.kernel;
        const int frame = t * s.stride - s.left + j * s.dilation;
        if (frame < 0 || frame >= n) continue;
        const float w = weights.kernel[static_cast<size_t>((o * in_group + c) * s.kernel + j)];
        sum += w * in[static_cast<size_t>(frame * s.in_dim + o / out_group * in_group + c)];
      }
      if (s.bias) sum += weights.bias[static_cast<size_t>(o)];
      out.push_back(sum);
    }
  }
  return out;
}

int TransposeFrames(const Shape& s, int n) {
  return std::max(0, (n - 1) * s.stride + (s.kernel - 1) * s.dilation + 1 - s.left - s.right +
                         s.output_padding);
}

std::vector<float> PlainTranspose(const Shape& s, const Weights& weights,
                                  const std::vector<float>& in, int n) {
  const int in_group = s.in_dim / s.groups;
  const int out_group = s.out_dim / s.groups;
  const int frames = TransposeFrames(s, n);
  std::vector<float> out(static_cast<size_t>(frames * s.out_dim), 0.0F);
  for (int i = 0; i < s.in_dim; ++i) {
    for (int j = 0; j < s.kernel; ++j) {
      for (int t = 0; t < n; ++t) {
        const int to = t * s.stride - s.left + j * s.dilation;
        if (to < 0 || to >= frames) continue;
        for (int p = 0; p < out_group; ++p) {
          out[static_cast<size_t>(to * s.out_dim + i / in_group * out_group + p)] +=
              in[static_cast<size_t>(t * s.in_dim + i)] *
              weights.kernel[static_cast<size_t>((i * out_group + p) * s.kernel + j)];
        }
      }
    }
  }
  for (size_t i = 0; s.bias && i < out.size(); ++i) {
    out[i] += weights.bias[i % static_cast<size_t>(s.out_dim)];
  }
  return out;
}

std::vector<float> PlainPool(const Shape& s, const std::vector<float>& in, int n) {
  std::vector<float> out;
  for (int t = 0; t < ConvFrames(s, n); ++t) {
    for (int d = 0; d < s.in_dim; ++d) {
      float best = kLowest;
      for (int j = 0; j < s.kernel; ++j) {
        const int frame = t * s.stride - s.left + j * s.dilation;
        const bool inside = frame >= 0 && frame < n;
        const float x = inside ? in[static_cast<size_t>(frame * s.in_dim + d)] : 0.0F;
        if (x > best) best = x;
      }
      out.push_back(best);
    }
  }
  return out;
}

void ExpectSameBits(const std::vector<float>& got, const std::vector<float>& wanted) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_TRUE(SameFloat(got[i], wanted[i]))
        << "value " << i << ": " << got[i] << " for " << wanted[i];
  }
}

std::vector<float> RandomFrames(const Shape& s, int n, uint32_t seed) {
  return Random(static_cast<size_t>(s.in_dim) * static_cast<size_t>(n), seed);
}

// Channels around the block widths and below them; depthwise and grouped; windows whose taps lie in
// the input, across its edges, on both sides of it and outside it.
constexpr Shape kShapes[] = {
    {1, 1, 1},
    {3, 2, 3, 1, 1, 1},
    {5, 7, 3, 1, 1, 1, 1, 1, false},
    {4, 8, 2, 1, 1, 0},
    {6, 9, 3, 2, 1, 1},
    {7, 16, 3, 1, 1, 1},
    {16, 17, 3, 1, 2, 0, 2},
    {8, 24, 5, 1, 2, 2},
    {9, 29, 3, 3, 0, 2},
    {10, 64, 3, 1, 1, 1},
    {2, 80, 3, 1, 1, 1, 3, 1, false},
    {12, 8, 3, 1, 1, 1, 1, 4},
    {12, 60, 3, 2, 1, 1, 1, 3},
    {4, 4, 3, 1, 1, 1, 1, 4},
    {8, 8, 5, 1, 2, 2, 1, 8},
    {19, 19, 3, 1, 1, 1, 1, 19},
    {70, 70, 5, 1, 2, 2, 1, 70, false},
    {6, 12, 4, 1, 3, 3, 1, 6},
    {3, 10, 7, 1, 3, 3, 4},
    {2, 3, 3, 1, 9, 9, 8},
    {2, 3, 2, 5, 12, 11, 3},
    {5, 20, 1, 4, 0, 0, 7},
    {3, 11, 0},
};
constexpr int kFrameCounts[] = {1, 2, 5, 13, 40};

// ---- Convolution
// ----------------------------------------------------------------------------------

TEST(Conv1d, GivesTheBitsOfThePlainLoop) {
  uint32_t seed = 1;
  for (const Shape& s : kShapes) {
    const Weights weights = RandomWeights(s, ++seed);
    const Layer layer = ReadLayer(ConvFile(s, weights));
    for (const int n : kFrameCounts) {
      SCOPED_TRACE(Name(s, n));
      const std::vector<float> in = RandomFrames(s, n, ++seed);
      const std::vector<float> wanted = PlainConv(s, weights, in, n);
      ASSERT_EQ(layer->CalcOutputFrames(n), ConvFrames(s, n));
      if (wanted.empty()) continue;
      ForEachVectorTarget(
          [&] { ExpectSameBits(RunLayer(*layer, std::vector<float>(in), n, s.in_dim), wanted); });
    }
  }
}

// An infinite weight times a zero of padding would be NaN; signed zeros must survive the bias.
TEST(Conv1d, TapsInThePaddingContributeNothing) {
  for (const Shape s : {Shape{2, 20, 3, 1, 1, 1}, Shape{8, 8, 3, 1, 1, 1, 1, 8},
                        Shape{2, 3, 3, 1, 1, 1, 1, 1, false}}) {
    Weights weights = RandomWeights(s, 5);
    for (size_t i = 0; i < weights.kernel.size(); i += 3) weights.kernel[i] = kInfinity;
    for (float& b : weights.bias) b = -0.0F;
    std::vector<float> in = RandomFrames(s, 4, 6);
    in[0] = -0.0F;
    in.back() = std::numeric_limits<float>::denorm_min();
    const Layer layer = ReadLayer(ConvFile(s, weights));
    ForEachVectorTarget([&] {
      ExpectSameBits(RunLayer(*layer, std::vector<float>(in), 4, s.in_dim),
                     PlainConv(s, weights, in, 4));
    });
  }
}

// Streaming layers own the same block with the sums in the other order.
TEST(Conv1d, SumsRunChannelByChannelWhenAsked) {
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(Name(s, 13));
    const Weights weights = RandomWeights(s, 9);
    const std::vector<float> in = RandomFrames(s, 13, 10);
    const std::vector<float> wanted = PlainConv(s, weights, in, 13, Order::kChannelsFirst);
    const Conv1d dims(s.in_dim, s.out_dim);
    runtime::Conv1dParameters parameters(runtime::TermOrder::kChannelsFirst);
    uint64_t bytes = 0;
    ASSERT_TRUE(parameters.ReadBlock(FileOf(Block(s, weights)).get(), dims, bytes));
    EXPECT_EQ(bytes, (weights.kernel.size() + weights.bias.size()) * sizeof(float));
    std::vector<float> out(wanted.size());
    parameters.Convolve(in.data(), 13, s.left, ConvFrames(s, 13), out.data());
    ExpectSameBits(out, wanted);
    EXPECT_EQ(Written([&](FILE* fp) { return parameters.WriteBlock(fp); }),
              Block(s, weights).str());
  }
}

TEST(Conv1d, RefusesTooFewFrames) {
  const Shape s = {1, 1, 3, 1, 0, 1, 3};
  const Layer layer = ReadLayer(ConvFile(s, RandomWeights(s, 1)));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, std::vector<float>(5), 5, 1); }),
            "too few input frames! [frames:5, padding:0,1, kernel_size:3, dilation:3]");
}

// ---- Transposed convolution
// -----------------------------------------------------------------------

TEST(ConvTranspose1d, GivesTheBitsOfThePlainLoop) {
  std::vector<Shape> shapes(std::begin(kShapes), std::end(kShapes));
  shapes.insert(shapes.end(), {{3, 5, 3, 2, 1, 1, 1, 1, true, 1},
                               {3, 17, 5, 2, 0, 0, 2},
                               {2, 3, 2, 5, 0, 0, 1, 1, true, 9},
                               {4, 8, 7, 4, 2, 1, 6, 2},
                               {9, 9, 4, 3, 1, 0, 2, 9, false, 2},
                               {2, 2, 3, 4, 0, 0, 2}});
  uint32_t seed = 100;
  for (const Shape& s : shapes) {
    const Weights weights = RandomWeights(s, ++seed);
    const Layer layer = ReadLayer(TransposeFile(s, weights));
    for (const int n : kFrameCounts) {
      SCOPED_TRACE(Name(s, n));
      const std::vector<float> in = RandomFrames(s, n, ++seed);
      const std::vector<float> wanted = PlainTranspose(s, weights, in, n);
      ASSERT_EQ(layer->CalcOutputFrames(n), TransposeFrames(s, n));
      if (wanted.empty()) continue;
      ForEachVectorTarget(
          [&] { ExpectSameBits(RunLayer(*layer, std::vector<float>(in), n, s.in_dim), wanted); });
    }
  }
}

// <conv(x), y> = <x, transpose(y)> with one kernel array. Small whole numbers keep all sums exact.
TEST(ConvTranspose1d, IsTheAdjointOfTheConvolution) {
  const auto whole = [](std::vector<float> values) {
    for (float& value : values) value = std::round(value * 4.0F);
    return values;
  };
  uint32_t seed = 200;
  for (Shape s : kShapes) {
    if (s.kernel == 0) continue;
    s.bias = false;
    const int n = 23;
    SCOPED_TRACE(Name(s, n));
    const int frames = ConvFrames(s, n);
    Shape transposed = s;
    std::swap(transposed.in_dim, transposed.out_dim);
    transposed.output_padding = n - TransposeFrames(transposed, frames);
    if (frames == 0 || transposed.output_padding < 0) continue;
    const Weights weights = {whole(RandomWeights(s, ++seed).kernel), {}};
    const std::vector<float> x = whole(RandomFrames(s, n, ++seed));
    const std::vector<float> y = whole(RandomFrames(transposed, frames, ++seed));
    const std::vector<float> conv_x =
        RunLayer(*ReadLayer(ConvFile(s, weights)), std::vector<float>(x), n, s.in_dim);
    const std::vector<float> transpose_y = RunLayer(*ReadLayer(TransposeFile(transposed, weights)),
                                                    std::vector<float>(y), frames, s.out_dim);
    ASSERT_EQ(transpose_y.size(), x.size());
    EXPECT_EQ(std::inner_product(conv_x.begin(), conv_x.end(), y.begin(), 0.0),
              std::inner_product(x.begin(), x.end(), transpose_y.begin(), 0.0));
  }
}

TEST(ConvTranspose1d, DoublesAndFillsWithTheBias) {
  const Shape twice = {1, 1, 3, 2, 1, 1, 1, 1, true, 1};
  const Layer layer = ReadLayer(TransposeFile(twice, {{1.0F, 2.0F, 3.0F}, {-1.0F}}));
  // Frame 0 puts 2 and 3 behind the cropped 1, frame 1 adds 10, 20, 30 two frames later.
  EXPECT_EQ(RunLayer(*layer, {1.0F, 10.0F}, 2, 1), (std::vector<float>{1.0F, 12.0F, 19.0F, 29.0F}));

  const Shape apart = {1, 1, 1, 3, 0, 0, 1, 1, true, 2};
  const Layer sparse = ReadLayer(TransposeFile(apart, {{2.0F}, {0.5F}}));
  EXPECT_EQ(RunLayer(*sparse, {1.0F, 2.0F}, 2, 1),
            (std::vector<float>{2.5F, 0.5F, 0.5F, 4.5F, 0.5F, 0.5F}));
}

TEST(ConvTranspose1d, RefusesTooFewFrames) {
  const Shape s = {1, 1, 2, 1, 1, 2, 1, 1, true, 0};
  const Layer layer = ReadLayer(TransposeFile(s, RandomWeights(s, 1)));
  EXPECT_EQ(layer->CalcOutputFrames(1), 0);
  EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, std::vector<float>(2), 2, 1); }),
            "too few input frames! [frames:2, padding:1,2, output_padding:0, kernel_size:2, "
            "dilation:1]");
}

// ---- Pooling
// --------------------------------------------------------------------------------------

TEST(MaxPool1d, GivesTheBitsOfThePlainLoop) {
  uint32_t seed = 300;
  for (Shape s : kShapes) {
    s.out_dim = s.in_dim;
    const Layer layer = ReadLayer(PoolFile(s));
    for (const int n : kFrameCounts) {
      SCOPED_TRACE(Name(s, n));
      std::vector<float> in = RandomFrames(s, n, ++seed);
      for (size_t i = 0; i < in.size(); i += 5) {
        in[i] = std::vector<float>{-0.0F, std::numeric_limits<float>::quiet_NaN(), -kInfinity, 0.0F,
                                   kInfinity}[i / 5 % 5];
      }
      const std::vector<float> wanted = PlainPool(s, in, n);
      if (wanted.empty()) continue;
      ForEachVectorTarget(
          [&] { ExpectSameBits(RunLayer(*layer, std::vector<float>(in), n, s.in_dim), wanted); });
    }
  }
}

TEST(MaxPool1d, CountsPaddingAsZero) {
  const std::vector<float> in = {-1.0F, -2.0F, -3.0F};
  const Layer layer = ReadLayer(PoolFile({1, 1, 2, 1, 1, 1}));
  EXPECT_EQ(RunLayer(*layer, std::vector<float>(in), 3, 1),
            (std::vector<float>{0.0F, -1.0F, -2.0F, 0.0F}));
  const Layer no_taps = ReadLayer(PoolFile({1, 1, 0}));
  EXPECT_EQ(RunLayer(*no_taps, std::vector<float>(in), 3, 1), std::vector<float>(4, kLowest));
}

TEST(MaxPool1d, RefusesTooFewFrames) {
  const Layer layer = ReadLayer(PoolFile({1, 1, 3, 1, 2, 2}));
  for (const int n : {0, -1}) {
    EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, {}, n, 1); }), "too few input frames in MaxPool1d");
  }
}

// A window of two thousand million taps over three frames is a matter of four ranges.
TEST(MaxPool1d, TakesNoTimeForTapsInThePadding) {
  const int huge = std::numeric_limits<int32_t>::max();
  const Layer layer = ReadLayer(PoolFile({1, 1, huge, 1, huge, 0}));
  EXPECT_EQ(RunLayer(*layer, {-1.0F, 2.0F, 1.0F}, 3, 1),
            (std::vector<float>{0.0F, 0.0F, 2.0F, 2.0F}));
}

// ---- Files
// ----------------------------------------------------------------------------------------

// Also after running, and under the fixed-point code, which makes the same class.
TEST(Conv1dFile, WritesWhatItRead) {
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(Name(s, 40));
    const Weights weights = RandomWeights(s, 7);
    const std::pair<Bytes, int> files[] = {
        {ConvFile(s, weights), 0xc07}, {TransposeFile(s, weights), 0xc08}, {PoolFile(s), 0x309}};
    for (const auto& [bytes, fixed] : files) {
      const Layer layer = ReadLayer(bytes);
      RunLayer(*layer, RandomFrames(s, 40, 8), 40, s.in_dim);
      EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), bytes.str());
      EXPECT_EQ(layer->GetFixedType(), fixed);
      const std::string written = Written([&](FILE* fp) { return layer->WriteFixed(fp); });
      const Layer again(runtime::Component::Read(FileOf(written).get()));
      EXPECT_EQ(Written([&](FILE* fp) { return again->Write(fp); }), bytes.str());
    }
  }
  EXPECT_EQ(Layer(runtime::NewComponentOfType(0xc09, 1, 1))->GetType(), 0x309);
}

TEST(Conv1dFile, EveryPrefixIsRefused) {
  const Shape s = {2, 4, 3, 1, 1, 1, 1, 2};
  const Weights weights = RandomWeights(s, 7);
  EXPECT_TRUE(EveryPrefixIsRefused(ConvFile(s, weights)));
  EXPECT_TRUE(EveryPrefixIsRefused(TransposeFile(s, weights)));
  EXPECT_TRUE(EveryPrefixIsRefused(PoolFile(s)));
}

TEST(Conv1dFile, TextGivesTheSameLayer) {
  const Shape s = {2, 4, 3, 2, 1, 2, 3, 2, true, 5};
  const Weights weights = RandomWeights(s, 7);
  std::string matrices;
  for (size_t i = 0; i < weights.kernel.size(); i += 3) {
    matrices += TextMatrix({weights.kernel.begin() + static_cast<ptrdiff_t>(i),
                            weights.kernel.begin() + static_cast<ptrdiff_t>(i) + 3});
  }
  matrices += TextMatrix(weights.bias);
  const std::string window = "<KernelSize> 3 <Stride> 2 <Left> 1 <Right> 2 <Dilation> 3";
  const auto file = [](const std::string& text) {
    const Layer layer = ReadTextLayer(text);
    return Written([&](FILE* fp) { return layer->Write(fp); });
  };
  EXPECT_EQ(file("<Conv1d> 4 2 " + window + " <Groups> 2 <Bias> 1\n" + matrices),
            ConvFile(s, weights).str());
  EXPECT_EQ(file("<ConvTranspose1d> 4 2 " + window + " <OutputPadding> 5 <Groups> 2 <Bias> 1\n" +
                 matrices),
            TransposeFile(s, weights).str());
  EXPECT_EQ(file("<MaxPool1d> 2 2 " + window + "\n"), PoolFile(s).str());
}

TEST(Conv1dFile, RefusesFieldsThatCannotRun) {
  const Shape sound = {4, 6, 3, 1, 1, 1, 1, 2};
  std::vector<Shape> wrong(10, sound);
  wrong[0].kernel = -1;
  wrong[1].stride = 0;
  wrong[2].left = -1;
  wrong[3].right = -1;
  wrong[4].dilation = 0;
  wrong[5].groups = 0;
  wrong[6].groups = 3;
  wrong[7].groups = 4;
  wrong[8].in_dim = -4;
  wrong[9].out_dim = -6;
  const Weights weights = RandomWeights(sound, 1);
  for (const Shape& s : wrong) {
    SCOPED_TRACE(Name(s, 0));
    EXPECT_EQ(ThrownBy([&] { ReadLayer(ConvFile(s, weights)); }), "read component failed!");
    EXPECT_EQ(ThrownBy([&] { ReadLayer(TransposeFile(s, weights)); }), "read component failed!");
  }
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(PoolFile(wrong[i])); }), "read component failed!");
  }
  Shape cropped = sound;
  cropped.output_padding = -1;
  EXPECT_EQ(ThrownBy([&] { ReadLayer(TransposeFile(cropped, weights)); }),
            "read component failed!");
}

// Sizes that no file backs must cost neither memory nor time, and may not wrap.
TEST(Conv1dFile, HostileSizesAreRefusedOrHarmless) {
  const int huge = std::numeric_limits<int32_t>::max();
  const Shape over_file[] = {
      {huge, huge, huge}, {1 << 16, 1 << 16, 1 << 30, 1, 0, 0, 1, 1 << 16}, {huge, 1, 4}};
  for (const Shape& s : over_file) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(ConvFile(s, {})); }), "read component failed!");
    EXPECT_EQ(ThrownBy([&] { ReadLayer(TransposeFile(s, {})); }), "read component failed!");
  }
  // Without input channels nothing is stored, whatever the kernel size.
  const Shape no_inputs = {0, 3, huge, huge, huge, 0, 1, 1, false, 2};
  EXPECT_EQ(RunLayer(*ReadLayer(ConvFile(no_inputs, {})), {}, 2, 0), std::vector<float>(3, 0.0F));
  EXPECT_EQ(RunLayer(*ReadLayer(TransposeFile(no_inputs, {})), {}, 1, 0),
            std::vector<float>(6, 0.0F));
  const Shape no_outputs = {3, 0, huge, 1, huge, 0, 1, 1, false, huge};
  EXPECT_TRUE(RunLayer(*ReadLayer(ConvFile(no_outputs, {})), {1, 2, 3}, 1, 3).empty());
  EXPECT_TRUE(RunLayer(*ReadLayer(TransposeFile(no_outputs, {})), {1, 2, 3}, 1, 3).empty());
  const Shape far_apart = {1, 0, 2, huge, 0, 0, 1, 1, false};
  EXPECT_TRUE(RunLayer(*ReadLayer(TransposeFile(far_apart, {})), Random(99, 1), 99, 1).empty());
  const Shape many_groups = {huge, 0, 1, 1, 0, 0, 1, huge, false};
  EXPECT_NO_THROW(ReadLayer(ConvFile(many_groups, {})));
}

// A call without frames can still see windows that lie in the padding, but announces none.
TEST(Conv1d, PaddingAloneGivesTheBias) {
  const Shape s = {2, 3, 3, 1, 2, 2};
  const Weights weights = RandomWeights(s, 3);
  const Layer layer = ReadLayer(ConvFile(s, weights));
  const std::vector<float> out = RunLayer(*layer, {}, 0, 2);
  ASSERT_EQ(out.size(), 6U);
  for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], weights.bias[i % 3]);
  EXPECT_EQ(layer->CalcOutputFrames(0), 0);
  EXPECT_EQ(layer->CalcOutputFrames(-2), 0);
}

}  // namespace
}  // namespace handwriting::tests
