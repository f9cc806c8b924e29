#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <map>

#include "bench/plain-search.h"
#include "ctc/beam-search.h"
#include "ctc/ctc-confidence.h"
#include "ctc/ctc-result.h"
#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"
#include "utils/fast-math.h"

namespace handwriting_CTC {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

using Sequence = std::vector<int>;

// Rows of scores, from ordinary ones to those that strain the comparisons.
enum class Scores { kDistinct, kTied, kSpecial };

std::vector<float> RandomScores(std::mt19937& random, std::size_t count, Scores kind) {
  static constexpr float kSpecials[] = {-kInf, kInf, kNan, -FLT_MAX, FLT_MAX, -1.0F, -0.0F, 0.0F};
  std::normal_distribution<float> normal(-3.0F, 2.0F);
  std::vector<float> scores(count);
  for (float& score : scores) {
    score = normal(random);
    if (kind == Scores::kTied) score = std::round(score);
    if (kind == Scores::kSpecial && random() % 3 != 0) score = kSpecials[random() % 8];
    if (kind == Scores::kSpecial && random() % 2 != 0) score = -kInf;
  }
  return scores;
}

// Logarithms of probabilities, one of which is the larger part where `spread` is large.
std::vector<float> RandomLogProbabilities(std::mt19937& random, int count, float spread) {
  std::normal_distribution<float> normal(0.0F, spread);
  std::vector<float> row(static_cast<std::size_t>(count));
  double sum = 0.0;
  for (float& value : row) sum += std::exp(double{value = normal(random)});
  for (float& value : row) value = static_cast<float>(value - std::log(sum));
  return row;
}

// Readable and, for NaNs and zeros, exact; with the path where a node has one.
template <class Node>
std::string Text(const std::vector<Node>& nodes) {
  std::string text;
  for (const Node& node : nodes) {
    text += std::to_string(node.index) + ":" + std::to_string(node.score) + "/" +
            std::to_string(std::bit_cast<std::uint32_t>(node.score)) + " (";
    if constexpr (requires { node.hist; }) {
      for (auto at = node.hist; at; at = at->parent) text += std::to_string(at->label) + " ";
    }
    text += ") ";
  }
  return text;
}

TEST(TopN, MatchesPlainSelectionOnEveryTarget) {
  handwriting::tests::ForEachVectorTarget([] {
    std::mt19937 random(7);
    for (int round = 0; round < 1500; ++round) {
      const std::size_t n = random() % 150;
      const std::size_t k = std::min(n, random() % (round % 2 != 0 ? 12 : n + 1));
      const auto scores = RandomScores(random, n, static_cast<Scores>(round % 3));
      std::vector<_index_score_node> selected(k), expected(k);
      get_topn(scores.data(), static_cast<int>(n), selected);
      PlainTopN(scores.data(), static_cast<int>(n), expected);
      ASSERT_EQ(Text(selected), Text(expected)) << "n " << n << " k " << k;
    }
  });
}

TEST(TopN, FourArgumentFormPartitions) {
  std::mt19937 random(8);
  for (int n = 0; n < 40; ++n) {
    const auto scores = RandomScores(random, static_cast<std::size_t>(n), Scores::kTied);
    for (int m = 0; m <= n; ++m) {
      std::vector<_index_score_node> out(scores.size());
      get_topn(scores.data(), n, out, m);
      std::vector<float> parts;
      for (const auto& [index, score] : out) {
        ASSERT_EQ(score, scores.at(static_cast<std::size_t>(index)));
        ASSERT_TRUE(m < n || static_cast<std::size_t>(index) == parts.size());
        parts.push_back(score);
      }
      // Sorting each part must sort the whole.
      std::sort(parts.begin(), parts.begin() + m, std::greater<>());
      std::sort(parts.begin() + m, parts.end(), std::greater<>());
      auto sorted = scores;
      std::sort(sorted.begin(), sorted.end(), std::greater<>());
      ASSERT_EQ(parts, sorted) << "n " << n << " m " << m;
    }
  }
}

std::vector<Sequence> Result(const _beam_search_t& decoder, std::size_t frames) {
  const auto beam = decoder.beam_list.size();
  Sequence output(beam * frames + 1, -7), lengths(beam + 1, -7);
  const int count = decoder.get_CTC_result(output.data(), lengths.data());
  std::vector<Sequence> sequences;
  auto next = output.begin();
  for (int k = 0; k < count; ++k) {
    const auto from = std::exchange(next, next + lengths.at(static_cast<std::size_t>(k)));
    sequences.emplace_back(from, next);
  }
  EXPECT_EQ(*next, -7) << "written after the last sequence";
  EXPECT_EQ(lengths[static_cast<std::size_t>(count)], -7) << "written after the last length";
  return sequences;
}

TEST(BeamSearch, MatchesPlainSearch) {
  std::mt19937 random(9);
  for (int round = 0; round < 600; ++round) {
    const int classes = 1 + static_cast<int>(random() % 24);
    const int topn = 1 + static_cast<int>(random() % 16);
    const int beam = random() % 2 != 0 ? topn : 1 + static_cast<int>(random() % 12);
    _beam_search_t decoder(beam, topn, classes, nullptr);
    PlainSearch plain(beam, topn, classes);
    // Several inputs with one decoder: an entry that no candidate replaces keeps an older path, but
    // none of an input before, which would not fit in the output.
    for (int input = 0; input < 4; ++input) {
      const std::size_t frames = 1 + random() % (round % 200 == 0 ? 400 : 7);
      for (std::size_t t = 0; t < frames; ++t) {
        const auto row = RandomScores(random, static_cast<std::size_t>(classes),
                                      static_cast<Scores>(random() % 3));
        t == 0 ? decoder.process_first_frame(row.data()) : decoder.process_one_frame(row.data());
        t == 0 ? plain.First(row.data()) : plain.Next(row.data());
        ASSERT_EQ(Text(decoder.beam_list), Text(plain.beam));
        ASSERT_EQ(Text(decoder.topn_result), Text(plain.collected));
      }
      ASSERT_LE(plain.beam.size(), 16U);  // of more the plain sort may leave NaNs anywhere
      ASSERT_EQ(Result(decoder, frames), plain.Result());
    }
  }
}

TEST(BeamSearch, RanksAllSequencesWhenTheBeamHoldsAllPaths) {
  std::mt19937 random(11);
  for (const auto& [labels, frame_count] : {std::pair{3, 1}, {3, 3}, {3, 5}, {4, 4}, {2, 7}}) {
    const int paths = static_cast<int>(std::pow(labels, frame_count));
    // The other classes are impossible; they are there to let the beam grow.
    std::vector<float> frames;
    for (int t = 0; t < frame_count; ++t) {
      const std::vector<float> row = RandomLogProbabilities(random, labels, 3.0F);
      frames.insert(frames.end(), row.begin(), row.end());
      frames.resize(static_cast<std::size_t>((t + 1) * paths), -kInf);
    }
    _beam_search_t decoder(paths, paths, paths, nullptr);
    decoder.process_all_frame(frames.data(), frame_count);
    const auto ranked = Result(decoder, static_cast<std::size_t>(frame_count));

    // The sums in double precision; the digits of a path's number are its labels.
    std::map<Sequence, double> sums;
    for (int path = 0; path < paths; ++path) {
      Sequence sequence;
      double score = 0.0;
      for (int t = 0, last = 0, digits = path; t < frame_count; ++t, digits /= labels) {
        const int label = digits % labels;
        score += static_cast<double>(frames[static_cast<std::size_t>(t * paths + label)]);
        if (label != 0 && label != last) sequence.push_back(label);
        last = label;
      }
      sums[sequence] += std::exp(score);
    }
    ASSERT_EQ(ranked.size(), sums.size());
    std::vector<_ctc_record_t> records = decoder.get_CTC_records();
    ASSERT_EQ(records.size(), ranked.size());
    EXPECT_TRUE(add_confidences(frames, paths, records));
    double better = HUGE_VAL;
    for (std::size_t k = 0; k < ranked.size(); ++k) {
      ASSERT_EQ(sums.count(ranked[k]), 1U);
      const double score = std::log(sums[ranked[k]]);
      EXPECT_LE(score, better + 1e-4);  // nearly equal ones may change places
      better = score;
      EXPECT_EQ(records[k].labels, ranked[k]);
      EXPECT_NEAR(static_cast<double>(records[k].score), score, 1e-4);
      EXPECT_NEAR(records[k].confidence.value_or(-1.0), sums[ranked[k]], 1e-6);
    }
  }
}

// The paths are walked from their first frame on.
TEST(BeamSearch, SpansAreTheRunsOfTheBestPath) {
  std::mt19937 random(13);
  for (int round = 0; round < 100; ++round) {
    _beam_search_t decoder(8, 4, 4, nullptr);
    const int frames = 1 + static_cast<int>(random() % 30);
    for (int t = 0; t < frames; ++t) {
      const auto kind = round % 4 == 0 ? Scores::kSpecial : Scores::kDistinct;
      const auto row = RandomScores(random, 4, kind);
      t == 0 ? decoder.process_first_frame(row.data()) : decoder.process_one_frame(row.data());
    }
    std::map<Sequence, std::pair<float, std::vector<_frame_span_t>>> best;
    for (const _list_score_node& entry : decoder.beam_list) {
      Sequence path;
      for (auto node = entry.hist; node; node = node->parent)
        path.insert(path.begin(), node->label);
      Sequence sequence;
      std::vector<_frame_span_t> spans;
      for (int t = 0; t < static_cast<int>(path.size()); ++t) {
        const int label = path[static_cast<std::size_t>(t)];
        const bool begins = t == 0 || label != path[static_cast<std::size_t>(t - 1)];
        if (label != 0 && begins) {
          sequence.push_back(label);
          spans.push_back({t, t + 1});
        } else if (label != 0) {
          spans.back().end = t + 1;
        }
      }
      const auto [at, is_new] = best.try_emplace(sequence, entry.score, spans);
      if (!is_new && entry.score > at->second.first) at->second = {entry.score, spans};
    }
    const std::vector<_ctc_record_t> records = decoder.get_CTC_records();
    std::vector<Sequence> sequences;
    for (const _ctc_record_t& record : records) {
      sequences.push_back(record.labels);
      ASSERT_EQ(record.spans, best[record.labels].second);
    }
    ASSERT_EQ(sequences, Result(decoder, static_cast<std::size_t>(frames)));
  }
}

// The forward recursion over all states, with logarithms.
double PlainConfidence(const std::vector<float>& rows, int classes, const Sequence& labels) {
  const auto add = [](double a, double b) {
    const double larger = std::max(a, b);
    return larger == -HUGE_VAL ? larger : larger + std::log1p(std::exp(std::min(a, b) - larger));
  };
  Sequence states = {0};
  for (const int label : labels) states.insert(states.end(), {label, 0});
  std::vector<double> alphas(states.size(), -HUGE_VAL);
  for (std::size_t t = 0; t < rows.size() / static_cast<std::size_t>(classes); ++t) {
    for (std::size_t s = states.size(); s-- > 0;) {
      double sum = t == 0 ? (s < 2 ? 0.0 : -HUGE_VAL) : alphas[s];
      if (t > 0 && s > 0) sum = add(sum, alphas[s - 1]);
      if (t > 0 && s > 1 && states[s] != states[s - 2]) sum = add(sum, alphas[s - 2]);
      alphas[s] =
          sum + rows[t * static_cast<std::size_t>(classes) + static_cast<std::size_t>(states[s])];
    }
  }
  return std::exp(labels.empty() ? alphas[0] : add(alphas[alphas.size() - 1], alphas.end()[-2]));
}

TEST(Confidences, AreThoseOfThePlainRecursion) {
  std::mt19937 random(14);
  constexpr int kClasses = 5;
  // Flat, so that many states are in the running; and sharp, over many frames.
  for (const auto& [frames, spread] :
       {std::pair{1, 1.0F}, {40, 0.5F}, {400, 6.0F}, {3000, 30.0F}}) {
    std::vector<float> rows;
    _beam_search_t decoder(6, kClasses, kClasses, nullptr);
    for (int t = 0; t < frames; ++t) {
      const auto row = RandomLogProbabilities(random, kClasses, spread);
      rows.insert(rows.end(), row.begin(), row.end());
      t == 0 ? decoder.process_first_frame(row.data()) : decoder.process_one_frame(row.data());
    }
    std::vector<_ctc_record_t> records = decoder.get_CTC_records();
    const _ctc_record_t unknown = records.back();
    // Of more labels than there are frames: impossible.
    records.push_back({Sequence(static_cast<std::size_t>(frames) + 1, 1), 0.0F, {}, {}, {}});
    ASSERT_TRUE(add_confidences(rows, kClasses, records));
    EXPECT_EQ(records.back().confidence, 0.0);
    records.pop_back();
    for (const _ctc_record_t& record : records) {
      const double wanted = PlainConfidence(rows, kClasses, record.labels);
      EXPECT_NEAR(record.confidence.value_or(-1.0), wanted, 1e-3 * wanted) << frames;
      EXPECT_GT(wanted, 0.0);
      for (std::size_t k = 0; k < record.labels.size(); ++k) {
        const auto [begin, end] = record.spans[k];
        double mean = 0.0;
        for (int t = begin; t < end; ++t) {
          mean += std::exp(double{rows[static_cast<std::size_t>(t * kClasses + record.labels[k])]});
        }
        ASSERT_NEAR(record.label_confidences[k], mean / (end - begin), 1e-5);
      }
    }
    // No probabilities in the last row.
    rows.back() = 1.0F;
    std::vector<_ctc_record_t> others = {unknown};
    EXPECT_FALSE(add_confidences(rows, kClasses, others));
    EXPECT_FALSE(others[0].confidence.has_value());
  }
}

TEST(BeamSearch, WorkedExample) {
  const float frames[] = {-0.1F, -2.0F, -3.0F, -0.2F, -1.8F, -5.0F};
  _beam_search_t decoder(2, 2, 3, nullptr);
  decoder.process_all_frame(frames, 2);
  EXPECT_EQ(Result(decoder, 2), (std::vector<Sequence>{{}, {1}}));
  EXPECT_EQ(Result(decoder, 2), (std::vector<Sequence>{{}, {1}})) << "reading changed the beam";
  decoder.process_all_frame(frames, 0);  // the first frame is there whatever the count
  EXPECT_EQ(std::max(decoder.beam_list[0].score, decoder.beam_list[1].score), -0.1F);
}

TEST(BeamSearch, EmptySizes) {
  const float frames[3 * 3] = {};
  for (const auto& [beam, topn, classes] : {std::array{0, 2, 3}, {2, 0, 3}, {2, 2, 0}}) {
    _beam_search_t decoder(beam, topn, classes, nullptr);
    decoder.process_all_frame(frames, 3);
    EXPECT_TRUE(Result(decoder, 3).empty());
  }
  const _beam_search_t fresh(3, 4, 5, nullptr);
  EXPECT_EQ(Result(fresh, 1), std::vector<Sequence>{{}});
  for (const auto& [beam, topn, classes] : {std::array{-1, 2, 3}, {2, -1, 3}, {2, 2, -1}}) {
    EXPECT_THROW(_beam_search_t(beam, topn, classes, nullptr), std::length_error);
  }
}

TEST(BeamSearch, MillionFramesAreReleased) {
  const float frames[2][3] = {{-1.0F, -0.5F, -2.0F}, {-0.25F, -3.0F, -4.0F}};
  constexpr std::size_t kFrames = 1'000'000;
  _beam_search_t decoder(1, 3, 3, nullptr);
  decoder.process_first_frame(frames[0]);
  for (std::size_t t = 1; t < kFrames; ++t) decoder.process_one_frame(frames[t % 2]);
  EXPECT_EQ(Result(decoder, kFrames), std::vector<Sequence>{Sequence(kFrames / 2, 1)});
  // The next input releases the path frame by frame: into the second beam, then for good.
  decoder.process_first_frame(frames[0]);
  decoder.process_one_frame(frames[1]);
  EXPECT_EQ(Result(decoder, 2), std::vector<Sequence>{{1}});
}

TEST(BeamSearch, LongResultsWithNanScoresAreCompleteAndInOrder) {
  std::mt19937 random(12);
  for (int round = 0; round < 50; ++round) {
    std::vector<float> row(200);
    for (float& score : row) score = random() % 3 == 0 ? kNan : static_cast<float>(random() % 99);
    _beam_search_t decoder(200, 200, 200, nullptr);
    decoder.process_first_frame(row.data());
    std::vector<std::size_t> labels;
    for (const Sequence& sequence : Result(decoder, 1)) {
      labels.push_back(sequence.empty() ? 0 : static_cast<std::size_t>(sequence.front()));
    }
    for (std::size_t i = 1; i < labels.size(); ++i) {
      ASSERT_FALSE(row[labels[i]] > row[labels[i - 1]]) << i;
    }
    // Nothing beats the best one, unless a NaN, to which nothing compares, came first.
    float best = row[0];
    for (const float score : row) best = score > best ? score : best;
    ASSERT_TRUE(row[labels[0]] == best || std::isnan(row[0]));
    std::sort(labels.begin(), labels.end());
    for (std::size_t i = 0; i < row.size(); ++i) ASSERT_EQ(labels.at(i), i);
  }
}

TEST(LogAdd, AddsProbabilities) {
  for (float d = 0.0F; d < 87.3F; d += 0.0625F) {
    const double exact = std::log1p(std::exp(-static_cast<double>(d)));
    EXPECT_NEAR(static_cast<double>(log_add(0.0F, -d)), exact, 1.5e-5 * exact) << d;
    EXPECT_EQ(log_add(0.0F, -d), log_add(-d, 0.0F)) << d;
  }
  EXPECT_EQ(log_add(-4.0F, -4.0F), -4.0F + 0.6931472F);
  for (const float low : {-91.0F, -FLT_MAX, -kInf}) EXPECT_EQ(log_add(low, -3.5F), -3.5F) << low;
  EXPECT_EQ(log_add(kInf, kInf), kInf);
  EXPECT_TRUE(std::isnan(log_add(-kInf, -kInf)));
}

// What the declarations of the fast exponential and logarithm promise.

TEST(FastMath, ErrorsStayBelowThePromisedOnes) {
  for (std::uint32_t bits = 0; bits < 0x7F800000; bits += 997) {
    const float x = std::bit_cast<float>(bits);
    for (const float d : {x, -x}) {
      if (d < -88.72F || d > 87.33F) continue;
      const double exact = std::exp(-static_cast<double>(d));
      ASSERT_NEAR(static_cast<double>(fast_math::fast_exp(d)), exact, 1.5e-5 * exact) << d;
    }
    if (!std::isnormal(x)) continue;
    const double exact = std::log(static_cast<double>(x));
    ASSERT_NEAR(static_cast<double>(fast_math::FastLog(x)), exact, 1.3e-4) << x;
  }
}

TEST(FastMath, LimitsAndExactValues) {
  EXPECT_EQ(fast_math::fast_exp(0.0F), 1.0F);
  EXPECT_EQ(fast_math::fast_exp(kNan), kInf);
  for (const float d : {-88.73F, -1e30F, -kInf}) EXPECT_EQ(fast_math::fast_exp(d), kInf) << d;
  for (const float d : {87.34F, 88.5F, 1e30F, kInf}) EXPECT_EQ(fast_math::fast_exp(d), 0.0F) << d;
  // The exponent of one: t is 2^23, and only the mantissa's polynomial decides.
  EXPECT_EQ(fast_math::ExpFromBits(0x1p23F), FLT_MIN);
  EXPECT_NEAR(fast_math::FastLog(0.0F), -88.0297F, 1e-4F);
  EXPECT_NEAR(fast_math::FastLog(1.0F), -1.6526e-6F, 1e-9F);
}

}  // namespace
}  // namespace handwriting_CTC
