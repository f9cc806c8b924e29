// The executor: buffers, links, shapes that only show at run time, and what a hostile file may
// claim.

#include <algorithm>
#include <tuple>

#include "nnet/runtime/nnet-nnet.h"
#include "tests/support/expect.h"
#include "tests/support/layer-samples.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

TEST(Executor, OneTwoAndManyLayersLeaveTheResultInOnePlace) {
  const Bytes twice = Affine(2, 2, {0, 0}, {2, 0, 0, 2});
  const Bytes swap = Affine(2, 2, {1, 0}, {0, 1, 1, 0});
  const std::pair<Bytes, Floats> cases[] = {
      {Network({twice}), {2, 4, -6, 8}},
      {Network({twice, swap}), {5, 2, 9, -6}},
      {Network({swap, twice, Component1d(0x203, 2, 2)}), {6, 2, 10, 0}}};
  for (const auto& [network, out] : cases) {
    Model model(network);
    EXPECT_EQ(model.Call({1, 2, -3, 4}, 2, 2), out);
    EXPECT_EQ(model.forward->OutputFrames(), 2);
    EXPECT_EQ(model.forward->InputDim(), 2);
    EXPECT_EQ(model.forward->OutputDim(), 2);
  }
}

TEST(Executor, BuffersFollowTheLargestCall) {
  Model model(Network({Affine(1, 3, {0, 0, 0}, {1, 2, 3}), Affine(3, 1, {0}, {1, 1, 1})}));
  model.forward->ReserveFrames(4);
  for (const int64_t frames : {1, 40, 3, 41}) {
    const Floats in = Random(static_cast<size_t>(frames), 3);
    const Floats out = model.Call(in, frames, 1);
    ASSERT_EQ(out.size(), in.size());
    for (size_t t = 0; t < in.size(); ++t) EXPECT_FLOAT_EQ(out[t], 6 * in[t]);
  }
  EXPECT_TRUE(model.Call({}, 0, 1).empty());
}

// Records what the executor hands to a layer; may claim more planes than the one that it writes.
class Probe final : public Component {
 public:
  explicit Probe(int claimed_planes = 1) : Component(1, 1) { output_channel = claimed_planes; }
  int GetType() const override { return 0x202; }
  int GetFixedType() const override { return 0x902; }
  void Reset() override { ++resets; }
  CallPlan Plan(int64_t frames, int) const override {
    return {frames, ToSize(frames), ToSize(frames)};
  }
  void PropagateFnc(const float* in, int64_t frames, int, float* out, int call_id) override {
    std::copy_n(in, frames, out);
    ids.push_back(call_id);
  }
  std::vector<int> ids;
  int resets = 0;
};

TEST(Executor, CountsCallsSinceTheLastReset) {
  Nnet nnet;
  auto owned = std::make_unique<Probe>();
  Probe& probe = *owned;
  nnet.layers.push_back(std::move(owned));
  NnetForward forward(&nnet);
  const float in[] = {1, 2};
  forward.Forward(in, 2, 1);
  forward.Forward(in, 1, 1);
  EXPECT_EQ(forward.OutputFrames(), 1);
  forward.Reset();
  EXPECT_EQ(forward.OutputFrames(), 0);
  forward.Forward(in, 1, 1);
  forward.Propagate(in, 1, 1, -7);
  EXPECT_EQ(probe.ids, (std::vector<int>{1, 2, 1, -7}));
  EXPECT_EQ(probe.resets, 1);
}

TEST(Executor, NetworksThatCannotBeBuilt) {
  Nnet empty;
  for (const auto& [nnet, condition] : {std::pair<Nnet*, const char*>{nullptr, "nnet == __null"},
                                        {&empty, "nnet->layers.empty()"}}) {
    const std::string log = PrintedBy([n = nnet] {
      EXPECT_EQ(ThrownBy([n] { NnetForward forward(n); }), "Wrong parameter(s)!");
    });
    EXPECT_TRUE(log.starts_with("[nnet-nnet:")) << log;
    EXPECT_TRUE(log.ends_with(std::string("] Wrong parameter(s) to [NnetForward], condition [") +
                              condition + "]. \n"))
        << log;
  }
}

