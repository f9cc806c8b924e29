#ifndef TOOLS_PROGRESS_H_
#define TOOLS_PROGRESS_H_

#include <chrono>
#include <cstddef>

namespace handwriting::tools {

/// A line on standard error that says how far a long work is: inputs done, of how many where that
/// is known, frames a second, time left. There is one only where standard error is a terminal, and
/// from the second second on. One thread at a time.
class Progress {
 public:
  /// `total` inputs, 0 where it is not known.
  explicit Progress(size_t total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { Clear(); }

  /// One input more is done, of so many frames.
  void Advance(size_t frames);
  /// Takes the line away, before something else is printed.
  void Clear();
  /// Shows it again.
  void Show();

 private:
  using Clock = std::chrono::steady_clock;

  bool on_terminal_;
  size_t total_;
  size_t done_ = 0;
  size_t frames_ = 0;
  bool is_shown_ = false;
  Clock::time_point begin_ = Clock::now();
};

}  // namespace handwriting::tools

#endif  // TOOLS_PROGRESS_H_
