#include "ctc/decoder-kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "ctc/decoder-kernels.cpp"
#include <hwy/foreach_target.h>
// Highway's headers must follow foreach_target.h.
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

std::size_t FindGreater(const float* values, std::size_t from, std::size_t n, float threshold) {
  const hn::ScalableTag<float> d;
  const std::size_t lanes = hn::Lanes(d);
  const auto thresholds = hn::Set(d, threshold);
  std::size_t i = from;
  // Four vectors a step while there is nothing to find, with one test for all of them: scores that
  // beat the threshold are far apart in a long row. The step that finds one is then searched again
  // vector by vector.
  for (; i + 4 * lanes <= n; i += 4 * lanes) {
    const auto g0 = hn::Gt(hn::LoadU(d, values + i), thresholds);
    const auto g1 = hn::Gt(hn::LoadU(d, values + i + lanes), thresholds);
    const auto g2 = hn::Gt(hn::LoadU(d, values + i + 2 * lanes), thresholds);
    const auto g3 = hn::Gt(hn::LoadU(d, values + i + 3 * lanes), thresholds);
    if (!hn::AllFalse(d, hn::Or(hn::Or(g0, g1), hn::Or(g2, g3)))) break;
  }
  for (; i + lanes <= n; i += lanes) {
    const auto greater = hn::Gt(hn::LoadU(d, values + i), thresholds);
    const std::ptrdiff_t lane = hn::FindFirstTrue(d, greater);
    if (lane >= 0) return i + static_cast<std::size_t>(lane);
  }
  for (; i < n; ++i) {
    if (values[i] > threshold) return i;
  }
  return n;
}

}  // namespace HWY_NAMESPACE
}  // namespace handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace handwriting_CTC {

HWY_EXPORT(FindGreater);

std::size_t find_greater(const float* values, std::size_t from, std::size_t n, float threshold) {
  return HWY_DYNAMIC_DISPATCH(FindGreater)(values, from, n, threshold);
}

}  // namespace handwriting_CTC
#endif  // HWY_ONCE