// Headers that do not fit together are refused at the layer that would read too much.
TEST(Executor, ALayerMustFindAllTheInputThatItReads) {
  const std::tuple<Bytes, int, const char*> cases[] = {
      {Network({Component1d(0x202, 2, 2), Affine(3, 1, {0}, {1, 1, 1})}), 2,
       "mismatched input dimension! layer[<AffineTransform>] [3] vs [2]"},
      {Network({Component1d(0x202, 2, 2)}), 3,
       "mismatched input dimension! layer[<Sigmoid>] [2] vs [3]"},
      {Network({Component1d(0x202, 2, 2), Component2d(0x206, 3, 3, 0, 0)}), 2,
       "too little input! layer[<ReLU2d>] position[1] reads [24] floats, given [1 channels x 2 x 4 "
       "frames = 8]"},
      {Network({Component2d(0x206, 0, 0, 2, 2), Component1d(0x702, 2, 2, Bytes().Ints({0, 1, 0}))}),
       2,
       "too little input! layer[<ConcatenateComponent>] position[1] reads [8] floats, given [0 "
       "channels x 2 x 4 frames = 0]"},
      {Network({Component2d(0x206, 5, 5, 2, 2)}), 2,
       "too little input! layer[<ReLU2d>] position[0] reads [40] floats, given [1 channels x 2 x 4 "
       "frames = 8]"}};
  for (const auto& [network, dim, message] : cases) {
    Model model(network);
    EXPECT_EQ(ThrownBy([&] { model.Call(Floats(12), 4, dim); }), message);
  }
}

TEST(Executor, WidthsThatOnlyShowAtRunTimeGetTheirRoom) {
  // The channel layers announce nothing; their width is the caller's.
  Model planes(Network({Component2d(0x206, 2, 2, 0, 0), Component2d(0x206, 2, 2, 0, 0)}));
  for (const int dim : {1, 7, 3}) {
    const Floats in = Random(static_cast<size_t>(10 * dim), 4);
    const Floats out = planes.Call(in, 5, dim, 2);
    ASSERT_EQ(out.size(), in.size());
    for (size_t i = 0; i < in.size(); ++i) EXPECT_EQ(out[i], in[i] > 0 ? in[i] : 0.0F);
    EXPECT_EQ(planes.forward->OutputShape().dim, dim);
    EXPECT_EQ(planes.forward->OutputShape().channels, 2);
  }
}

TEST(Executor, WhatIsClaimedBeyondWhatIsWrittenReadsAsZeros) {
  Nnet nnet;
  nnet.layers.push_back(ReadLayer(Affine(1, 40, Floats(40, 1.0F), Floats(40, 1.0F))));
  nnet.layers.push_back(ReadLayer(Affine(40, 1, {5}, Floats(40))));
  nnet.layers.push_back(std::make_unique<Probe>(3));
  NnetForward forward(&nnet);
  const float in[] = {1, 1};
  forward.Forward(in, 2, 1);
  EXPECT_EQ(Floats(forward.Output(), forward.Output() + forward.OutputShape().floats()),
            Floats({5, 5, 0, 0, 0, 0}));
}

