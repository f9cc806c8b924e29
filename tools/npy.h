#ifndef TOOLS_NPY_H_
#define TOOLS_NPY_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace handwriting::tools {

/// A dense array of floats in C order. Feature and output files hold frames x dim, or
/// channels x frames x dim.
struct Matrix {
  std::vector<size_t> shape;
  std::vector<float> values;
};

/// Reads a NumPy .npy file of little-endian float32 in C order with two or three dimensions.
/// Anything else, a file that is cut short and one that goes on after its values are refused with
/// a std::runtime_error that names the file, what was found and what is wanted. Nothing larger than
/// the file is allocated.
Matrix ReadNpy(const std::string& path);

/// The same of bytes in memory; the message begins with what was found.
Matrix ParseNpy(std::string_view bytes);

/// Writes such a file; it replaces an older one only when complete. `values` holds the product of
/// the two or three dimensions of `shape`. Throws std::runtime_error with path and reason.
void WriteNpy(const std::string& path, const Matrix& matrix);

}  // namespace handwriting::tools

#endif  // TOOLS_NPY_H_
