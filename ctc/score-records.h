#ifndef CTC_SCORE_RECORDS_H_
#define CTC_SCORE_RECORDS_H_

#include <cstddef>
#include <cstdint>
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

struct _hist_t;

// A shared pointer to a path node, which counts its holders itself: half the size of the standard
// one, and without the cost of counting for several threads.
class _hist_ptr_t {
 public:
  _hist_ptr_t() noexcept = default;
  _hist_ptr_t(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): as the standard's
  _hist_ptr_t(const _hist_ptr_t& other) noexcept;
  _hist_ptr_t(_hist_ptr_t&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  _hist_ptr_t& operator=(_hist_ptr_t other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~_hist_ptr_t() { reset(); }

  void reset() noexcept;
  const _hist_t* get() const noexcept { return node_; }
  const _hist_t* operator->() const noexcept { return node_; }
  explicit operator bool() const noexcept { return node_ != nullptr; }

 private:
  friend class _path_pool_t;
  // Becomes the first holder of a new node.
  explicit _hist_ptr_t(_hist_t* node) noexcept : node_(node) {}
  // Destroys the node, which has no other holder.
  void release_node() noexcept;

  _hist_t* node_ = nullptr;
};

// One node of a frame-level label path: a chain from the newest frame back to the first, whose
// prefixes are shared by many paths. Immutable once made.
//
// The nodes of a decoder come from the decoder's pool. They must not outlive the decoder, nor be
// held or released by another thread while it works.
struct _hist_t {
  // A null parent makes the first node of a path.
  _hist_t(int node_label, _hist_ptr_t node_parent) noexcept
      : label(node_label), parent(std::move(node_parent)) {}
  _hist_t(const _hist_t&) = delete;
  _hist_t& operator=(const _hist_t&) = delete;
  ~_hist_t() = default;

  int label;
  unsigned holders = 1;  // the pointers to this node
  _hist_ptr_t parent;    // null at the first frame
};

// Whoever walks all paths of a beam takes turns after so many nodes: paths of one length lie near
// each other, and the ancestors that one asks for serve the others.
inline constexpr int kPathStretch = 128;

// How far a path has been walked.
struct _path_walk_t {
  const _hist_t* node;  // the next one; null at the end
  int last;             // the label before it
};

// Asks for the memory of nodes some frames before: they lie at lower addresses, and a walk along a
// long path would wait for each of them.
inline void prefetch_ancestors(const _hist_t* node) noexcept {
  constexpr std::uintptr_t kDistance = 64 * sizeof(_hist_t);
  const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(node) - kDistance;
  // Only an address: there may be nothing. NOLINTNEXTLINE(performance-no-int-to-ptr)
  __builtin_prefetch(reinterpret_cast<const void*>(address));
}

inline _hist_ptr_t::_hist_ptr_t(const _hist_ptr_t& other) noexcept : node_(other.node_) {
  if (node_ != nullptr) ++node_->holders;
}

inline void _hist_ptr_t::reset() noexcept {
  if (node_ != nullptr && --node_->holders == 0) release_node();
  node_ = nullptr;
}

// One beam entry.
struct _list_score_node {
  _hist_ptr_t hist;  // newest node of the path; null in an entry never filled
  int index = -1;    // unused
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
