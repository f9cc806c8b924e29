#ifndef TOOLS_SERVICE_H_
#define TOOLS_SERVICE_H_

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/answer.h"
#include "tools/http-message.h"
#include "tools/page-files.h"
#include "tools/recognizer.h"

namespace handwriting::tools {

using Clock = std::chrono::steady_clock;

/// How long something took, in buckets as Prometheus has them. For any thread.
class DurationHistogram {
 public:
  void Add(Clock::duration duration);
  std::string Text(const std::string& name, const std::string& help) const;

 private:
  static constexpr std::array<double, 13> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                                     0.25,  0.5,    1,     2.5,  5,     10};
  std::array<std::atomic<uint64_t>, kBounds.size() + 1> counts_{};
  std::atomic<uint64_t> nanoseconds_ = 0;
};

/// What has become of the requests to recognize, those that were none included.
class Metrics {
 public:
  enum class Outcome { kAnswered, kRefused, kBusy, kBroken, kGone };

  void Count(Outcome outcome) { ++outcomes_[static_cast<size_t>(outcome)]; }
  void CountFrames(size_t frames) { frames_ += frames; }
  std::string Text() const;

  DurationHistogram requests;
  DurationHistogram queue;

 private:
  static constexpr std::array kNames = {"answered", "refused", "busy", "failed", "gone"};
  std::array<std::atomic<uint64_t>, kNames.size()> outcomes_{};
  std::atomic<uint64_t> frames_ = 0;
};

/// What the service answers, whatever carries the requests. Its functions may be called from any
/// thread.
class Service {
 public:
  struct Setup {
    std::string model;
    int nbest = 10;
    Labels labels;
    std::string page;
    /// What a Host field may name.
    std::vector<std::string> hosts;
    Limits limits;
  };
  /// Throws std::runtime_error where the page cannot be read.
  explicit Service(Setup setup);

  /// What GET /model answers from now on. Throws std::runtime_error where the model cannot be read.
  void Describe(const ModelSource& model);

  /// Refuses, by its header alone, a request that has no business here; nothing where it may go on.
  std::optional<Answer> Check(const Request& request) const;
  /// Whether a request that may go on needs a recognizer. All others are answered at once.
  static bool IsWork(const Request& request) { return request.path == "/recognize"; }
  /// `is_ready`: whether the service takes work.
  Answer AnswerAtOnce(const Request& request, bool is_ready) const;
  /// The answer to a request that needs a recognizer.
  Answer Recognize(const Request& request, Recognizer& recognizer);

  const Setup& setup() const { return setup_; }
  const Limits& limits() const { return setup_.limits; }
  Metrics& metrics() { return metrics_; }

 private:
  bool IsHostAllowed(const std::string& host) const;

  Setup setup_;
  PageFiles page_;
  std::string model_description_;
  std::atomic<bool> is_described_ = false;
  Metrics metrics_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_SERVICE_H_
