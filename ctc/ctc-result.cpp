#include "ctc/ctc-result.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <map>
#include <vector>

#include "ctc/beam-search.h"
#include "utils/fast-math.h"

namespace handwriting_CTC {

namespace {

// The label sequence of a path: runs of equal labels count once, then blanks are dropped.
void collapse_path(const _hist_t* newest, std::vector<int>& sequence) {
  sequence.clear();
  int last = -1;
  for (const _hist_t* node = newest; node != nullptr; node = node->parent.get()) {
    if (node->label != last && node->label != 0) sequence.push_back(node->label);
    last = node->label;
  }
  std::reverse(sequence.begin(), sequence.end());
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

int _beam_search_t::get_CTC_result(int* output, int* len) const {
  std::map<std::vector<int>, float> merged;
  std::vector<int> sequence;
  for (const _list_score_node& entry : beam_list) {
    collapse_path(entry.hist.get(), sequence);
    const auto [place, inserted] = merged.try_emplace(sequence, entry.score);
    if (!inserted) place->second = log_add(place->second, entry.score);
  }

  std::vector<_result_score_node> results;
  results.reserve(merged.size());
  for (const auto& [labels, score] : merged) results.push_back({&labels, score});
  sort_results(results);

  for (const _result_score_node& result : results) {
    output = std::copy(result.seq->begin(), result.seq->end(), output);
    *len++ = static_cast<int>(result.seq->size());
  }
  return static_cast<int>(results.size());
}

}  // namespace handwriting_CTC
