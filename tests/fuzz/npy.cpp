// Any bytes as a .npy file: refused, or a matrix whose values fill its shape and come from the file.

#include "tools/npy.h"

#include <exception>

#include "tests/fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace handwriting::fuzz;  // NOLINT(google-build-using-namespace)
  handwriting::tools::Matrix matrix;
  try {
    matrix = handwriting::tools::ReadNpy(PathWith(data, size));
  } catch (const std::exception&) {
    return 0;
  }
  size_t count = 1;
  for (const size_t length : matrix.shape) count *= length;
  Require(count == matrix.values.size(), "values fill the shape");
  Require(count * sizeof(float) <= size, "values come from the file");
  return 0;
}