TEST(Executor, SizesBeyondTheLimitsAreRefused) {
  // What is reserved ahead is a hint: the call itself says what does not fit.
  constexpr int kWide = 1000;
  Model wide(Network({Component1d(0x708, kWide, kWide, Bytes().Ints({600'000, 0}).Float(0))}));
  wide.forward->ReserveFrames(1);
  EXPECT_NE(ThrownBy([&] { wide.Call(Floats(kWide), 1, kWide); }).find("frame buffer too large!"),
            std::string::npos);
  Model narrow(Network({Component1d(0x203, 1, 1)}));
  narrow.forward->ReserveFrames(int64_t{1} << 40);
  EXPECT_EQ(narrow.Call({-1, 1}, 2, 1), Floats({0, 1}));
  // Transposed convolutions whose strides make too many frames of a short call, or of a long one.
  for (const auto& [frames, stride, message] :
       {std::tuple{2, 2'000'000, "[2000001 > 1048576]"}, {2048, 1025, "[2098176 > 2097152]"}}) {
    Model stretched(
        Network({Component1d(0x308, 1, 1, Bytes().Ints({1, stride, 0, 0, 0, 1, 1, 0}).Float(1))}));
    EXPECT_EQ(ThrownBy([&, n = frames] { stretched.Call(Floats(ToSize(n)), n, 1); }),
              std::string("too many frames! layer[<ConvTranspose1d>] position[0] ") + message);
  }
}

// A row that becomes twice as wide with every register.
Bytes Doubling(int times) {
  std::vector<Bytes> layers;
  for (int i = 0, width = 2; i < times; ++i, width *= 2) {
    const std::string name(1, static_cast<char>('a' + i));
    layers.push_back(Component1d(0x700, width, width, Bytes().String(name)));
    layers.push_back(
        Component1d(0x702, width, 2 * width, Bytes().Int(1).String(name).Ints({1, 1})));
  }
  return Network(layers);
}

Bytes SampleOf(int code) {
  const auto* row = std::ranges::find(kLayerSamples, code, &LayerSample::code);
  return row->bytes;
}

// Ahead of a call there is memory for what its frames and the parameters explain, and little for
// what a header claims.
TEST(Executor, WhatAHeaderClaimsReservesLittle) {
  constexpr int kWide = 5'000'000;
  constexpr int kLong = 500'000;
  const Bytes pad = Component1d(0x708, 1, 1, Bytes().Ints({kLong, kLong}).Float(0));
  const std::vector<Bytes> networks[] = {
      {Component1d(0x202, kWide, kWide), Component1d(0x202, kWide, kWide)},
      {Component1d(0x708, kWide, kWide, Bytes().Ints({30, 30}).Float(0))},
      {Component1d(0x603, 2500, 2500, Bytes().Ints({20'000, 1, 1}))},
      {pad, SampleOf(0x109)},
      {pad, SampleOf(0x10a)},
      {pad, SampleOf(0x10c)},
      std::vector<Bytes>(50, Component1d(0x603, 2500, 2500, Bytes().Ints({20'000, 1, 1})))};
  for (const std::vector<Bytes>& network : networks) {
    BufferBudget budget(uint64_t{1} << 40);
    Model model(Network(network), &budget);
    model.forward->ReserveFrames(100);
    EXPECT_LT(budget.used(), uint64_t{40} << 20);
  }
  BufferBudget budget(uint64_t{1} << 40);
  Model explained(Network({Affine(2, 500, Floats(500), Floats(1000))}), &budget);
  explained.forward->ReserveFrames(100'000);
  EXPECT_GE(budget.used(), uint64_t{100'000} * 500 * sizeof(float));
}

TEST(Executor, AllBuffersTogetherKeepWithinTheirBudget) {
  constexpr uint64_t kBytes = uint64_t{4} << 20;
  BufferBudget budget(kBytes);
  Model first(Doubling(10), &budget);
  Model second(Doubling(10), &budget);
  EXPECT_EQ(first.Call(Floats(2 * 100, 1.0F), 100, 2).size(), 2U * 100 * 1024);
  EXPECT_LE(budget.used(), kBytes);
  const std::string thrown = ThrownBy([&] { second.Call(Floats(2 * 100, 1.0F), 100, 2); });
  EXPECT_TRUE(thrown.starts_with("buffers too large! layer[<")) << thrown;
  EXPECT_TRUE(thrown.ends_with(" > 4194304 bytes]")) << thrown;
  EXPECT_LE(budget.used(), kBytes);
}

TEST(Executor, WorkThatOnlyAHeaderAsksForIsBounded) {
  const auto padded = [](int code, int frames) {
    return Network(
        {Component1d(0x708, 1, 1, Bytes().Ints({frames, 0}).Float(0.5F)), SampleOf(code)});
  };
  for (const int code : {0x109, 0x10a}) {
    Model modest(padded(code, 1000));
    EXPECT_EQ(modest.Call(Floats(100), 100, 1).size(), 1100U);
    Model excessive(padded(code, 30'000));
    const std::string thrown = ThrownBy([&] { excessive.Call(Floats(100), 100, 1); });
    EXPECT_TRUE(thrown.starts_with("too much work! layer[<")) << thrown;
    EXPECT_NE(thrown.find("] position[1] ["), std::string::npos) << thrown;
    EXPECT_TRUE(thrown.ends_with(" > 838860800]")) << thrown;
  }
  // What the caller brings may cost what it costs.
  Model encoder(Network({SampleOf(0x109)}));
  EXPECT_EQ(encoder.Call(Floats(3000), 3000, 1).size(), 3000U);
}

}  // namespace
}  // namespace handwriting::tests
