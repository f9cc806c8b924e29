#include "ctc/score-records.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "ctc/decoder-kernels.h"
#include "ctc/score-heap.h"

namespace handwriting_CTC {

// A heap of the k best so far, whose root is what a score has to beat. The scan for the next such
// score is vectorised: in a long row only few scores enter the heap, so nearly all of the time is
// the scan.
void get_topn(const float* scores, int n, std::vector<_index_score_node>& out) {
  const std::size_t k = out.size();
  const auto count = static_cast<std::size_t>(n);
  assert(n >= 0 && k <= count);
  if (k == 0) return;

  for (std::size_t i = 0; i < k; ++i) out[i] = {static_cast<int>(i), scores[i]};
  std::make_heap(out.begin(), out.end(), index_score_greater);
  std::size_t i = k;
  while ((i = find_greater(scores, i, count, out.front().score)) < count) {
    replace_root(out, {static_cast<int>(i), scores[i]});
    ++i;
  }
}

void get_topn(const float* scores, int n, std::vector<_index_score_node>& out, int m) {
  if (out.empty()) return;
  assert(n >= 0 && out.size() == static_cast<std::size_t>(n) && m >= 0 && m <= n);
  for (int i = 0; i < n; ++i) out[static_cast<std::size_t>(i)] = {i, scores[i]};
  if (m != n) std::nth_element(out.begin(), out.begin() + m, out.end(), index_score_greater);
}

}  // namespace handwriting_CTC
