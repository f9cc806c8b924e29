// Streaming layers: an input that arrives in chunks gives the frames of the same input in one
// piece.

#include <algorithm>
#include <limits>
#include <tuple>

#include "nnet/stream_nnet/convolution.h"
#include "nnet/stream_nnet/nnet-control-flow.h"
#include "tests/support/conv1d-sample.h"
#include "tests/support/expect.h"

namespace handwriting::tests {
namespace {

using Counts = std::vector<int64_t>;

constexpr int kHuge = std::numeric_limits<int32_t>::max();

// A layer with its code in a network that sees the whole input at once, and its code in one that
// sees chunks. Both have the same parameter block.
struct Twin {
  int whole_code, stream_code, in_dim, out_dim;
  Bytes block;
};
using Twins = std::vector<Twin>;

Weights WeightsOf(const Shape& s) { return RandomWeights(s, 11); }

Twin Conv(const Shape& s) {
  return {0x307, 0x1000, s.in_dim, s.out_dim, ConvBlock(s, WeightsOf(s))};
}

Twin Transposed(const Shape& s) {
  return {0x308, 0x1001, s.in_dim, s.out_dim, TransposedBlock(s, WeightsOf(s))};
}

Twin Pool(const Shape& s) { return {0x309, 0x1002, s.in_dim, s.in_dim, PoolBlock(s)}; }

Twin Register(const std::string& name, int dim) {
  return {0x700, 0x1100, dim, dim, Bytes().String(name)};
}

Twin Join(const std::vector<std::string>& names, const std::vector<int>& positions, int dim) {
  Bytes block = Bytes().Int(static_cast<int>(names.size()));
  for (const std::string& name : names) block.String(name);
  block.Int(static_cast<int>(positions.size()));
  for (const int position : positions) block.Int(position);
  const int parts = static_cast<int>(names.size() + positions.size());
  return {0x702, 0x1101, dim, parts * dim, block};
}

Twin Reflection(int dim, int left, int right) {
  return {0x707, 0x1102, dim, dim, Bytes().Int(left).Int(right)};
}

Twin Constant(int dim, int left, int right, float value) {
  return {0x708, 0x1103, dim, dim, Bytes().Int(left).Int(right).Float(value)};
}

Twin Dense(int in_dim, int out_dim) {
  const auto out = static_cast<size_t>(out_dim);
  const Floats weights = Random(out * static_cast<size_t>(in_dim), 13);
  return {0x100, 0x100, in_dim, out_dim, Bytes().Floats(Random(out, 14)).Floats(weights)};
}

Bytes StreamLayer(const Twin& twin) {
  return Component1d(twin.stream_code, twin.in_dim, twin.out_dim, twin.block);
}

Bytes NetworkOf(const Twins& twins, bool whole = false) {
  std::vector<Bytes> layers;
  for (const Twin& twin : twins) {
    layers.push_back(Component1d(whole ? twin.whole_code : twin.stream_code, twin.in_dim,
                                 twin.out_dim, twin.block));
  }
  return Network(layers);
}

Model::Streamed RunChunks(Model& model, const Floats& in, int dim, const Counts& chunks,
                          bool marked = true) {
  return model.Chunks(in, dim, chunks, marked);
}

// Sizes from 0 to 7 that add up to `frames`, the last one also 0 now and then.
Counts RandomChunks(int64_t frames, std::mt19937& engine) {
  Counts chunks;
  while (frames > 0) {
    chunks.push_back(std::min<int64_t>(frames, engine() % 8));
    frames -= chunks.back();
  }
  if (engine() % 4 == 0) chunks.push_back(0);
  return chunks;
}

enum class Equality { kBits, kRounding };

// The promise of all streaming layers.
void ExpectSameFramesInChunks(const Twins& twins, int64_t least_frames, Equality equality) {
  Model whole(NetworkOf(twins, true));
  Model stream(NetworkOf(twins));
  const int dim = twins.front().in_dim;
  std::mt19937 engine(7);
  for (int round = 0; round < 12; ++round) {
    const int64_t frames = least_frames + engine() % 30;
    const Floats in = Random(runtime::ToSize(dim * frames), static_cast<uint32_t>(engine()));
    whole.forward->Reset();
    const Floats wanted = RunChunks(whole, in, dim, {frames}).frames;
    // An input that is broken off leaves nothing behind.
    stream.forward->Reset();
    RunChunks(stream, in, dim, {std::min<int64_t>(frames, engine() % 8)}, false);
    stream.forward->Reset();
    const Counts chunks = RandomChunks(frames, engine);
    SCOPED_TRACE(testing::PrintToString(twins.front().stream_code) + " " +
                 testing::PrintToString(chunks));
    const Floats got = RunChunks(stream, in, dim, chunks).frames;
    equality == Equality::kBits ? ExpectSameBits(got, wanted) : ExpectNear(got, wanted, 1e-5);
    if (testing::Test::HasFatalFailure()) return;
  }
}

TEST(Stream, WindowsGiveTheFramesOfTheWholeInput) {
  std::mt19937 engine(5);
  const auto pick = [&](int least, int most) {
    return least + static_cast<int>(engine() % static_cast<uint32_t>(most - least + 1));
  };
  // Windows that overlap, touch and leave gaps, without taps, with padding beyond what they span,
  // at one end or both; channels in one group or each in its own.
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    const int groups = pick(1, 9);
    const int per_group = groups > 1 ? 1 : pick(1, 4);
    const Shape s = {groups * per_group, groups * pick(1, 2), pick(0, 5), pick(1, 5), pick(0, 7),
                     pick(0, 7),         pick(1, 4),          groups,     true,       pick(0, 4)};
    const bool one_order = per_group == 1 || s.kernel == 1;
    ExpectSameFramesInChunks({Conv(s)}, 20, one_order ? Equality::kBits : Equality::kRounding);
    ExpectSameFramesInChunks({Transposed(s)}, 20, Equality::kBits);
    ExpectSameFramesInChunks({Pool(s)}, 20, Equality::kBits);
  }
}

TEST(Stream, PaddingGivesTheFramesOfTheWholeInput) {
  for (const int left : {0, 1, 3, 9}) {
    for (const int right : {0, 1, 4, 8}) {
      ExpectSameFramesInChunks({Reflection(2, left, right)}, 10, Equality::kBits);
      ExpectSameFramesInChunks({Constant(2, left, right, -1.5F)}, 0, Equality::kBits);
    }
  }
}

// Branches of a chain emit their frames at different times.
TEST(Stream, ChainsGiveTheFramesOfTheWholeInput) {
  const Shape same = {2, 2, 3, 1, 1, 1, 1, 2};
  const Shape wide = {2, 2, 5, 1, 4, 4, 2, 2};
  const Shape pool = {2, 2, 3, 1, 1, 1};
  const Shape half = {6, 6, 4, 2, 1, 1, 1, 6};
  const Shape twice = {6, 3, 4, 2, 1, 1};
  const Twins branches = {Register("in", 2),
                          Conv(wide),
                          Register("wide", 2),
                          Conv(same),
                          Pool(pool),
                          Join({"wide", "in"}, {1}, 2),
                          Conv(half),
                          Transposed(twice),
                          Reflection(3, 2, 1),
                          Register("u", 3),
                          Constant(3, 1, 1, 0.5F),
                          Pool({3, 3, 3}),
                          Join({"u"}, {0}, 3)};
  ExpectSameFramesInChunks(branches, 12, Equality::kBits);
  // Layers of a single frame, and of none: a call may bring no frames to a dense layer.
  const Twins dense = {Dense(2, 3),
                       Conv({3, 3, 3, 2, 1, 1, 1, 3}),
                       Dense(3, 4),
                       {0x203, 0x203, 4, 4, {}},
                       {0x201, 0x201, 4, 4, {}},
                       Pool({4, 4, 2, 2, 0, 1})};
  ExpectSameFramesInChunks(dense, 12, Equality::kRounding);
}

// The order of each sum: input channels, then taps.
TEST(Stream, ConvolutionSumsChannelsFirst) {
  const Shape s = {3, 4, 3, 2, 1, 2, 2};
  const Floats in = Random(runtime::ToSize(3 * 21), 3);
  Model model(NetworkOf({Conv(s)}));
  ExpectSameBits(RunChunks(model, in, 3, {5, 0, 9, 7}).frames,
                 PlainConv(s, WeightsOf(s), in, 21, Order::kChannelsFirst));
}

Twin Slice(const std::string& text, int dim = 1) {
  return {0, 0x1104, dim, dim, Bytes().String(text)};
}

// The frames out of every call; the last call is marked as the end or is not.
TEST(Stream, FramesComeOutAsSoonAsTheyAreKnown) {
  const std::tuple<Twin, Counts, bool, Counts> cases[] = {
      {Conv({1, 1, 3, 1, 1, 1}), {4, 4, 4}, true, {3, 4, 5}},
      {Conv({1, 1, 3, 1, 1, 1}), {4, 4, 4}, false, {3, 4, 4}},
      {Conv({1, 1, 1, 2}), {3, 3, 1, 0, 1}, true, {2, 1, 1, 0, 0}},
      {Conv({1, 1, 1, 5}), {1, 2, 1, 2}, false, {1, 0, 0, 1}},
      {Conv({1, 1, 5, 1, 1, 0}), {2, 1, 1, 1}, false, {0, 0, 1, 1}},
      {Pool({1, 1, 5, 1, 1, 0}), {2, 1, 1, 1}, false, {0, 0, 1, 1}},
      {Pool({1, 1, 3, 1, 0, 2}), {4, 0}, true, {2, 2}},
      {Transposed({1, 1, 4, 2, 1, 1}), {1, 1, 3, 2}, true, {0, 3, 6, 5}},
      {Transposed({1, 1, 3, 1, 1, 1}), {1, 1, 2, 1}, true, {0, 0, 3, 2}},
      {Transposed({1, 1, 1, 3}), {2, 1, 0}, true, {4, 3, 0}},
      {Reflection(1, 2, 0), {1, 3, 2}, false, {0, 6, 2}},
      {Reflection(1, 0, 2), {1, 3, 0}, true, {1, 3, 2}},
      {Constant(1, 2, 1, 0), {2, 0, 3}, true, {4, 0, 4}},
      {Constant(1, 2, 1, 0), {0, 2, 3}, false, {2, 2, 3}},
      {Slice("3"), {2, 2, 2}, false, {0, 1, 2}}};
  for (const auto& [twin, chunks, marked, counts] : cases) {
    SCOPED_TRACE(testing::PrintToString(twin.stream_code) + testing::PrintToString(chunks));
    Model model(NetworkOf({twin}));
    for (int input = 0; input < 2; ++input) {
      model.forward->Reset();
      EXPECT_EQ(RunChunks(model, Floats(12), 1, chunks, marked).counts, counts);
    }
  }
}

TEST(Stream, SliceDropsTheFirstFrames) {
  const std::pair<const char*, size_t> cases[] = {
      {"3", 3},   {"", 0},   {"2:5,7", 2}, {"-3", 0},    {"1-", 0},
      {"a4b", 4}, {",9", 0}, {":5", 0},    {" 1 2", 12}, {"99999999999", 20}};
  const Floats in = Random(runtime::ToSize(1 * 20), 1);
  for (const auto& [text, dropped] : cases) {
    SCOPED_TRACE(text);
    Model model(NetworkOf({Slice(text)}));
    const Floats wanted(in.begin() + static_cast<ptrdiff_t>(dropped), in.end());
    for (const Counts& chunks : {Counts{20}, Counts{1, 0, 3, 16}}) {
      model.forward->Reset();
      EXPECT_EQ(RunChunks(model, in, 1, chunks).frames, wanted);
    }
  }
}

TEST(Stream, TooShortInputsAreRefused) {
  const std::string reflection = "too few input frames! [frames:2, padding:2,1]";
  const std::string transposed =
      "too few input frames! [frames:1, padding:1,2, output_padding:0, kernel_size:2, dilation:1]";
  const Twin cut = Transposed({1, 1, 2, 1, 1, 2});
  const std::tuple<Twin, Counts, std::string> cases[] = {
      {Reflection(1, 2, 1), {2}, reflection},
      {Reflection(1, 2, 1), {1, 1, 0}, reflection},
      {Reflection(1, 0, 2), {1, 1}, "too few input frames! [frames:2, padding:0,2]"},
      {Reflection(1, 2, 1), {0}, ""},
      {cut, {1}, transposed},
      {cut, {1, 1}, transposed},
      {cut, {1, 1, 1}, ""},
      {cut, {0}, ""},
      {Conv({1, 1, 3}), {1, 1}, ""},
      {Pool({1, 1, 3}), {1, 1}, ""}};
  for (const auto& [twin, chunks, message] : cases) {
    SCOPED_TRACE(testing::PrintToString(twin.stream_code) + testing::PrintToString(chunks));
    Model model(NetworkOf({twin}));
    // A reset makes the layer ready again, and as strict as before.
    for (int input = 0; input < 2; ++input) {
      EXPECT_EQ(ThrownBy([&] { RunChunks(model, Floats(8), 1, chunks); }), message);
      model.forward->Reset();
      EXPECT_EQ(ThrownBy([&] { RunChunks(model, Floats(8), 1, {8}); }), "");
      model.forward->Reset();
    }
  }
}

// After the first call of a size no call needs more memory.
TEST(Stream, BuffersAreSizedOnce) {
  const Shape s = {3, 3, 5, 2, 4, 4, 3};
  for (const Twin& twin :
       {Conv(s), Transposed(s), Pool(s), Register("a", 3), Reflection(3, 6, 9)}) {
    Model model(NetworkOf({twin}));
    const Floats in = Random(runtime::ToSize(3 * 60), 1);
    RunChunks(model, in, 3, {10}, false);
    const uint64_t sized = model.nnet.layers[0]->MemoryBytes();
    RunChunks(model, in, 3, {10, 3, 0, 10, 10, 1, 7}, true);
    EXPECT_EQ(model.nnet.layers[0]->MemoryBytes(), sized);
  }
}

// Registers and concatenations.

TEST(Stream, ConcatenationWaitsForItsSlowestPart) {
  const Twins twins = {Register("a", 1), Conv({1, 1, 2}), Register("b", 1), Pool({1, 1, 1}),
                       Join({"a", "b"}, {1}, 1)};
  Model model(NetworkOf(twins));
  const Model::Streamed result = RunChunks(model, {1, 2, 3, 4, 5, 6}, 1, {4, 0, 1, 1});
  EXPECT_EQ(result.counts, Counts({3, 0, 1, 1}));
  ASSERT_EQ(result.frames.size(), 15U);
  for (size_t t = 0; t < 5; ++t) {
    EXPECT_EQ(result.frames[3 * t], static_cast<float>(t + 1));
    EXPECT_EQ(result.frames[3 * t + 1], result.frames[3 * t + 2]);
  }
  // What waits is gone after a reset.
  model.forward->Reset();
  EXPECT_EQ(RunChunks(model, {7, 8}, 1, {2}).frames.front(), 7.0F);
}

TEST(Stream, ConcatenationNeedsNoInputOfItsOwn) {
  Model model(NetworkOf({Register("a", 2), Dense(2, 5), Join({"a", "a"}, {}, 2)}));
  EXPECT_EQ(RunChunks(model, {1, 2, 3, 4}, 2, {1, 1}).frames, Floats({1, 2, 1, 2, 3, 4, 3, 4}));
  Model nothing(NetworkOf({Dense(2, 2), Join({}, {}, 0)}));
  EXPECT_EQ(RunChunks(nothing, {1, 2}, 2, {1}).counts, Counts({0}));
}

TEST(Stream, NetworksThatCannotBeLinkedAreRefused) {
  const Twin join = Join({"a"}, {0}, 2);
  Twin narrow = join;
  narrow.out_dim = 3;
  Twin wide = Join({"a"}, {}, 3);
  wide.out_dim = 2;
  const std::pair<Twins, std::string> cases[] = {
      {{Register("a", 2), Register("a", 2)},
       "insert stream_register failed! maybe stream_register name is duplicated [a]"},
      {{Register("b", 2), join}, "cannot find register with name [a]"},
      {{Register("a", 2), narrow}, "mismatched concentrate dimension! [4 != 3]"},
      {{Register("a", 2), wide}, "mismatched concentrate dimension! [2 != 3]"},
      {{join, Register("a", 2)}, "cannot find register with name [a]"}};
  for (const auto& [twins, message] : cases) {
    const auto run = [&] {
      Model model(NetworkOf(twins));
      RunChunks(model, {1, 2}, 2, {1});
    };
    EXPECT_EQ(ThrownBy(run), message);
  }
  const Layer lonely = ReadLayer(StreamLayer(join));
  const std::string unlinked = ThrownBy([&] { RunLayer(*lonely, {1, 2}, 1, 2); });
  EXPECT_EQ(unlinked, "registers are not linked! [0 of 1]");
}

// Files.

TEST(StreamFile, WhatCannotRunIsRefused) {
  Twin ragged = Reflection(2, 1, 1);
  ragged.out_dim = 3;
  const Twins wrong = {Conv({1, 1, 1, 0}),
                       Pool({1, 1, -1}),
                       Register("", 2),
                       Transposed({1, 1, 1, 1, 0, 0, 1, 1, true, -1}),
                       Join({"a"}, {2}, 2),
                       Join({"a"}, {0, 0}, 2),
                       Reflection(2, -1, 0),
                       Reflection(2, 0, -1),
                       Constant(2, -1, 0, 0.0F),
                       Join({"a"}, {-1}, 2),
                       ragged};
  for (const Twin& twin : wrong) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(StreamLayer(twin)); }), "read component failed!");
  }
}

