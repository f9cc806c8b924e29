#include "nnet/contract/network-links.h"

#include <algorithm>

namespace tarev::nnet::handwriting_CTC {

// Announcements come in network order, so running totals are sorted by position and one search
// gives the total of all later layers.
void NetworkLinks::ConsumeContext(int64_t frames) {
  consumed_.push_back({position_, (consumed_.empty() ? 0 : consumed_.back().total) + frames});
}

int64_t NetworkLinks::ContextAfter() const {
  if (consumed_.empty()) return 0;
  const auto next = std::ranges::upper_bound(consumed_, position_, {}, &Consumption::position);
  return consumed_.back().total - (next == consumed_.begin() ? 0 : std::prev(next)->total);
}

}  // namespace tarev::nnet::handwriting_CTC
