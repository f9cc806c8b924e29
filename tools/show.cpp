#include "tools/show.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <vector>

namespace handwriting::tools {
namespace {

// Whether each value is drawn.
std::vector<bool> DarkOf(std::span<const float> values) {
  const auto [least, most] = std::ranges::minmax(values);
  const float middle = least + (most - least) / 2;
  std::vector<bool> dark(values.size());
  std::transform(values.begin(), values.end(), dark.begin(),
                 [middle = middle](float value) { return value > middle; });
  return dark;
}

// A row of characters stands for two rows of values.
std::string HalfBlocks(const std::vector<bool>& dark, size_t dim, size_t begin, size_t end) {
  constexpr const char* kBlocks[] = {" ", "▀", "▄", "█"};
  std::string text;
  for (size_t row = 0; row < dim; row += 2) {
    std::string line;
    size_t kept = 0;
    for (size_t frame = begin; frame < end; ++frame) {
      const size_t upper = dark[frame * dim + row] ? 1 : 0;
      const size_t lower = row + 1 < dim && dark[frame * dim + row + 1] ? 2 : 0;
      line += kBlocks[upper + lower];
      if (upper + lower != 0) kept = line.size();
    }
    text += line.substr(0, kept) + '\n';
  }
  return text;
}

// Columns that a UTF-8 text takes: none for what combines, two for the wide characters of East
// Asia.
size_t ColumnsOf(const std::string& text) {
  size_t columns = 0;
  for (size_t i = 0; i < text.size();) {
    const auto first = static_cast<unsigned char>(text[i]);
    const size_t bytes = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    char32_t code = bytes == 1 ? first : first & (0x7FU >> bytes);
    for (size_t k = 1; k < bytes && i + k < text.size(); ++k) {
      code = code << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3FU);
    }
    const auto within = [code](char32_t from, char32_t to) { return code >= from && code <= to; };
    const bool combines = within(0x300, 0x36F) || within(0x200B, 0x200F) || within(0xFE00, 0xFE0F);
    const bool wide = within(0x1100, 0x115F) || within(0x2E80, 0xA4CF) || within(0xAC00, 0xD7A3) ||
                      within(0xF900, 0xFAFF) || within(0xFE30, 0xFE6F) || within(0xFF00, 0xFF60) ||
                      within(0x1F300, 0x1FAFF) || within(0x20000, 0x3FFFD);
    columns += combines ? 0 : wide ? 2 : 1;
    i += bytes;
  }
  return columns;
}

// Each label in the middle of its frames, and behind the one before it.
std::string LabelLine(const Record& best, const Labels& labels, int begin, int end) {
  std::string line;
  size_t column = 0;
  for (size_t k = 0; k < best.labels.size(); ++k) {
    const auto& span = best.spans[k];
    const int middle = (span.begin + span.end - 1) / 2;
    if (middle < begin || middle >= end) continue;
    const std::string name = labels.NameOf(best.labels[k]);
    const size_t columns = ColumnsOf(name);
    const auto wanted = static_cast<size_t>(middle - begin) -
                        std::min<size_t>(static_cast<size_t>(middle - begin), columns / 2);
    const size_t least = column == 0 ? 0 : column + (labels.empty() ? 1 : 0);
    const size_t at = std::max(wanted, least);
    line.append(at - column, ' ').append(name);
    column = at + columns;
  }
  return line;
}

}  // namespace

std::string Picture(const Matrix& features, const Record& best, const Labels& labels,
                    size_t width) {
  const size_t frames = features.shape[0];
  const size_t dim = features.shape[1];
  const std::vector<bool> dark = DarkOf(features.values);
  std::string text;
  for (size_t begin = 0; begin < frames; begin += width) {
    const size_t end = std::min(frames, begin + width);
    text += HalfBlocks(dark, dim, begin, end);
    text += LabelLine(best, labels, static_cast<int>(begin), static_cast<int>(end));
    if (end == frames && best.confidence) {
      char confidence[32];
      std::snprintf(confidence, sizeof(confidence), "    confidence %.3f", *best.confidence);
      text += confidence;
    }
    text += '\n';
  }
  return text;
}

size_t OutputColumns() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : 100;
}

}  // namespace handwriting::tools