// Fields that claim what no file backs cost neither memory nor time, and nothing wraps.
TEST(StreamFile, HugeFieldsAreHarmless) {
  Twins twins = {Reflection(1, kHuge, kHuge), Constant(1, kHuge, kHuge, 0.0F),
                 Pool({1, 1, 2, 1, 0, 0, 1 << 27}), Pool({1, 1, kHuge, 1, 0, 0, kHuge})};
  for (int bits = 0; bits < 64; ++bits) {
    const auto pick = [bits](int bit, int other) { return (bits >> bit & 1) != 0 ? kHuge : other; };
    const Shape s = {1,          1, bits % 2 * 2, pick(1, 1), pick(2, 0), pick(3, 0),
                     pick(4, 1), 1, true,         pick(5, 0)};
    for (const Twin& twin : {Conv(s), Transposed(s), Pool(s)}) twins.push_back(twin);
  }
  for (const Twin& twin : twins) {
    SCOPED_TRACE(&twin - twins.data());
    Model model(NetworkOf({twin}));
    // Some cannot run, the others wait for frames that never come.
    const std::string thrown = ThrownBy([&] { RunChunks(model, Floats(8), 1, {3, 0, 2, 1, 2}); });
    EXPECT_TRUE(thrown.empty() || thrown.starts_with("frame buffer too large!") ||
                thrown.starts_with("too many frames!") ||
                thrown.starts_with("too few input frames!"))
        << thrown;
    EXPECT_LT(model.nnet.layers[0]->MemoryBytes(), uint64_t{1} << 20);
  }
}

}  // namespace
}  // namespace handwriting::tests
