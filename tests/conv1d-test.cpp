#include "nnet/convolution/conv1d.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <numeric>
#include <tuple>

#include "nnet/base/element-kernels.h"
#include "nnet/stream_nnet/convolution.h"
#include "tests/support/conv1d-sample.h"
#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"

namespace handwriting::tests {
namespace {

constexpr float kLowest = std::numeric_limits<float>::lowest();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr int kHuge = std::numeric_limits<int32_t>::max();

Bytes ConvFile(const Shape& s, const Weights& weights) {
  return Component1d(0x307, s.in_dim, s.out_dim, ConvBlock(s, weights));
}

Bytes TransposeFile(const Shape& s, const Weights& weights) {
  return Component1d(0x308, s.in_dim, s.out_dim, TransposedBlock(s, weights));
}

Bytes PoolFile(const Shape& s) { return Component1d(0x309, s.in_dim, s.in_dim, PoolBlock(s)); }

// The definitions, one product at a time.

int TransposeFrames(const Shape& s, int n) {
  return std::max(0, (n - 1) * s.stride + (s.kernel - 1) * s.dilation + 1 - s.left - s.right +
                         s.output_padding);
}

Floats PlainTranspose(const Shape& s, const Weights& weights, const Floats& in, int n) {
  const int in_group = s.in_dim / s.groups;
  const int out_group = s.out_dim / s.groups;
  const int frames = TransposeFrames(s, n);
  Floats out(static_cast<size_t>(frames * s.out_dim), 0.0F);
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

Floats PlainPool(const Shape& s, const Floats& in, int n) {
  Floats out;
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

Floats RandomFrames(const Shape& s, int n, uint32_t seed) {
  return Random(static_cast<size_t>(s.in_dim) * static_cast<size_t>(n), seed);
}

// Channels around the block widths and below them; depthwise and grouped; windows whose taps lie in
// the input, across its edges, on both sides of it and outside it.
constexpr Shape kShapes[] = {{2, 4, 3, 1, 1, 1, 1, 2},           {1, 1, 1, 1, 0, 0, 1, 1},
                             {3, 2, 3, 1, 1, 1, 1, 1},           {5, 7, 3, 1, 1, 1, 1, 1, false},
                             {4, 8, 2, 1, 1, 0, 1, 1},           {6, 9, 3, 2, 1, 1, 1, 1},
                             {16, 17, 3, 1, 2, 0, 2, 1},         {8, 24, 5, 1, 2, 2, 1, 1},
                             {9, 29, 3, 3, 0, 2, 1, 1},          {10, 64, 3, 1, 1, 1, 1, 1},
                             {2, 80, 3, 1, 1, 1, 3, 1},          {12, 8, 3, 1, 1, 1, 1, 4},
                             {12, 60, 3, 2, 1, 1, 1, 3},         {8, 8, 5, 1, 2, 2, 1, 8},
                             {19, 19, 3, 1, 1, 1, 1, 19},        {70, 70, 5, 1, 2, 2, 1, 70, false},
                             {6, 12, 4, 1, 3, 3, 1, 6},          {3, 10, 7, 1, 3, 3, 4, 1},
                             {2, 3, 3, 1, 9, 9, 8, 1},           {2, 3, 2, 5, 12, 11, 3, 1},
                             {5, 20, 1, 4, 0, 0, 7, 1},          {3, 11, 0, 1, 0, 0, 1, 1},
                             {3, 5, 3, 2, 1, 1, 1, 1, true, 1},  {3, 17, 5, 2, 0, 0, 2, 1},
                             {2, 3, 2, 5, 0, 0, 1, 1, true, 9},  {4, 8, 7, 4, 2, 1, 6, 2},
                             {9, 9, 4, 3, 1, 0, 2, 9, false, 2}, {2, 2, 3, 4, 0, 0, 2, 1},
                             {20, 20, 11, 1, 5, 5, 1, 20}};

/// Runs the layer of a file over several numbers of frames on every vector target. Every fifth
/// value of its input is one of `specials`, where there are any.
template <class Plain>
void ExpectBitsOf(Plain plain, const Bytes& file, const Shape& s, const Floats& specials = {},
                  const std::vector<int>& frames = {1, 2, 5, 13, 40}) {
  const Layer layer = ReadLayer(file);
  for (const int n : frames) {
    SCOPED_TRACE(testing::PrintToString(s) + " frames: " + std::to_string(n));
    Floats in = RandomFrames(s, n, static_cast<uint32_t>(n));
    for (size_t i = 0; i < in.size() && !specials.empty(); i += 5) {
      in[i] = specials[i / 5 % specials.size()];
    }
    const Floats wanted = plain(in, n);
    ASSERT_EQ(layer->CalcOutputFrames(n) * s.out_dim, static_cast<int64_t>(wanted.size()));
    if (wanted.empty()) continue;
    ForEachVectorTarget([&] { ExpectSameBits(RunLayer(*layer, Floats(in), n, s.in_dim), wanted); });
  }
  EXPECT_EQ(WrittenBy(*layer), file.str());  // whatever order the layer keeps its kernel in
}

TEST(Conv1dLayers, GiveTheBitsOfThePlainLoops) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (Shape s : kShapes) {
    const Weights weights = RandomWeights(s, 1);
    ExpectBitsOf([&](const Floats& in, int n) { return PlainConv(s, weights, in, n); },
                 ConvFile(s, weights), s);
    ExpectBitsOf([&](const Floats& in, int n) { return PlainTranspose(s, weights, in, n); },
                 TransposeFile(s, weights), s);
    s.out_dim = s.in_dim;
    ExpectBitsOf([&](const Floats& in, int n) { return PlainPool(s, in, n); }, PoolFile(s), s,
                 {-0.0F, nan, -kInfinity, 0.0F, kInfinity});
  }
}

// An infinite weight times a zero of padding would be NaN; signed zeros must survive the bias.
TEST(Conv1d, TapsInThePaddingContributeNothing) {
  for (const Shape s : {Shape{2, 20, 3, 1, 1, 1}, Shape{8, 8, 3, 1, 1, 1, 1, 8},
                        Shape{2, 3, 3, 1, 1, 1, 1, 1, false}}) {
    Weights weights = RandomWeights(s, 5);
    for (size_t i = 0; i < weights.kernel.size(); i += 3) weights.kernel[i] = kInfinity;
    for (float& b : weights.bias) b = -0.0F;
    Floats in = RandomFrames(s, 4, 6);
    in[0] = -0.0F;
    in.back() = std::numeric_limits<float>::denorm_min();
    const Layer layer = ReadLayer(ConvFile(s, weights));
    ForEachVectorTarget([&] {
      ExpectSameBits(RunLayer(*layer, Floats(in), 4, s.in_dim), PlainConv(s, weights, in, 4));
    });
  }
}

// Streaming layers own the same block with the sums in the other order.
TEST(Conv1d, SumsRunChannelByChannelWhenAsked) {
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(testing::PrintToString(s));
    const Weights weights = RandomWeights(s, 9);
    const Floats in = RandomFrames(s, 13, 10);
    const Floats wanted = PlainConv(s, weights, in, 13, Order::kChannelsFirst);
    runtime::StreamConv1d layer(s.in_dim, s.out_dim);
    ASSERT_TRUE(layer.ReadData(FileOf(ConvBlock(s, weights)).get()));
    EXPECT_EQ(layer.MemoryBytes(), (weights.kernel.size() + weights.bias.size()) * sizeof(float));
    Floats out(wanted.size());
    layer.Convolve(in.data(), 13, s.left, ConvFrames(s, 13), out.data());
    ExpectSameBits(out, wanted);
    EXPECT_EQ(Written([&](FILE* fp) { return layer.WriteData(fp); }), ConvBlock(s, weights).str());
  }
}

// <conv(x), y> = <x, transpose(y)> with one kernel array. Small whole numbers keep all sums exact.
TEST(ConvTranspose1d, IsTheAdjointOfTheConvolution) {
  const auto whole = [](Floats values) {
    for (float& value : values) value = std::round(value * 4.0F);
    return values;
  };
  constexpr int n = 23;
  for (Shape s : kShapes) {
    s.bias = false;
    const int frames = ConvFrames(s, n);
    Shape t = s;
    std::swap(t.in_dim, t.out_dim);
    t.output_padding = 0;
    t.output_padding = n - TransposeFrames(t, frames);
    if (s.kernel == 0 || frames == 0 || t.output_padding < 0) continue;
    SCOPED_TRACE(testing::PrintToString(s));
    const Weights weights = {whole(RandomWeights(s, 3).kernel), {}};
    const Floats x = whole(RandomFrames(s, n, 4));
    const Floats y = whole(RandomFrames(t, frames, 5));
    const Floats cx = RunLayer(*ReadLayer(ConvFile(s, weights)), Floats(x), n, s.in_dim);
    const Floats ty = RunLayer(*ReadLayer(TransposeFile(t, weights)), Floats(y), frames, t.in_dim);
    ASSERT_EQ(ty.size(), x.size());
    EXPECT_EQ(std::inner_product(cx.begin(), cx.end(), y.begin(), 0.0),
              std::inner_product(x.begin(), x.end(), ty.begin(), 0.0));
  }
}

TEST(ConvTranspose1d, DoublesAndFillsWithTheBias) {
  const std::tuple<Shape, Weights, Floats> cases[] = {
      // Frame 0 puts 2 and 3 after the cropped 1, frame 1 adds 10, 20, 30 two frames later.
      {{1, 1, 3, 2, 1, 1, 1, 1, true, 1}, {{1, 2, 3}, {-1}}, {1, 12, 19, 29}},
      {{1, 1, 1, 3, 0, 0, 1, 1, true, 2}, {{2}, {0.5F}}, {2.5F, 0.5F, 0.5F, 20.5F, 0.5F, 0.5F}}};
  for (const auto& [s, weights, wanted] : cases) {
    EXPECT_EQ(RunLayer(*ReadLayer(TransposeFile(s, weights)), {1, 10}, 2, 1), wanted);
  }
}

// Channels 0 and 1 feed the first two outputs, 2 and 3 the others. The kernel array goes by output
// channel in one layer and by input channel in the other.
TEST(Conv1dLayers, GroupsWorkedByHand) {
  const Shape s = {4, 4, 1, 1, 0, 0, 1, 2, false};
  const Weights weights = {{1, 2, 3, 4, 5, 6, 7, 8}, {}};
  const Floats in = {1, 10, 100, 1000};
  EXPECT_EQ(RunLayer(*ReadLayer(ConvFile(s, weights)), Floats(in), 1, 4),
            (Floats{21, 43, 6500, 8700}));
  EXPECT_EQ(RunLayer(*ReadLayer(TransposeFile(s, weights)), Floats(in), 1, 4),
            (Floats{31, 42, 7500, 8600}));
}

// The last window has two thousand million taps: those in the padding may take no time.
TEST(MaxPool1d, CountsPaddingAsZero) {
  const std::pair<Shape, Floats> cases[] = {{{1, 1, 2, 1, 1, 1}, {0, -1, 1, 1}},
                                            {{1, 1, 0}, Floats(4, kLowest)},
                                            {{1, 1, kHuge, 1, kHuge, 0}, {0, 0, 0, 1}}};
  for (const auto& [s, wanted] : cases) {
    EXPECT_EQ(RunLayer(*ReadLayer(PoolFile(s)), {-2, -1, 1}, 3, 1), wanted);
  }
}

TEST(MaxPool1d, WindowsOfManyTapsGiveTheBitsOfThePlainLoops) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const Shape& s : {Shape{2, 2, 65}, Shape{1, 1, 65, 1, 64, 64}, Shape{3, 3, 70, 7, 30, 90},
                         Shape{1, 1, 100, 3, 250, 180, 2}, Shape{2, 2, 66, 2, 5, 0, 3},
                         Shape{1, 1, 400, 1, 399, 399}, Shape{1, 1, 90, 1, 300, 300, 4},
                         Shape{1, 1, 65, 1, 0, 0, 5}}) {
    ExpectBitsOf([&](const Floats& in, int n) { return PlainPool(s, in, n); }, PoolFile(s), s,
                 {-0.0F, nan, 0.0F, -kInfinity, nan}, {1, 3, 64, 130, 261, 457});
  }
}

