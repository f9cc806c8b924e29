#ifndef TESTS_RECURRENT_SAMPLE_H_
#define TESTS_RECURRENT_SAMPLE_H_

// The six recurrent layers, described by the arrays that their files hold.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/model-builder.h"
#include "utils/half-float.h"

namespace handwriting::tests {

/// One recurrent layer type; `half`: the float form stores binary16, the fixed form codes with a
/// zero point.
struct RecurrentFamily {
  const char* name;
  int code;
  size_t gates;
  size_t directions;
  bool projected;
  bool has_cell_dim;
  bool half;
};

inline constexpr RecurrentFamily kRecurrentFamilies[] = {
    {"Lstm", 0x103, 4, 1, false, false, false},
    {"LstmProjectedNnet3Streams", 0x106, 4, 1, true, true, false},
    {"Blstm", 0x10e, 4, 2, false, true, true},
    {"BlstmProjectedNnet3Streams", 0x10c, 4, 2, true, true, false},
    {"Gru", 0x10d, 3, 1, false, true, false},
    {"BGru", 0x110, 3, 2, false, true, false},
};

/// A family with dimensions: what the stored forms of its parameters look like.
struct RecurrentLayout {
  struct Array {
    size_t rows, cols;
  };
  using Values = std::vector<std::vector<float>>;

  /// The arrays of one direction in file order.
  std::vector<Array> Arrays() const {
    const size_t g = family.gates * cell;
    if (!family.projected) return {{g, input}, {g, cell}, {1, g}, {1, g}};
    return {{g, input}, {g, proj}, {1, g},       {1, cell},
            {1, cell},  {1, cell}, {proj, cell}, {1, proj}};
  }
  /// Columns of the output of one direction, and of all.
  size_t Width() const { return family.projected ? proj : cell; }
  int OutputDim() const { return static_cast<int>(family.directions * Width()); }

  /// Random parameters of all directions, which the float form holds exactly.
  Values RandomValues() const {
    Values values;
    for (size_t direction = 0; direction < family.directions; ++direction) {
      for (const auto& [rows, cols] : Arrays()) {
        values.push_back(Random(rows * cols, static_cast<uint32_t>(50 + values.size()), 0.7F));
        if (!family.half) continue;
        for (float& x : values.back()) x = runtime::HalfToFloat(runtime::FloatToHalf(x));
      }
    }
    return values;
  }

  Bytes Component(int code, const Bytes& arrays) const {
    Bytes block;
    if (family.has_cell_dim) block.Int(static_cast<int32_t>(cell));
    return Component1d(code, static_cast<int>(input), OutputDim(), block.Add(arrays));
  }
  Bytes Float(const Values& values) const {
    Bytes arrays;
    for (const auto& array : values) {
      for (const float x : array) {
        family.half ? arrays.Raw(runtime::FloatToHalf(x)) : arrays.Float(x);
      }
    }
    return Component(family.code, arrays);
  }
  std::string Text(const std::string& prefix, const Values& values) const {
    std::string text = "<" + prefix + family.name + "> " + std::to_string(OutputDim()) + " " +
                       std::to_string(input) + " ";
    if (family.has_cell_dim) text += "<CellDim> " + std::to_string(cell);
    if (family.has_cell_dim) text += family.gates == 4 ? " <ClipGradient> 5\n" : "\n";
    for (const auto& array : values) text += TextMatrix(array);
    return text;
  }

  RecurrentFamily family;
  size_t input, cell, proj;
};

inline void ExpectNear(const std::vector<float>& got, const std::vector<float>& wanted,
                       double tolerance) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], wanted[i], tolerance) << i;
}

/// The rows [first, last) of a matrix.
inline std::vector<float> RowsOf(const std::vector<float>& values, size_t cols, size_t first,
                                 size_t last) {
  return {values.begin() + static_cast<long>(cols * first),
          values.begin() + static_cast<long>(cols * last)};
}

}  // namespace handwriting::tests

#endif  // TESTS_RECURRENT_SAMPLE_H_
