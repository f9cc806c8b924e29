#ifndef NNET_CONTRACT_REFUSAL_H_
#define NNET_CONTRACT_REFUSAL_H_

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <source_location>
#include <stdexcept>
#include <string>
#include <utility>

namespace tarev::nnet::handwriting_CTC {

/// Why a parameter block was refused. Readers answer with a bool; this carries the reason beside
/// it, for a caller that wants it. Every check returns whether it held and otherwise says what was
/// found and what was wanted. Of several reasons the first is kept, being the closest to the cause.
class Refusal {
 public:
  const std::string& text() const { return text_; }
  void Clear() { text_.clear(); }

  /// Gives the reason. Always false, for the caller to return.
  [[gnu::format(printf, 2, 3)]] bool Because(const char* format, ...);
  /// The same, and logs the text as a warning of that place in the source.
  [[gnu::format(printf, 3, 4)]] bool LogBecause(std::source_location where, const char* format,
                                                ...);

  /// Checks. `name` is what the reason calls the value.
  bool Require(bool holds, const char* otherwise) { return holds || Because("%s", otherwise); }
  bool AtLeast(const char* name, int64_t value, int64_t least) {
    return value >= least || Because("%s [%" PRId64 " < %" PRId64 "]", name, value, least);
  }
  bool AtMost(const char* name, int64_t value, int64_t most) {
    return value <= most || Because("%s [%" PRId64 " > %" PRId64 "]", name, value, most);
  }
  bool Equal(const char* name, int64_t value, const char* wanted_name, int64_t wanted) {
    return value == wanted ||
           Because("%s [%" PRId64 "], %s [%" PRId64 "]", name, value, wanted_name, wanted);
  }
  /// Reads from the stream; of what is cut short the reason says how many bytes were wanted and how
  /// many there were.
  bool Read(FILE* fp, const char* name, void* to, size_t bytes);
  bool ReadString(FILE* fp, const char* name, std::string& text);
  /// Checks that the rest of the file holds so many bytes, before they are allocated.
  bool FileHolds(FILE* fp, const char* name, size_t bytes);
  /// For layers whose rows leave at the width at which they come: equal dimensions where both are
  /// set. One that is not set follows the input.
  bool SameWidth(int64_t input_dim, int64_t output_dim);
  /// For layers whose planes leave as they come.
  bool SameChannels(int64_t input_channels, int64_t output_channels) {
    return Equal("output channels", output_channels, "but planes keep their number",
                 input_channels);
  }

 private:
  std::string text_;
};

/// What the reader of a whole component throws when its block is refused: a message that is the
/// same for all, and the reason beside it.
class ComponentRefused : public std::runtime_error {
 public:
  ComponentRefused(const char* message, std::string reason)
      : std::runtime_error(message), reason_(std::move(reason)) {}

  const std::string& reason() const { return reason_; }
  /// Puts a place before the reason: that of the component in its container.
  void AddPlace(const std::string& place) { reason_.insert(0, place + ": "); }

 private:
  std::string reason_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_REFUSAL_H_
