// The three exported functions, called through the shared library.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>
#include <tuple>

#include "api/handwriting_forward.h"
#include "ctc/beam-search.h"
#include "tests/support/expect.h"
#include "tools/allocations.h"

namespace handwriting::tests {
namespace {

struct Result {
  int count = 0;
  std::vector<std::vector<int>> sequences;
  std::string printed;
};

class Recognizer {
 public:
  Recognizer(const Bytes& model, int max_frames, int nbest) : nbest_(nbest) {
    const File file = FileOf(model);
    printed =
        PrintedBy([&] { instance_ = handwriting_forward_create(file.get(), max_frames, nbest); });
    position = std::ftell(file.get());
  }
  ~Recognizer() { handwriting_forward_destory(instance_); }
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  explicit operator bool() const { return instance_ != nullptr; }
  void* instance() const { return instance_; }

  Result Process(Floats features, int frames, int dim) {
    std::vector<int> output(static_cast<size_t>(nbest_ * frames));
    std::vector<int> len(static_cast<size_t>(nbest_));
    Result result;
    result.printed = PrintedBy([&] {
      result.count = handwriting_forward_process(instance_, features.data(), frames, dim,
                                                 output.data(), len.data());
    });
    auto next = output.begin();
    for (int k = 0; k < result.count; ++k) {
      result.sequences.emplace_back(next, next + len[static_cast<size_t>(k)]);
      next += len[static_cast<size_t>(k)];
    }
    return result;
  }

  std::string printed;
  long position = 0;

