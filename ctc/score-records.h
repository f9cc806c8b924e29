#ifndef CTC_SCORE_RECORDS_H_
#define CTC_SCORE_RECORDS_H_

#include <memory>
#include <utility>
#include <vector>

namespace handwriting_CTC {

// Scores are log-domain floats: a larger one is better, and the score of a path is the sum of its
// frame scores.

// One candidate label of one frame.
struct _index_score_node {
  int index;    // class, 0-based; 0 is the CTC blank
  float score;  // the frame's score of that class
};

// One node of a frame-level label path: a chain from the newest frame back to the first, whose
// prefixes are shared by many paths. Immutable once made.
//
// The nodes of a decoder come from the decoder's pool. They must not outlive the decoder, nor be
// held or released by another thread while it works.
struct _hist_t {
  // A null parent makes the first node of a path.
  _hist_t(int node_label, std::shared_ptr<_hist_t> node_parent) noexcept
      : label(node_label), parent(std::move(node_parent)) {}
  _hist_t(const _hist_t&) = delete;
  _hist_t& operator=(const _hist_t&) = delete;

  // Releases the unshared part of the chain in a loop: releasing it through the destructors of the
  // parents would take one stack frame per frame of the input.
  ~_hist_t() {
    while (parent != nullptr && parent.use_count() == 1) parent = std::move(parent->parent);
  }

  int label;
  std::shared_ptr<_hist_t> parent;  // null at the first frame
};

// One beam entry.
struct _list_score_node {
  std::shared_ptr<_hist_t> hist;  // newest node of the path; null in an entry never filled
  int index = -1;                 // unused
  float score = 0.0F;
};

// One entry of the n-best list.
struct _result_score_node {
  const std::vector<int>* seq;  // not owned
  float score;
};

// Strict orders that put the best score first in a sort and the worst at the root of a heap. A NaN
// is neither greater nor smaller than anything.
inline bool index_score_greater(const _index_score_node& a, const _index_score_node& b) {
  return a.score > b.score;
}
inline bool list_score_greater(const _list_score_node& a, const _list_score_node& b) {
  return a.score > b.score;
}
inline bool result_score_greater(const _result_score_node& a, const _result_score_node& b) {
  return a.score > b.score;
}

// Keeps the k = out.size() best of the n >= k scores in `out`, in heap order: the first is the
// smallest of them. Of scores that tie for the last place the first ones stay. A NaN stays only
// when it is among the first k scores. Allocates nothing.
void get_topn(const float* scores, int n, std::vector<_index_score_node>& out);

// Writes all n = out.size() scores to `out` and partitions them: none of the first m is smaller
// than any of the rest. With m == n they stay in index order. 0 <= m <= n. An empty `out` stays
// empty. Allocates nothing.
void get_topn(const float* scores, int n, std::vector<_index_score_node>& out, int m);

}  // namespace handwriting_CTC

#endif  // CTC_SCORE_RECORDS_H_
