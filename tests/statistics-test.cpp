// Windows over the frame stream and the statistics of windows.

#include "nnet/flow/statistics.h"

#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <tuple>

#include "tests/support/expect.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

Bytes Extraction(int input_period, int output_period, bool variance, int dim, int out_dim) {
  return Component1d(0x601, dim, out_dim,
                     Bytes().Int(input_period).Int(output_period).Byte(variance));
}

Bytes Pooling(int dim, int out_dim, int log_counts = 0, bool deviations = true,
              float floor = 1e-10F) {
  return Component1d(0x602, dim, out_dim,
                     Bytes().Int(3).Int(-1).Int(-1).Int(log_counts).Byte(deviations).Float(floor));
}

Bytes Windows(int window, int hop, int mode = 0, int dim = 1) {
  return Component1d(0x603, dim, dim, Bytes().Int(window).Int(hop).Int(mode));
}

TEST(Statistics, ExtractionSumsTheSpanOfEveryFrame) {
  const struct {
    int input_period, output_period;
    bool variance;
    Floats in, out;
  } cases[] = {{1, 3, true, {1, 2, 3, 4, 5}, {3, 6, 14, 3, 9, 29, 3, 12, 50}},
               {2, 2, true, {1, 2, 3}, {1, 1, 1, 1, 2, 4, 1, 3, 9}},
               {2, 6, false, {1, 2, 3, 4, 5, 6}, {3, 9, 3, 12}}};
  for (const auto& c : cases) {
    const int width = c.variance ? 3 : 2, few = c.output_period - c.input_period;
    const Layer layer =
        ReadLayer(Extraction(c.input_period, c.output_period, c.variance, 1, width));
    Floats in = c.in;
    EXPECT_EQ(RunLayer(*layer, in, static_cast<int64_t>(in.size()), 1), c.out);
    for (size_t i = 0; i < in.size(); ++i) {
      EXPECT_EQ(in[i], c.variance ? c.in[i] * c.in[i] : c.in[i]);
    }
    EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, Floats(9), few, 1); }),
              "too few input frames! [frames:" + std::to_string(few) +
                  ", left:0, right:" + std::to_string(few) + "]");
  }
  const Layer two = ReadLayer(Extraction(1, 2, true, 2, 5));
  EXPECT_EQ(RunLayer(*two, {1, 10, 2, 20, 3, 30}, 3, 2),
            Floats({2, 3, 30, 5, 500, 2, 5, 50, 13, 1300}));
}

// Sums of small whole numbers are exact in any order.
TEST(Statistics, LongSpansAreSummedAsShortOnesAre) {
  for (const auto& [step, span] : {std::pair{1, 129}, {1, 300}, {2, 260}, {3, 600}, {5, 1000}}) {
    const Layer layer = ReadLayer(Extraction(step, span, true, 2, 5));
    for (const int n : {span - step + 1, span, span + 1, 2 * span + 3, 5 * span}) {
      Floats in(static_cast<size_t>(2 * n));
      for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i * i % 7) - 3;
      const Floats out = RunLayer(*layer, Floats(in), n, 2);
      ASSERT_EQ(out.size(), static_cast<size_t>(5 * (n - span + step)));
      for (size_t i = 0; i < out.size(); ++i) {
        float wanted = 0;
        for (int k = 0; k < span; k += step) {
          const float x = in[2 * (i / 5 + static_cast<size_t>(k)) + (i % 5 + 1) % 2];
          wanted += i % 5 == 0 ? 1 : i % 5 < 3 ? x : x * x;
        }
        ASSERT_EQ(out[i], wanted) << step << " " << span << " " << n << " " << i;
      }
    }
  }
}

