#ifndef TESTS_SUPPORT_VECTOR_TARGETS_H_
#define TESTS_SUPPORT_VECTOR_TARGETS_H_

#include <gtest/gtest.h>

#include <hwy/targets.h>

namespace handwriting::tests {

/// Calls `run` once for every vector target that was compiled and that this machine supports, with
/// all kernels dispatched to it; afterwards the best one is chosen again.
template <class Function>
void ForEachVectorTarget(Function run) {
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(target);
    run();
  }
  hwy::SetSupportedTargetsForTest(0);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_VECTOR_TARGETS_H_
