#include "ctc/ctc-confidence.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace handwriting_CTC {

namespace {

// The forward recursion of one sequence. Its states are the labels with a blank before, between and
// behind them. Probabilities of prefixes are scaled by powers of two, which lose nothing; those of
// hopeless ones, that even scaled are next to what a double can hold, are dropped, so that the work
// of a frame follows the states that are in the running and not the length of the sequence.
class _forward_t {
 public:
  explicit _forward_t(const std::vector<int>& labels)
      : labels_(labels), alphas_(2 * labels.size() + 1) {}

  // `probabilities` by class; `left` frames follow this one.
  void advance(const std::vector<double>& probabilities, std::size_t left) {
    const std::size_t states = alphas_.size();
    const double blank = probabilities[0];
    if (end_ == 0) {
      alphas_[0] = blank;
      if (states > 1) alphas_[1] = probability(probabilities, 1);
      end_ = std::min<std::size_t>(states, 2);
    } else {
      end_ = std::min(states, end_ + 2);
      // In place from the last state on: a state follows from those before it.
      for (std::size_t s = end_; s-- > begin_;) {
        double sum = alphas_[s];
        if (s > begin_) sum += alphas_[s - 1];
        if (s % 2 == 1 && s >= begin_ + 2 && label(s) != label(s - 2)) sum += alphas_[s - 2];
        alphas_[s] = sum * (s % 2 == 0 ? blank : probability(probabilities, s));
      }
    }
    // What can no longer reach one of the last two states.
    if (states > 2 + 2 * left) drop_before(std::min(states - 2 - 2 * left, end_));
    rescale();
  }

  // The probability of the sequence, all frames having been taken.
  double total() const {
    const std::size_t states = alphas_.size();
    double sum = 0.0;
    for (std::size_t s = std::max(begin_, states - std::min<std::size_t>(states, 2)); s < end_;
         ++s) {
      sum += alphas_[s];
    }
    return std::min(1.0, std::ldexp(sum, exponent_));
  }

 private:
  static constexpr double kHopeless = 1e-280;

  int label(std::size_t state) const { return labels_[state / 2]; }
  double probability(const std::vector<double>& probabilities, std::size_t state) const {
    return probabilities[static_cast<std::size_t>(label(state))];
  }

  void drop_before(std::size_t begin) { begin_ = std::max(begin_, begin); }

  // Brings the largest prefix near 1 and drops hopeless ones at both ends.
  void rescale() {
    double largest = 0.0;
    for (std::size_t s = begin_; s < end_; ++s) largest = std::max(largest, alphas_[s]);
    if (largest == 0.0) {
      begin_ = end_;
      return;
    }
    if (largest < 0x1p-64) {
      const int exponent = std::ilogb(largest);
      exponent_ = std::max(exponent_ + exponent, -1'000'000);
      for (std::size_t s = begin_; s < end_; ++s) alphas_[s] = std::ldexp(alphas_[s], -exponent);
    }
    while (alphas_[begin_] < kHopeless) ++begin_;
    while (alphas_[end_ - 1] < kHopeless) alphas_[--end_] = 0.0;
  }

  const std::vector<int>& labels_;
  std::vector<double> alphas_;
  // The states in the running; those behind them are zeros, and none before them counts.
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  // The power of two that the prefixes are to be multiplied by.
  int exponent_ = 0;
};

// What is added to one record.
struct _addition_t {
  explicit _addition_t(const _ctc_record_t& record)
      : forward(record.labels), label_sums(record.labels.size()) {}

  _forward_t forward;
  std::vector<double> label_sums;
  std::size_t next = 0;  // the label whose span has not ended
};

// The probabilities of a row; false when it has none.
bool read_row(std::span<const float> row, std::vector<double>& probabilities) {
  constexpr double kTolerance = 1e-3;
  double sum = 0.0;
  for (std::size_t c = 0; c < row.size(); ++c) {
    probabilities[c] = std::exp(static_cast<double>(row[c]));
    sum += probabilities[c];
  }
  if (!(std::fabs(sum - 1.0) <= kTolerance)) return false;
  for (double& probability : probabilities) probability /= sum;
  return true;
}

void add_to_span(const _ctc_record_t& record, int frame, const std::vector<double>& probabilities,
                 _addition_t& addition) {
  const std::size_t k = addition.next;
  if (k == record.spans.size() || frame < record.spans[k].begin) return;
  addition.label_sums[k] += probabilities[static_cast<std::size_t>(record.labels[k])];
  if (frame + 1 == record.spans[k].end) ++addition.next;
}

}  // namespace

bool add_confidences(std::span<const float> rows, int label_dim,
                     std::vector<_ctc_record_t>& records) {
  const auto classes = static_cast<std::size_t>(label_dim);
  const std::size_t frames = rows.size() / classes;
  std::vector<double> probabilities(classes);
  std::vector<_addition_t> additions(records.begin(), records.end());
  for (std::size_t t = 0; t < frames; ++t) {
    if (!read_row(rows.subspan(t * classes, classes), probabilities)) return false;
    for (std::size_t r = 0; r < records.size(); ++r) {
      additions[r].forward.advance(probabilities, frames - 1 - t);
      add_to_span(records[r], static_cast<int>(t), probabilities, additions[r]);
    }
  }
  for (std::size_t r = 0; r < records.size(); ++r) {
    _ctc_record_t& record = records[r];
    record.confidence = additions[r].forward.total();
    record.label_confidences = std::move(additions[r].label_sums);
    for (std::size_t k = 0; k < record.spans.size(); ++k) {
      record.label_confidences[k] /= record.spans[k].end - record.spans[k].begin;
    }
  }
  return true;
}

}  // namespace handwriting_CTC