TEST(Conv1dLayers, RefuseTooFewFrames) {
  const Shape s = {1, 1, 3, 1, 2, 1, 3};
  const Weights weights = RandomWeights(s, 1);
  const std::string numbers = "kernel_size:3, dilation:3]";
  const std::tuple<Bytes, int, std::string> cases[] = {
      {ConvFile(s, weights), 3, "too few input frames! [frames:3, padding:2,1, " + numbers},
      {TransposeFile({1, 1, 3, 1, 5, 4, 3}, weights), 3,
       "too few input frames! [frames:3, padding:5,4, output_padding:0, " + numbers},
      {PoolFile(s), 3, "too few input frames in MaxPool1d"},
      {PoolFile(s), -1, "too few input frames in MaxPool1d"}};
  for (const auto& [file, n, message] : cases) {
    const Layer layer = ReadLayer(file);
    EXPECT_LE(layer->CalcOutputFrames(n), 0);
    EXPECT_EQ(ThrownBy([&, frames = n] { RunLayer(*layer, Floats(3), frames, 1); }), message);
  }
}

// The last three have sizes that no file backs, which must cost neither memory nor time, nor wrap.
TEST(Conv1dFile, RefusesFieldsThatCannotRun) {
  constexpr int kMany = 1 << 16;
  const Shape wrong[] = {
      {4, 6, -1, 1, 1, 1, 1, 2}, {4, 6, 3, 0, 1, 1, 1, 2}, {4, 6, 3, 1, -1, 1, 1, 2},
      {4, 6, 3, 1, 1, -1, 1, 2}, {4, 6, 3, 1, 1, 1, 0, 2}, {4, 6, 3, 1, 1, 1, 1, 0},
      {4, 6, 3, 1, 1, 1, 1, 3},  {4, 6, 3, 1, 1, 1, 1, 4}, {-4, 6, 3, 1, 1, 1, 1, 2},
      {4, -6, 3, 1, 1, 1, 1, 2}, {kHuge, kHuge, kHuge, 1}, {kMany, kMany, kHuge, 1, 0, 0, 1, kMany},
      {kHuge, 1, 4, 1, 0, 0}};
  const Weights weights = RandomWeights({4, 6, 3}, 1);
  const auto failure = [](const Bytes& bytes) { return ThrownBy([&] { ReadLayer(bytes); }); };
  for (const Shape& s : wrong) {
    SCOPED_TRACE(testing::PrintToString(s));
    EXPECT_EQ(failure(ConvFile(s, weights)), "read component failed!");
    EXPECT_EQ(failure(TransposeFile(s, weights)), "read component failed!");
    EXPECT_EQ(failure(PoolFile(&s - wrong < 5 ? s : wrong[0])), "read component failed!");
  }
  const Shape cropped = {1, 1, 1, 1, 0, 0, 1, 1, true, -1};
  EXPECT_EQ(failure(TransposeFile(cropped, {{1}, {1}})), "read component failed!");
}

