// The sequential memory block, alone and in chains through the executor.

#include <array>
#include <limits>
#include <tuple>

#include "nnet/attention/fsmn-layer.h"
#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

struct Taps {
  int left = 0, right = 0, stride = 1, depend = 0;
  uint32_t seed = 1;

  int Context() const { return (left + right) * stride; }
  Floats Filter(int dim) const {
    return Random(static_cast<size_t>((left + right + 1) * dim), seed);
  }
  Bytes Component(int dim) const {
    const Bytes block = Bytes().Int(left).Int(right).Int(stride).Int(depend).Floats(Filter(dim));
    return Component1d(0x107, dim, dim, block);
  }
};

// One block by its definition, float by float in tap order; `memory` receives the tap sums, `skip`
// is added when it is not null.
Floats Direct(const Taps& taps, int dim, const Floats& in, Floats& memory, const float* skip) {
  const Floats filter = taps.Filter(dim);
  const int frames = static_cast<int>(in.size()) / dim - taps.Context();
  memory.clear();
  Floats out;
  for (int i = 0; i < frames; ++i) {
    for (int j = 0; j < dim; ++j) {
      float sum = 0;
      for (int k = 0; k <= taps.left + taps.right; ++k) {
        const float product = filter[static_cast<size_t>(k * dim + j)] *
                              in[static_cast<size_t>((i + k * taps.stride) * dim + j)];
        sum += product;
      }
      memory.push_back(sum);
      out.push_back(sum + in[static_cast<size_t>((i + taps.left * taps.stride) * dim + j)]);
      if (skip != nullptr) out.back() += skip[i * dim + j];
    }
  }
  return out;
}

TEST(Fsmn, HandWorkedSums) {
  const std::tuple<const char*, Floats, Floats> cases[] = {
      {"<Fsmn> 1 1 <LearnRateCoef> 0.5 <LOrder> 1 <ROrder> 1 <Stride> 2\nstray [ 1\n10\n100 ]",
       {1, 2, 3, 4, 5, 6},
       {534, 646}},
      {"<Fsmn> 1 1 <LOrder> 0 <ROrder> 1 <Stride> 3\n[ 0 1 ]", {1, 2, 3, 4}, {5}},
      {"<Fsmn> 1 1 <LOrder> 2 <ROrder> 0 <Stride> 0\n[ 1 2 3 ]", {1, 2}, {7, 14}}};
  for (const auto& [text, in, out] : cases) {
    const Layer layer = ReadTextLayer(text);
    const auto frames = static_cast<int64_t>(in.size()) / layer->input_dim;
    EXPECT_EQ(RunLayer(*layer, Floats(in), frames, layer->input_dim), out) << text;
    EXPECT_TRUE(layer->Links().empty());
  }
}

TEST(Fsmn, EveryWidthAndFrameCountGivesTheBitsOfTheScalarSum) {
  for (const int dim : {1, 3, 17, 37}) {
    for (const Taps& taps : {Taps{3, 2, 1}, Taps{1, 4, 3}, Taps{0, 0, 1}, Taps{0, 2, 2}}) {
      const Layer layer = ReadLayer(taps.Component(dim));
      for (const int out_frames : {9, 1, 6}) {
        const int frames = out_frames + taps.Context();
        const Floats in = Random(static_cast<size_t>(frames * dim), 77);
        Floats memory;
        const Floats wanted = Direct(taps, dim, in, memory, nullptr);
        ForEachVectorTarget([&] {
          ASSERT_EQ(RunLayer(*layer, Floats(in), frames, dim), wanted);
          const float* kept = dynamic_cast<Fsmn&>(*layer).memory_buffer.data();
          ASSERT_EQ(Floats(kept, kept + memory.size()), memory);
        });
      }
    }
  }
}

