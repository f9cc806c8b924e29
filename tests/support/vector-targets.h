#ifndef TESTS_SUPPORT_VECTOR_TARGETS_H_
#define TESTS_SUPPORT_VECTOR_TARGETS_H_

#include <gtest/gtest.h>

#include "tests/support/chosen-target.h"

namespace handwriting::tests {

/// Calls `run` once for every vector target that was compiled and that this machine supports, with
/// all kernels dispatched to it.
template <class Function>
void ForEachVectorTarget(Function run) {
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    const ChosenTarget chosen(target);
    run();
  }
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_VECTOR_TARGETS_H_
