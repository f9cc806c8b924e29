#include "ctc/ctc-result.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstddef>
#include <numeric>
#include <vector>

#include "ctc/beam-search.h"
#include "utils/fast-math.h"

namespace handwriting_CTC {

namespace {

// Goes on with the label sequence of a path, newest label first: runs of equal labels count once,
// then blanks are dropped.
void collapse_stretch(_path_walk_t& walk, std::vector<int>& sequence) {
  auto [node, last] = walk;
  for (int left = kPathStretch; left > 0 && node != nullptr; --left, node = node->parent.get()) {
    prefetch_ancestors(node);
    if (node->label != last && node->label != 0) sequence.push_back(node->label);
    last = node->label;
  }
  walk = {node, last};
}

// The frames of each label of a path, which has one node a frame, the newest first.
std::vector<_frame_span_t> spans_of(const _hist_t* path) {
  std::vector<_frame_span_t> spans;
  int frames = 0;
  int last = 0;
  for (const _hist_t* node = path; node != nullptr; node = node->parent.get(), ++frames) {
    prefetch_ancestors(node);
    if (node->label != 0 && node->label != last) spans.push_back({frames, frames});
    if (node->label != 0) spans.back().end = frames + 1;
    last = node->label;
  }
  // Counted from the end so far.
  std::reverse(spans.begin(), spans.end());
  for (_frame_span_t& span : spans) span = {frames - span.end, frames - span.begin};
  return spans;
}

// Best first. With a NaN among the scores the comparison is no strict weak order, which std::sort
// needs to stay inside the list; insertion sort is safe with any comparison.
void sort_results(std::vector<_result_score_node>& results) {
  const auto is_nan = [](const _result_score_node& node) { return std::isnan(node.score); };
  if (std::none_of(results.begin(), results.end(), is_nan)) {
    std::sort(results.begin(), results.end(), result_score_greater);
    return;
  }
  for (auto next = results.begin() + 1; next != results.end(); ++next) {
    auto place = next;
    if (result_score_greater(*next, results.front())) {
      place = results.begin();
    } else {
      while (result_score_greater(*next, *(place - 1))) --place;
    }
    std::rotate(place, next, next + 1);
  }
}

}  // namespace

float log_add(float v, float s) {
  const float larger = s > v ? s : v;
  const float distance = std::fabs(s - v);
  const double sum = std::log1p(static_cast<double>(fast_math::fast_exp(distance)));
  return static_cast<float>(sum + static_cast<double>(larger));
}

void _beam_search_t::collapse_paths() const {
  auto& walks = scratch_.walks;
  auto& sequences = scratch_.sequences;
  walks.resize(beam_list.size());
  sequences.resize(beam_list.size());
  for (std::size_t i = 0; i < beam_list.size(); ++i) {
    walks[i] = {beam_list[i].hist.get(), -1};
    sequences[i].clear();
  }
  for (bool left = true; left;) {
    left = false;
    for (std::size_t i = 0; i < walks.size(); ++i) {
      collapse_stretch(walks[i], sequences[i]);
      left |= walks[i].node != nullptr;
    }
  }
  for (std::vector<int>& sequence : sequences) std::reverse(sequence.begin(), sequence.end());
}

// Paths are collapsed first. Sorted by their sequences, and within one sequence in the order of the
// beam, equal ones lie side by side and are merged in that order.
void _beam_search_t::merge_paths() const {
  collapse_paths();
  auto& [walks, sequences, order, results] = scratch_;
  order.resize(beam_list.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  results.clear();
  results.reserve(beam_list.size());
  std::sort(order.begin(), order.end(), [&sequences](std::size_t a, std::size_t b) {
    const auto compared = sequences[a] <=> sequences[b];
    return std::is_lt(compared) || (std::is_eq(compared) && a < b);
  });
  for (const std::size_t i : order) {
    const float score = beam_list[i].score;
    if (!results.empty() && *results.back().seq == sequences[i]) {
      results.back().score = log_add(results.back().score, score);
    } else {
      results.push_back({&sequences[i], score});
    }
  }
  sort_results(results);
}

int _beam_search_t::get_CTC_result(int* output, int* len) const {
  merge_paths();
  for (const _result_score_node& result : scratch_.results) {
    output = std::copy(result.seq->begin(), result.seq->end(), output);
    *len++ = static_cast<int>(result.seq->size());
  }
  return static_cast<int>(scratch_.results.size());
}

// A result points at the sequence of the first entry of its group, the group being one piece of
// `order`.
std::vector<_ctc_record_t> _beam_search_t::get_CTC_records() const {
  merge_paths();
  const auto& [walks, sequences, order, results] = scratch_;
  std::vector<std::size_t> best(sequences.size());
  std::size_t first = 0;
  for (std::size_t k = 0; k < order.size(); ++k) {
    const std::size_t i = order[k];
    if (k == 0 || sequences[i] != sequences[first]) {
      first = i;
      best[first] = i;
    } else if (beam_list[i].score > beam_list[best[first]].score) {
      best[first] = i;
    }
  }
  std::vector<_ctc_record_t> records;
  records.reserve(results.size());
  for (const auto& [seq, score] : results) {
    const auto group = static_cast<std::size_t>(seq - sequences.data());
    records.push_back({*seq, score, spans_of(beam_list[best[group]].hist.get()), {}, {}});
  }
  return records;
}

}  // namespace handwriting_CTC
