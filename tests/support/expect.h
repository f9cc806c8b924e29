#ifndef TESTS_SUPPORT_EXPECT_H_
#define TESTS_SUPPORT_EXPECT_H_

// What nearly every test includes: GoogleTest, the builders of models, and comparisons of floats.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/model-builder.h"

namespace handwriting::tests {

/// What `run` prints to standard error.
template <class Function>
std::string PrintedBy(Function run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

inline void ExpectSameBits(const Floats& got, const Floats& wanted) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_TRUE(SameFloat(got[i], wanted[i])) << i << ": " << got[i] << " for " << wanted[i];
  }
}

inline void ExpectNear(const Floats& got, const Floats& wanted, double tolerance) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], tolerance) << i;
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_EXPECT_H_