TEST(Statistics, PoolingGivesMeansAndDeviations) {
  const struct {
    const char* what;
    Bytes layer;
    int dim, pool_frames;
    Floats in, out;
  } cases[] = {
      {"all rows", Pooling(3, 2), 3, 0, {1, 2, 4, 1, 4, 16}, {3, 1}},
      {"a shorter last block", Pooling(3, 2), 3, 2, {1, 2, 4, 1, 4, 16, 2, 10, 68}, {3, 1, 5, 3}},
      {"fewer rows than a block", Pooling(3, 2), 3, 9, {1, 2, 4, 1, 4, 16}, {3, 1}},
      {"a variance below the floor", Pooling(3, 2), 3, 0, {1, 2, 4}, {2, 1e-5F}},
      {"no deviations wanted", Pooling(3, 2, 0, false), 3, 0, {2, 2, 8}, {1, 4}},
      {"an even width has no second half", Pooling(4, 3), 4, 0, {2, 2, 4, 6}, {1, 2, 3}},
      {"count features", Pooling(3, 4, 2), 3, 0, {2, 2, 8}, {0, 0, 1, 4}},
      // The negative one stops the roots.
      {"floor", Pooling(5, 4, 0, true, -9), 5, 0, {1, 2, 1, 0, 5}, {2, 1, -4, 4}}};
  for (const auto& c : cases) {
    const Layer layer = ReadLayer(c.layer);
    dynamic_cast<StatisticsPooling&>(*layer).pool_frames = c.pool_frames;
    const auto rows = static_cast<int64_t>(c.in.size()) / c.dim;
    const Floats out = RunLayer(*layer, Floats(c.in), rows, c.dim);
    ASSERT_EQ(out.size(), c.out.size()) << c.what;
    for (size_t i = 0; i < out.size(); ++i) EXPECT_FLOAT_EQ(out[i], c.out[i]) << c.what;
    EXPECT_TRUE(RunLayer(*layer, {}, 0, c.dim).empty());
  }
  // The executor sizes buffers by a bound that is never below what comes out.
  StatisticsPooling bound(3, 2);
  for (bound.pool_frames = 0; bound.pool_frames < 7; ++bound.pool_frames) {
    for (int64_t n = 1; n < 20; ++n) {
      const int64_t block = bound.pool_frames < 1 || bound.pool_frames > n ? n : bound.pool_frames;
      EXPECT_GE(bound.CalcOutputFrames(n), (n + block - 1) / block);
    }
  }
}

// Runs a network of one sliding window on frames 0, 1, 2, … of one value in calls of these sizes.
Floats Slide(Model& model, const std::vector<int64_t>& calls, bool marked) {
  Floats in(ToSize(std::accumulate(calls.begin(), calls.end(), int64_t{0})));
  std::iota(in.begin(), in.end(), 0.0F);
  return model.Chunks(in, 1, calls, marked).frames;
}

TEST(Statistics, WindowsComeOutOnceHoweverTheStreamIsCut) {
  const std::tuple<int, int, int, int, bool, Floats> cases[] = {
      {4, 2, 0, 9, false, {0, 1, 2, 3, 2, 3, 4, 5, 4, 5, 6, 7}},
      {4, 2, 0, 9, true, {0, 1, 2, 3, 2, 3, 4, 5, 4, 5, 6, 7, 6, 7, 8}},
      {4, 2, 1, 9, true, {0, 1, 2, 3, 2, 3, 4, 5, 4, 5, 6, 7, 5, 6, 7, 8}},
      {4, 3, 1, 8, true, {0, 1, 2, 3, 3, 4, 5, 6, 4, 5, 6, 7}},
      {3, 3, 0, 7, true, {0, 1, 2, 3, 4, 5, 6}},
      {3, 3, 1, 7, true, {0, 1, 2, 3, 4, 5, 4, 5, 6}},
      {4, 2, 0, 3, true, {0, 1, 2}},
      {4, 2, 1, 3, true, {0, 1, 2}},
      {4, 2, 1, 3, false, {}},
      {4, 1, 0, 1, true, {0}},
      {4, 4, 1, 5, true, {0, 1, 2, 3, 1, 2, 3, 4}},
      {1, 1, 0, 3, true, {0, 1, 2}},
      {5, 1, 1, 6, true, {0, 1, 2, 3, 4, 1, 2, 3, 4, 5}}};
  for (const auto& [window, hop, mode, frames, marked, out] : cases) {
    Model model(Network({Windows(window, hop, mode)}));
    EXPECT_EQ(Slide(model, {frames}, marked), out);
    // Every cut into two calls. With the whole stream in the first call the last one holds only
    // frames that windows have had, so it may not be empty.
    for (int cut = 0; cut < frames; ++cut) {
      model.forward->Reset();
      EXPECT_EQ(Slide(model, {cut, frames - cut}, marked), out) << "cut at " << cut;
    }
    model.forward->Reset();
    EXPECT_EQ(Slide(model, std::vector<int64_t>(ToSize(frames), 1), marked), out);
  }
}

TEST(Statistics, OverlappingWindowsGetTheRoomThatTheyNeed) {
  // 9 windows of 4 frames, where the bound on frames says 24.
  Model model(Network({Windows(4, 2, 0, 3)}));
  const Floats in = Random(60, 3);
  const Floats out = model.Call(in, 20, 3);
  ASSERT_EQ(out.size(), 36U * 3U);
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(out[i], in[(i / 12 * 2 + i / 3 % 4) * 3 + i % 3]);
  }
  const Component& layer = *model.nnet.layers[0];
  EXPECT_EQ(layer.CalcStreamOutputFrames(20), 24);
  EXPECT_EQ(layer.CalcStreamOutputFrames(0), 0);
  EXPECT_EQ(ThrownBy([&] { (void)layer.CalcOutputFrames(20); }),
            "output frames cannot be calculated precisely!");
}

