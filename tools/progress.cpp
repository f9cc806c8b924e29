#include "tools/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <string>

namespace handwriting::tools {
namespace {

// 1:05 or 2:00:00.
std::string Duration(double seconds) {
  const auto whole = static_cast<long long>(std::lround(std::min(seconds, 3.6e8)));
  const auto two_digits = [](long long value) {
    return (value < 10 ? "0" : "") + std::to_string(value);
  };
  if (whole < 3600) return std::to_string(whole / 60) + ":" + two_digits(whole % 60);
  return std::to_string(whole / 3600) + ":" + two_digits(whole / 60 % 60) + ":" +
         two_digits(whole % 60);
}

}  // namespace

Progress::Progress(size_t total) : on_terminal_(isatty(STDERR_FILENO) == 1), total_(total) {}

void Progress::Advance(size_t frames) {
  ++done_;
  frames_ += frames;
}

void Progress::Clear() {
  if (!is_shown_) return;
  std::cerr << "\r\033[K" << std::flush;
  is_shown_ = false;
}

void Progress::Show() {
  const double seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
  if (!on_terminal_ || seconds < 1.0 || done_ == 0) return;
  std::string line = std::to_string(done_);
  if (total_ > 0) line += " of " + std::to_string(total_);
  line += " files, " + std::to_string(std::lround(static_cast<double>(frames_) / seconds)) +
          " frames a second";
  if (total_ > done_) {
    const double left = static_cast<double>(total_ - done_) * seconds / static_cast<double>(done_);
    line += ", " + Duration(left) + " left";
  }
  Clear();
  std::cerr << line << std::flush;
  is_shown_ = true;
}

}  // namespace handwriting::tools
