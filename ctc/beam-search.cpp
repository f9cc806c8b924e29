#include "ctc/beam-search.h"

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <limits>
#include <utility>

#include "ctc/score-heap.h"

namespace handwriting_CTC {

// A negative size becomes a huge one, which the vectors refuse with std::length_error.
_beam_search_t::_beam_search_t(int beam_size, int topn_size, int classes, std::FILE* /*fp*/)
    : beam_num(std::min({beam_size, topn_size, classes})),
      topn_num(std::min(topn_size, classes)),
      label_dim(classes),
      topn_index(static_cast<std::size_t>(topn_num)),
      beam_list(static_cast<std::size_t>(beam_num)),
      topn_result(beam_list.size(), {nullptr, -1, -FLT_MAX}),
      candidates_(beam_list.size()),
      origins_(beam_list.size()),
      next_result_(beam_list.size()) {}

void _beam_search_t::process_first_frame(const float* frame) {
  // A path of the input before could outlast this one in an entry that no candidate replaces, and
  // be longer than this input. Without any path alive the pool starts anew.
  release_paths();
  get_topn(frame, label_dim, topn_index);
  search_first_frame();
}

void _beam_search_t::process_one_frame(const float* frame) {
  get_topn(frame, label_dim, topn_index);
  search_one_frame();
  topn_result_reset_swap();
}

void _beam_search_t::process_all_frame(const float* frames, int count) {
  process_first_frame(frames);
  for (int t = 1; t < count; ++t) {
    process_one_frame(frames + static_cast<std::size_t>(t) * static_cast<std::size_t>(label_dim));
  }
}

void _beam_search_t::release_paths() {
  for (bool left = true; left;) {
    left = false;
    for (_list_score_node& entry : topn_result) left |= _path_pool_t::release_stretch(entry.hist);
    for (_list_score_node& entry : beam_list) left |= _path_pool_t::release_stretch(entry.hist);
  }
}

void _beam_search_t::search_first_frame() {
  if (beam_num != topn_num) {
    std::nth_element(topn_index.begin(), topn_index.begin() + beam_num, topn_index.end(),
                     index_score_greater);
  }
  for (std::size_t i = 0; i < beam_list.size(); ++i) {
    beam_list[i] = {pool_.make_node(topn_index[i].index, nullptr), -1, topn_index[i].score};
  }
}

// One frame of the search. Every path of the beam, extended by every label of the frame, is a
// candidate, and the best beam_num candidates are the next beam. The candidates run through a heap
// of plain records, and nodes are made only for those that survive the frame: most candidates that
// enter the heap are evicted again by a later one, and a node costs an allocation and a reference
// count.
void _beam_search_t::search_one_frame() {
  if (beam_num == 0) return;
  collect_candidates();

  for (std::size_t i = 0; i < candidates_.size(); ++i) {
    const auto slot = static_cast<std::size_t>(candidates_[i].index);
    const auto [entry, label] = origins_[slot];
    if (entry < 0) {
      next_result_[i] = std::move(topn_result[slot]);
    } else {
      const auto& parent = beam_list[static_cast<std::size_t>(entry)].hist;
      next_result_[i] = {pool_.make_node(label, parent), -1, candidates_[i].score};
    }
  }
  topn_result.swap(next_result_);
  for (_list_score_node& replaced : next_result_) replaced.hist.reset();
}

// Leaves in `candidates_` what would be in `topn_result` if nodes were made for every candidate
// that enters it: the heap starts with the scores of `topn_result`, and an entering candidate takes
// over the place in `origins_` of the one that it replaces.
//
// The root of the heap, its smallest score, is what a candidate has to beat. A path that cannot
// beat it even with the frame's best label is passed over with one comparison; once the heap is
// full of good candidates, that is most of the beam.
void _beam_search_t::collect_candidates() {
  for (std::size_t i = 0; i < candidates_.size(); ++i) {
    candidates_[i] = {static_cast<int>(i), topn_result[i].score};
    origins_[i] = {-1, -1};
  }
  const float best_label = best_label_score();

  float threshold = candidates_.front().score;
  for (std::size_t i = 0; i < beam_list.size(); ++i) {
    const float score = beam_list[i].score;
    if (!(score + best_label > threshold)) continue;  // rounding keeps the order of the sums
    for (const _index_score_node& label : topn_index) {
      const float sum = score + label.score;
      if (!(sum > threshold)) continue;
      const int slot = candidates_.front().index;
      origins_[static_cast<std::size_t>(slot)] = {static_cast<int>(i), label.index};
      replace_root(candidates_, {slot, sum});
      threshold = candidates_.front().score;
    }
  }
}

// The largest of the scores in `topn_index`, NaNs left out; -infinity when there is none.
float _beam_search_t::best_label_score() const {
  float best = -std::numeric_limits<float>::infinity();
  for (const _index_score_node& label : topn_index) best = label.score > best ? label.score : best;
  return best;
}

void _beam_search_t::topn_result_reset_swap() {
  beam_list.swap(topn_result);
  for (_list_score_node& entry : topn_result) entry.score = -FLT_MAX;
}

}  // namespace handwriting_CTC