 private:
  void* instance_;
  int nbest_;
};

// Features pass unchanged: a class's score is its feature.
Bytes Identity(int dim) {
  Floats weights(static_cast<size_t>(dim * dim), 0.0F);
  for (int i = 0; i < dim; ++i) weights[static_cast<size_t>(i * dim + i)] = 1.0F;
  return Affine(dim, dim, Floats(static_cast<size_t>(dim)), weights);
}

Bytes TwoNetworks(const Bytes& first, const Bytes& second) {
  return Bytes().Add(first).Add(second);
}

TEST(Recognizer, TwoSmallNetworksWorkedByHand) {
  // y = 2 x + 1 on two features, then three classes: blank sum - 1, first, second.
  Bytes model = TwoNetworks(Network({Affine(2, 2, {1, 1}, {2, 0, 0, 2})}),
                            Network({Affine(2, 3, {-1, 0, 0}, {1, 1, 1, 0, 0, 1})}));
  Recognizer recognizer(model.Add(Bytes().Int(7)), 1, 3);
  ASSERT_TRUE(recognizer);
  EXPECT_EQ(recognizer.position + 4, static_cast<long>(model.str().size()));
  EXPECT_EQ(recognizer.printed, "");
  // (1, -2) -> (3, -3) -> blank -1, class 1: 3, class 2: -3.
  // (1, 1) -> (3, 3) -> blank 5, class 1: 3, class 2: 3.
  // (-2, 1) -> (-3, 3) -> blank -1, class 1: -3, class 2: 3.
  const Result result = recognizer.Process({1, -2, 1, 1, -2, 1}, 3, 2);
  // The best three paths, 1 0 2, 1 1 2 and 1 2 2, are one sequence.
  ASSERT_EQ(result.count, 1);
  EXPECT_EQ(result.sequences[0], (std::vector<int>{1, 2}));
}

// Scores from the second network reach the decoder row by row whatever the chunks are.
TEST(Recognizer, EveryLengthGivesTheDecodersOwnResult) {
  constexpr int kClasses = 5;
  // A convolution of one tap, which refuses a call without frames, and weights of 1.
  const Bytes tap = Bytes().Ints({1, 1, 0, 0, 1, kClasses, 0}).Floats(Floats(kClasses, 1.0F));
  Recognizer recognizer(TwoNetworks(Network({Identity(kClasses)}),
                                    Network({Component1d(0x307, kClasses, kClasses, tap)})),
                        16, 4);
  ASSERT_TRUE(recognizer);
  for (const int frames : {1, 15, 16, 17, 31, 32, 33, 100}) {
    const Floats scores = Random(static_cast<size_t>(frames * kClasses), 7, 3.0F);
    ::handwriting_CTC::_beam_search_t decoder(4, 4, kClasses, nullptr);
    decoder.process_all_frame(scores.data(), frames);
    std::vector<int> output(static_cast<size_t>(4 * frames));
    int len[4];
    const int count = decoder.get_CTC_result(output.data(), len);
    const Result result = recognizer.Process(scores, frames, kClasses);
    ASSERT_EQ(result.count, count) << frames;
    auto next = output.begin();
    for (int k = 0; k < count; next += len[k++]) {
      EXPECT_EQ(result.sequences[static_cast<size_t>(k)], std::vector<int>(next, next + len[k]));
    }
  }
}

// An LSTM as the second network carries state over an input's chunks and not into the next input.
TEST(Recognizer, NoResultDependsOnAnEarlierInput) {
  const Bytes lstm =
      Component1d(0x103, 3, 4, Bytes().Floats(Random(16 * 3 + 16 * 4 + 32, 5, 2.0F)));
  const Bytes model = TwoNetworks(Network({Identity(3)}), Network({lstm}));
  const Floats in = Random(120, 6, 2.0F);
  Recognizer fresh(model, 40, 4);
  const Result wanted = fresh.Process(in, 40, 3);
  Recognizer used(model, 40, 4);
  used.Process(Random(60, 8), 20, 3);
  EXPECT_EQ(used.Process(Floats(3), 1, 4).count, -1);
  EXPECT_EQ(used.Process(in, 40, 3).sequences, wanted.sequences);
}

TEST(Recognizer, CreationRefusesWhatItCannotUse) {
  const Bytes one = Network({Identity(2)});
  const std::pair<Bytes, const char*> cases[] = {
      {one, ">>] Failed to read nnet.\n"},
      {Bytes(), ">>] Failed to read nnet.\n"},
      {TwoNetworks(one, Network({})), ">>] Wrong parameter(s)!\n"},
      {TwoNetworks(one, Network({Component1d(0x102, 2, 2)})),
       ">>] unknown or unimplemented nnet layer! [0102]\n"},
      {TwoNetworks(one, Network({Component1d(0x202, 2, -2)})),
       ">>] "},  // no decoder for -2 classes
  };
  for (const auto& [model, message] : cases) {
    Recognizer recognizer(model, 10, 2);
    EXPECT_FALSE(recognizer);
    const size_t at = recognizer.printed.rfind("WARNING * [handwriting_forward:");
    ASSERT_NE(at, std::string::npos) << recognizer.printed;
    EXPECT_NE(recognizer.printed.find("<<handwriting_forward_create", at), std::string::npos);
    EXPECT_NE(recognizer.printed.find(message, at), std::string::npos) << recognizer.printed;
  }
  const std::string whole =
      TwoNetworks(one, Network({Component1d(0x205, 2, 2, Bytes().Float(1))})).str();
  for (size_t size = 0; size < whole.size(); ++size) {
    const File file = FileOf(whole.substr(0, size));
    PrintedBy([&] { ASSERT_EQ(handwriting_forward_create(file.get(), 4, 1), nullptr) << size; });
  }
}

// A datagram is what one write gives.
TEST(Recognizer, EveryLineOfAFailureIsOneWrite) {
  Recognizer recognizer(TwoNetworks(Network({Identity(2)}), Network({Identity(2)})), 4, 2);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(ends[0], STDERR_FILENO);
  const Floats in(3);
  int output[2];
  int len[2];
  handwriting_forward_process(recognizer.instance(), in.data(), 1, 3, output, len);
  handwriting_forward_process(recognizer.instance(), in.data(), 0, 2, output, len);
  dup2(saved, STDERR_FILENO);
  std::vector<std::string> lines;
  char line[1000];
  for (ssize_t n = 0; (n = recv(ends[1], line, sizeof(line), MSG_DONTWAIT)) > 0;) {
    lines.emplace_back(line, static_cast<size_t>(n));
  }
  for (const int descriptor : {saved, ends[0], ends[1]}) close(descriptor);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find("WARN| mismatched input dimension! "), std::string::npos) << lines[0];
  EXPECT_TRUE(lines[1].starts_with("WARNING * [handwriting_forward:")) << lines[1];
  EXPECT_NE(lines[1].find(">>] mismatched input dimension! "), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find(">>] Wrong parameter(s) to ["), std::string::npos) << lines[2];
  for (const std::string& each : lines) EXPECT_EQ(each.find('\n'), each.size() - 1);
}

TEST(Recognizer, ArgumentsAreCheckedFirst) {
  Floats feature(4);
  int output[4];
  int len[4];
  const File model = FileOf(TwoNetworks(Network({Identity(2)}), Network({Identity(2)})));
  void* instance = handwriting_forward_create(model.get(), 2, 2);
  const auto create = [](FILE* fp, int frames, int nbest) {
    return handwriting_forward_create(fp, frames, nbest) == nullptr;
  };
  const auto process = [&](void* i, const float* f, int n, int d, int* o, int* l) {
    return handwriting_forward_process(i, f, n, d, o, l) == -1;
  };
  const std::string create_line =
      "<<handwriting_forward_create>>] Wrong parameter(s) to [handwriting_forward_create], "
      "condition [fp == __null || max_frame_num <= 0 || nbest <= 0]. \n";
  const std::string process_line =
      "<<handwriting_forward_process>>] Wrong parameter(s) to [handwriting_forward_process], "
      "condition [instance == __null || feature == __null || frame_num <= 0 || input_dim <= 0 || "
      "output == __null || len == __null]. \n";
  const std::pair<const std::string&, std::function<bool()>> cases[] = {
      {create_line, [&] { return create(nullptr, 1, 1); }},
      {create_line, [&] { return create(model.get(), 0, 1); }},
      {create_line, [&] { return create(model.get(), 1, -1); }},
      {process_line, [&] { return process(nullptr, feature.data(), 1, 2, output, len); }},
      {process_line, [&] { return process(instance, nullptr, 1, 2, output, len); }},
      {process_line, [&] { return process(instance, feature.data(), 0, 2, output, len); }},
      {process_line, [&] { return process(instance, feature.data(), 1, 0, output, len); }},
      {process_line, [&] { return process(instance, feature.data(), 1, 2, nullptr, len); }},
      {process_line, [&] { return process(instance, feature.data(), 1, 2, output, nullptr); }}};
  for (const auto& [line, fails] : cases) {
    const std::string printed = PrintedBy([&, &f = fails] { EXPECT_TRUE(f()); });
    EXPECT_TRUE(printed.ends_with(line)) << printed;
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1);
  }
  handwriting_forward_destory(nullptr);
  handwriting_forward_destory(instance);
}