TEST(Conv1dFile, HostileSizesAreHarmless) {
  // Without input channels nothing is stored, whatever the kernel size.
  const Shape no_inputs = {0, 3, kHuge, kHuge, kHuge, 0, 1, 1, false, 2};
  EXPECT_EQ(RunLayer(*ReadLayer(ConvFile(no_inputs, {})), {}, 2, 0), Floats(3, 0.0F));
  EXPECT_EQ(RunLayer(*ReadLayer(TransposeFile(no_inputs, {})), {}, 1, 0), Floats(6, 0.0F));
  const Shape no_outputs = {3, 0, kHuge, 1, kHuge, 0, 1, 1, false, kHuge};
  EXPECT_TRUE(RunLayer(*ReadLayer(ConvFile(no_outputs, {})), {1, 2, 3}, 1, 3).empty());
  EXPECT_TRUE(RunLayer(*ReadLayer(TransposeFile(no_outputs, {})), {1, 2, 3}, 1, 3).empty());
  const Shape far_apart = {1, 0, 2, kHuge, 0, 0, 1, 1, false};
  EXPECT_TRUE(RunLayer(*ReadLayer(TransposeFile(far_apart, {})), Random(99, 1), 99, 1).empty());
  EXPECT_NO_THROW(ReadLayer(ConvFile({kHuge, 0, 1, 1, 0, 0, 1, kHuge, false}, {})));
}

// A call without frames can still see windows that lie in the padding, but announces none.
TEST(Conv1d, PaddingAloneGivesTheBias) {
  const Layer layer = ReadLayer(ConvFile({1, 2, 3, 1, 2, 2}, {Floats(6, 1.0F), {3, 4}}));
  EXPECT_EQ(RunLayer(*layer, {}, 0, 1), (Floats{3, 4, 3, 4}));
  EXPECT_EQ(layer->CalcOutputFrames(0), 0);
  EXPECT_EQ(layer->CalcOutputFrames(-2), 0);
}

}  // namespace
}  // namespace handwriting::tests