TEST(Fsmn, ChainsAddTheMemoryOfTheBlockTheyDependOn) {
  constexpr int kDim = 5;
  const struct {
    std::vector<Taps> blocks;
    std::vector<int> offsets;  // of the skip rows; -1 without
  } cases[] = {
      {{{1, 1, 1, 0, 1}, {3, 0, 1, -1, 2}}, {-1, 3}},
      {{{1, 0, 2, 0, 1}, {1, 2, 1, -1, 2}, {2, 1, 2, -2, 3}, {1, 0, 1, -1, 4}}, {-1, 1, 5, 1}},
      // An offset of 0 is a dependency too.
      {{{2, 0, 1, 0, 1}, {0, 2, 1, -1, 2}}, {-1, 0}}};
  for (const auto& c : cases) {
    std::vector<Bytes> components;
    for (const Taps& taps : c.blocks) components.push_back(taps.Component(kDim));
    Model model(Network(components));
    for (const size_t frames : {size_t{40}, size_t{23}}) {
      const Floats in = Random(frames * kDim, 5);
      Floats rows = in;
      std::vector<Floats> memories(c.blocks.size());
      for (size_t b = 0; b < c.blocks.size(); ++b) {
        const Taps& taps = c.blocks[b];
        const Floats& source = memories[b - static_cast<size_t>(-taps.depend)];
        const float* skip = taps.depend != 0 ? source.data() + c.offsets[b] * kDim : nullptr;
        rows = Direct(taps, kDim, rows, memories[b], skip);
        const auto& block = dynamic_cast<Fsmn&>(*model.nnet.layers[b]);
        EXPECT_EQ(block.skip_offset, c.offsets[b]);
        EXPECT_EQ(block.Links().empty(), taps.depend == 0);
      }
      EXPECT_EQ(model.Call(in, static_cast<int64_t>(frames), kDim), rows);
    }
  }
}

TEST(Fsmn, DependenciesThatCannotBeFollowedThrow) {
  const auto dependent = [](int left, int right, int depend) {
    return Taps{left, right, 1, depend}.Component(2);
  };
  const auto windows = [](int frames) {
    return Component1d(0x603, 2, 2, Bytes().Int(frames).Int(1).Int(0));
  };
  const Bytes pad = Component1d(0x708, 2, 2, Bytes().Ints({1, 0}).Float(0));
  const Bytes first = dependent(1, 0, 0), second = dependent(0, 1, -1);
  const int least = std::numeric_limits<int>::min();
  const std::pair<Bytes, const char*> cases[] = {
      {Network({second}), "fsmn 'depend' out of scope! [-1]"},
      {Network({first, dependent(0, 0, -3)}), "fsmn 'depend' out of scope! [-2]"},
      {Network({first, dependent(0, 0, least)}), "fsmn 'depend' out of scope! [-2147483647]"},
      {Network({Taps{}.Component(3), second}), "mismatched fsmn memory! layer[<Fsmn>] [2] vs [3]"},
      // Frames that a layer between the two repeats have no memory to go with.
      {Network({first, windows(4), second}), "too few fsmn memory rows! [needed:143, produced:39]"},
      {Network({first, windows(2), dependent(40, 0, -1)}),
       "too few fsmn memory rows! [needed:76, produced:39]"},
      {Network({first, pad, dependent(0, 0, -1)}),
       "too few fsmn memory rows! [needed:40, produced:39]"},
      {Network({first, pad, second}), ""},
      {Network({dependent(20, 20, 0)}), "too few input frames! [frames:40, left:20, right:20]"}};
  for (const auto& [network, message] : cases) {
    EXPECT_EQ(ThrownBy([&] { Model(network).Call(Floats(80, 1.0F), 40, 2); }), message);
  }
  // Outside an executor there is nothing to depend on.
  EXPECT_EQ(ThrownBy([&] { RunLayer(*ReadLayer(second), Floats(8), 4, 2); }),
            "fsmn is not linked to its dependency! [-1]");
}

TEST(Fsmn, BlocksThatCannotRunAreRefused) {
  constexpr int kMost = std::numeric_limits<int>::max();
  // Dimensions, left, right, stride and depend.
  const std::array<int, 6> cases[] = {
      {2, 2, -1, 2, 1, 0},    {2, 2, 2, -1, 1, 0},        {2, 2, 1, 1, -1, 0},
      {2, 2, 0, 0, 1, 1},     {2, 2, 2, 0, kMost, 0},     {2, 2, 0, 2, kMost, 0},
      {2, 3, 1, 1, 1, 0},     {0, 0, 1, 1, 1, 0},         {-2, -2, 1, 1, 1, 0},
      {2, 2, kMost, 0, 1, 0}, {2, 2, kMost, kMost, 1, 0}, {kMost, kMost, 1, 1, 1, 0}};
  for (const auto& [in, out, left, right, stride, depend] : cases) {
    const Bytes block =
        Bytes().Int(left).Int(right).Int(stride).Int(depend).Floats(Floats(16, 1.0F));
    EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(0x107, in, out, block)); }),
              "read component failed!")
        << left << " " << right << " " << stride << " " << depend;
  }
  const char* text = "<Fsmn> 1 1 <LOrder> 0 <ROrder> 0 <Stride> 1 <Depend> 1\n[ 1 ]";
  const std::string log = PrintedBy(
      [&] { EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), "read component failed!"); });
  EXPECT_NE(log.find("fsmn-layer"), std::string::npos);
  EXPECT_NE(log.find("Fsmn layer _depend must <= 0!"), std::string::npos);
}

}  // namespace
}  // namespace handwriting::tests