TEST(Recognizer, OutputThatTheNextStageCannotReadFailsTheCall) {
  const Bytes identity = Network({Identity(2)});
  const Bytes first_frame = Network({Component1d(0x706, 2, 2, Bytes().String("0"))});
  const Bytes planes = Network({Component1d(0x705, 2, 1, Bytes().Int(2))});
  const std::tuple<Bytes, int, const char*> cases[] = {
      {TwoNetworks(identity, identity), 5,
       "mismatched input dimension! layer[<AffineTransform>] [2] vs [5]\n"},
      {TwoNetworks(identity, Network({Identity(3)})), 2,
       "mismatched input dimension! layer[<AffineTransform>] [3] vs [2]\n"},
      {TwoNetworks(first_frame, identity), 2,
       "mismatched output frames! first network [1] vs [3]\n"},
      {TwoNetworks(identity, first_frame), 2,
       "mismatched output frames! second network [1] vs [3]\n"},
      {TwoNetworks(planes, identity), 2, "mismatched output channels! first network [2] vs [1]\n"},
      {TwoNetworks(identity, planes), 2,
       "mismatched output channels! second network [2] vs [1]\n"}};
  for (const auto& [model, dim, message] : cases) {
    Recognizer recognizer(model, 3, 2);
    ASSERT_TRUE(recognizer) << recognizer.printed;
    const Result result = recognizer.Process(Floats(15), 3, dim);
    EXPECT_EQ(result.count, -1);
    EXPECT_TRUE(result.printed.ends_with(message)) << result.printed;
    EXPECT_NE(result.printed.find("<<handwriting_forward_process>>] "), std::string::npos);
  }
}

TEST(Recognizer, TheSecondNetworkMustSayHowManyClassesItHas) {
  const Bytes identity = Network({Identity(2)});
  const Recognizer none(TwoNetworks(identity, Network({Component2d(0x206, 1, 1, 2, 0)})), 3, 2);
  EXPECT_FALSE(none);
  EXPECT_TRUE(none.printed.ends_with("second network has no output dimension! [0]\n"))
      << none.printed;
}

TEST(Recognizer, TheFrameCountOfCreateIsAHint) {
  const Bytes identity = Network({Identity(2)});
  for (const int frames : {1 << 27, std::numeric_limits<int>::max()}) {
    Recognizer recognizer(TwoNetworks(identity, identity), frames, 2);
    ASSERT_TRUE(recognizer) << recognizer.printed;
    EXPECT_GT(recognizer.Process(Floats(6), 3, 2).count, 0);
  }
}

TEST(Recognizer, ASteadyCallTakesNoMemoryFromTheHeap) {
  constexpr int kFrames = 90;
  constexpr int kBest = 12;
  const File file = FileOf(TwoNetworks(Network({Identity(5)}), Network({Identity(5)})));
  void* instance = handwriting_forward_create(file.get(), kFrames, kBest);
  Floats features = Random(5 * kFrames, 1);
  std::vector<int> output(kBest * kFrames), len(kBest);
  const auto process = [&](int frames) {
    return handwriting_forward_process(instance, features.data(), frames, 5, output.data(),
                                       len.data());
  };
  EXPECT_GT(process(kFrames), 1);
  const uint64_t before = CountAllocations();
  for (const int frames : {kFrames, 7, 40, kFrames}) process(frames);
  EXPECT_EQ(CountAllocations(), before);
  handwriting_forward_destory(instance);
}

TEST(Recognizer, InstancesRunOnSeparateThreads) {
  const Bytes model = TwoNetworks(Network({Identity(4)}), Network({Identity(4)}));
  const Floats in = Random(400, 9);
  Recognizer reference(model, 100, 3);
  const auto wanted = reference.Process(in, 100, 4).sequences;
  std::vector<std::thread> threads;
  std::vector<int> matches(3, 0);
  for (int& match : matches) {
    threads.emplace_back([&] {
      const File file = FileOf(model);
      void* instance = handwriting_forward_create(file.get(), 10, 3);
      std::vector<int> output(300);
      int len[3];
      for (int round = 0; round < 5; ++round) {
        const int count =
            handwriting_forward_process(instance, in.data(), 100, 4, output.data(), len);
        match +=
            count == static_cast<int>(wanted.size()) &&
            std::equal(wanted[0].begin(), wanted[0].end(), output.begin(), output.begin() + len[0]);
      }
      handwriting_forward_destory(instance);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(matches, std::vector<int>(3, 5));
}

}  // namespace
}  // namespace handwriting::tests
