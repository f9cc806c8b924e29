#ifndef TESTS_SUPPORT_CHOSEN_TARGET_H_
#define TESTS_SUPPORT_CHOSEN_TARGET_H_

#include <hwy/targets.h>

namespace handwriting::tests {

/// While it lives, all kernels are dispatched to this vector target; afterwards the best one is
/// chosen again.
class ChosenTarget {
 public:
  explicit ChosenTarget(int64_t target) {
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(target);
  }
  ChosenTarget(const ChosenTarget&) = delete;
  ChosenTarget& operator=(const ChosenTarget&) = delete;
  ~ChosenTarget() {
    hwy::SetSupportedTargetsForTest(0);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
  }
};

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_CHOSEN_TARGET_H_
