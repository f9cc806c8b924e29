#ifndef CTC_SCORE_HEAP_H_
#define CTC_SCORE_HEAP_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ctc/score-records.h"

namespace handwriting_CTC {

namespace heap_detail {

// Writes `node` to heap[hole] and moves it up to its place. Every ancestor is visited and none of
// the comparisons waits for another or is branched on: how far the node moves cannot be predicted,
// and a mispredicted branch costs more than the levels that it would save.
inline void sift_up(_index_score_node* heap, std::size_t hole, _index_score_node node) {
  const auto node_bits = std::bit_cast<std::uint64_t>(node);
  std::uint64_t below = node_bits;          // the record that was one level lower
  std::uint64_t moves = ~std::uint64_t{0};  // all ones while the node moves up
  while (hole > 0) {
    const std::size_t parent = (hole - 1) / 2;
    const auto above = std::bit_cast<std::uint64_t>(heap[parent]);
    const std::uint64_t stays = below ^ ((below ^ node_bits) & moves);
    moves &= heap[parent].score > node.score ? ~std::uint64_t{0} : 0;
    heap[hole] = std::bit_cast<_index_score_node>(stays ^ ((stays ^ above) & moves));
    below = above;
    hole = parent;
  }
  heap[0] = std::bit_cast<_index_score_node>(below ^ ((below ^ node_bits) & moves));
}

}  // namespace heap_detail

// Replaces the root (the smallest score) of a non-empty heap under index_score_greater by `node`.
//
// Every record ends where std::pop_heap, followed by std::push_heap, would put it: which of several
// equal scores is evicted first depends on that. As in pop_heap, the hole at the root moves down to
// a leaf along the smaller children, without a look at the record that will fill it; that record,
// the last of the heap, then moves up from there, and after it the new one from the last place.
inline void replace_root(std::vector<_index_score_node>& nodes, _index_score_node node) {
  _index_score_node* const heap = nodes.data();
  const std::size_t last = nodes.size() - 1;

  std::size_t hole = 0;
  std::size_t child = 2;
  while (child < last) {
    child -= heap[child].score > heap[child - 1].score ? 1 : 0;
    heap[hole] = heap[child];
    hole = child;
    child = 2 * hole + 2;
  }
  if (child == last) {  // a left child only
    heap[hole] = heap[child - 1];
    hole = child - 1;
  }
  heap_detail::sift_up(heap, hole, heap[last]);
  heap_detail::sift_up(heap, last, node);
}

}  // namespace handwriting_CTC

#endif  // CTC_SCORE_HEAP_H_