TEST(Statistics, OneVectorAWindow) {
  Model model(Network({Extraction(1, 1, true, 1, 3), Windows(4, 2, 0, 3), Pooling(3, 2)}));
  EXPECT_EQ(model.nnet.layers[2]->Links(), "windows of 4 frames");
  const Floats out = model.Call({1, 3, 1, 3, 5, 7, 5, 7, 9}, 9, 1);
  const Floats wanted = {2, 1, 4, std::sqrt(5.0F), 6, 1};
  ASSERT_EQ(out.size(), wanted.size());
  for (size_t i = 0; i < out.size(); ++i) EXPECT_FLOAT_EQ(out[i], wanted[i]) << i;
}

TEST(Statistics, BlocksThatCannotRunAreRefused) {
  constexpr int kMost = std::numeric_limits<int>::max();
  std::vector<Bytes> refused = {Component1d(0x603, 2, 3, Bytes().Int(2).Int(1).Int(0))};
  for (const auto& [in, out, variance, dim, out_dim] : {std::array{0, 1, 1, 1, 3},
                                                        {1, 0, 1, 1, 3},
                                                        {-1, 1, 1, 1, 3},
                                                        {2, 3, 1, 1, 3},
                                                        {2, 1, 1, 1, 3},
                                                        {1, 1, 1, 1, 2},
                                                        {1, 1, 0, 1, 3},
                                                        {1, 1, 1, 0, 1},
                                                        {1, 1, 1, kMost, -1}}) {
    refused.push_back(Extraction(in, out, variance != 0, dim, out_dim));
  }
  for (const auto& [dim, out_dim, log_counts] :
       {std::array{3, 3, 0}, {3, 1, -1}, {3, kMost, kMost - 1}, {1, 0, 0}, {0, 0, 1}, {-1, 0, 2}}) {
    refused.push_back(Pooling(dim, out_dim, log_counts));
  }
  for (size_t i = 0; i < refused.size(); ++i) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(refused[i]); }), "read component failed!") << i;
  }
  const std::pair<Bytes, std::string> wrong[] = {
      {Windows(0, 0), "window_size <= 0 || hop_size <= 0"},
      {Windows(1, -1), "window_size <= 0 || hop_size <= 0"},
      {Windows(3, 5), "window_size < hop_size"},
      {Windows(3, 1, 0, 0), "feat_dim <= 0"},
      {Windows(3, 1, 2), "mode != (int)mode_t::FIXED_HOP && mode != (int)mode_t::FIXED_WIN"}};
  for (const auto& [component, condition] : wrong) {
    const std::string reason =
        "] Wrong parameter(s) to [feats_win_generator_t], condition [" + condition + "]. \n";
    const std::string line = PrintedBy([&, &bytes = component] {
      EXPECT_EQ(ThrownBy([&] { ReadLayer(bytes); }), "Wrong parameter(s)!");
    });
    EXPECT_EQ(line.find("[rectify_feats:"), 0U) << line;
    EXPECT_NE(line.find(reason), std::string::npos) << line;
  }
}

TEST(Statistics, WindowsWithoutFramesAreRefusedAndLeaveTheStreamAsItWas) {
  const Layer layer = ReadLayer(Windows(2, 2));
  float out[8] = {};
  const float frame = 1;
  layer->PropagateChunk(&frame, 1, 1, out, 1);
  for (const int64_t frames : {-1, 2}) {
    const std::string line = PrintedBy([&] {
      EXPECT_EQ(ThrownBy([&] { layer->PropagateChunk(nullptr, frames, 1, out, 1); }),
                "sliding window add data failed!");
    });
    const std::string condition =
        frames < 0 ? "feats_fnum < 0" : "feats_fnum > 0 && feats == __null";
    const std::string reason = "Wrong parameter(s) to [add_data], condition [" + condition;
    EXPECT_NE(line.find(reason), std::string::npos) << line;
  }
  const float next = 2;
  layer->PropagateFnc(&next, 1, 1, out, -1);  // counts its own calls, so this is not the last
  EXPECT_EQ(layer->OutputFrames(), 2);
  EXPECT_EQ(Floats(out, out + 2), Floats({1, 2}));
}

}  // namespace
}  // namespace handwriting::tests
