#ifndef BENCH_PLAIN_SEARCH_H_
#define BENCH_PLAIN_SEARCH_H_

// The beam search in its obvious form: what the decoder is tested against and measured by.

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "ctc/beam-search.h"
#include "ctc/ctc-result.h"
#include "utils/fast-math.h"

namespace handwriting_CTC {

/// Fills `out` with the best of the `n` scores by a scalar scan of the row.
inline void PlainTopN(const float* scores, int n, std::vector<_index_score_node>& out) {
  const int k = static_cast<int>(out.size());
  for (int i = 0; i < k; ++i) out[static_cast<std::size_t>(i)] = {i, scores[i]};
  std::make_heap(out.begin(), out.end(), index_score_greater);
  for (int i = k; i < n && k > 0; ++i) {
    if (!(scores[i] > out.front().score)) continue;
    std::pop_heap(out.begin(), out.end(), index_score_greater);
    out.back() = {i, scores[i]};
    std::push_heap(out.begin(), out.end(), index_score_greater);
  }
}

/// A label of a path, on the heap by itself.
struct PlainNode {
  PlainNode(int node_label, std::shared_ptr<PlainNode> node_parent)
      : label(node_label), parent(std::move(node_parent)) {}
  PlainNode(const PlainNode&) = delete;
  PlainNode& operator=(const PlainNode&) = delete;
  ~PlainNode() {
    while (parent != nullptr && parent.use_count() == 1) parent = std::move(parent->parent);
  }

  int label;
  std::shared_ptr<PlainNode> parent;
};

struct PlainEntry {
  std::shared_ptr<PlainNode> hist;
  int index = -1;
  float score = 0.0F;

  static bool Better(const PlainEntry& a, const PlainEntry& b) { return a.score > b.score; }
};

/// A search with a node of its own on the heap for every candidate that enters the beam.
class PlainSearch {
 public:
  PlainSearch(int beam_size, int topn_size, int label_dim)
      : n_(label_dim),
        labels_(static_cast<std::size_t>(std::min(topn_size, label_dim))),
        beam(std::min(static_cast<std::size_t>(beam_size), labels_.size())),
        collected(beam.size(), {nullptr, -1, -FLT_MAX}) {}

  void First(const float* frame) {
    for (auto& entry : collected) entry.hist = nullptr;
    PlainTopN(frame, n_, labels_);
    const auto kept = static_cast<std::ptrdiff_t>(beam.size());
    if (beam.size() != labels_.size()) {
      std::nth_element(labels_.begin(), labels_.begin() + kept, labels_.end(), index_score_greater);
    }
    for (std::size_t i = 0; i < beam.size(); ++i) {
      beam[i] = {std::make_shared<PlainNode>(labels_[i].index, nullptr), -1, labels_[i].score};
    }
  }

  void Next(const float* frame) {
    PlainTopN(frame, n_, labels_);
    for (const auto& entry : beam) {
      for (const auto& label : labels_) {
        const float score = entry.score + label.score;
        if (!(score > collected.front().score)) continue;
        std::pop_heap(collected.begin(), collected.end(), PlainEntry::Better);
        collected.back() = {std::make_shared<PlainNode>(label.index, entry.hist), -1, score};
        std::push_heap(collected.begin(), collected.end(), PlainEntry::Better);
      }
    }
    beam.swap(collected);
    for (auto& entry : collected) entry.score = -FLT_MAX;
  }

  /// The collapsed label sequences of the beam, the best one first.
  std::vector<std::vector<int>> Result() const {
    std::map<std::vector<int>, float> merged;
    for (const auto& entry : beam) {
      const auto [place, inserted] = merged.emplace(Collapsed(entry), entry.score);
      if (!inserted) place->second = log_add(place->second, entry.score);
    }
    std::vector<_result_score_node> order;
    for (const auto& [sequence, score] : merged) order.push_back({&sequence, score});
    // Scores that are NaN leave std::sort without an order, except up to 16 elements, which it
    // sorts by plain insertion.
    std::sort(order.begin(), order.end(), result_score_greater);
    std::vector<std::vector<int>> result;
    for (const auto& node : order) result.push_back(*node.seq);
    return result;
  }

 private:
  /// The labels of a path without repetitions and blanks.
  static std::vector<int> Collapsed(const PlainEntry& entry) {
    std::deque<int> path;
    for (auto node = entry.hist; node != nullptr; node = node->parent) path.push_front(node->label);
    std::vector<int> sequence;
    for (std::size_t t = 0; t < path.size(); ++t) {
      if (path[t] != 0 && (t == 0 || path[t] != path[t - 1])) sequence.push_back(path[t]);
    }
    return sequence;
  }

  int n_;
  std::vector<_index_score_node> labels_;

 public:
  std::vector<PlainEntry> beam;
  std::vector<PlainEntry> collected;
};

}  // namespace handwriting_CTC

#endif  // BENCH_PLAIN_SEARCH_H_
