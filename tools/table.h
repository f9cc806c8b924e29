#ifndef TOOLS_TABLE_H_
#define TOOLS_TABLE_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <iostream>
#include <string>
#include <vector>

namespace handwriting::tools {

/// Prints rows of cells in columns, each as wide as its widest cell and two blanks from the one
/// before it. Cells stand on the right of their column where `right_aligned` says so, as numbers
/// should.
template <size_t kColumns>
void PrintTable(const std::vector<std::array<std::string, kColumns>>& rows,
                const std::array<bool, kColumns>& right_aligned) {
  std::array<size_t, kColumns> widths{};
  for (const auto& row : rows) {
    for (size_t c = 0; c < kColumns; ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t c = 0; c < kColumns; ++c) {
      const std::string padding(widths[c] - row[c].size(), ' ');
      line += "  " + (right_aligned[c] ? padding + row[c] : row[c] + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
  }
}

}  // namespace handwriting::tools

#endif  // TOOLS_TABLE_H_
