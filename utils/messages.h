#ifndef UTILS_MESSAGES_H_
#define UTILS_MESSAGES_H_

// The three ways in which the library reports a failure. A run-time failure is logged and thrown
// with one text; an argument check prints one line to standard error; readers and writers of
// parameter blocks answer with a bool and print nothing. All functions may be called from any
// thread.
//
// Names that a model file gives can stand in a text: what a terminal would act on is escaped.

#include <cstdarg>
#include <source_location>
#include <string>
#include <string_view>

namespace tarev::nnet::handwriting_CTC {

/// The caller's place in the source, for the first argument of the functions below. Messages show
/// its file stem and line.
constexpr std::source_location Here(
    std::source_location here = std::source_location::current()) noexcept {
  return here;
}

/// The name of a source file without folders and extension, as messages carry it.
std::string_view FileStem(const char* path) noexcept;

/// The text with control characters, and bytes that are no UTF-8, written as \xNN.
std::string Escaped(std::string_view text);

/// The formatted text, cut at 4096 bytes, then escaped.
std::string FormatText(const char* format, va_list arguments);

/// Prints the formatted text, cut at 8192 bytes, to standard error in one write, so that lines of
/// several threads do not mix. Allocates nothing.
[[gnu::format(printf, 1, 2)]] void PrintLine(const char* format, ...) noexcept;

/// Logs the formatted text at warning verbosity with file and line. Dropped while memory is short:
/// the logging library would end the process.
[[gnu::format(printf, 2, 3)]] void LogWarning(std::source_location where, const char* format, ...);

/// Logs the formatted text as LogWarning does and throws std::runtime_error with the same text.
[[noreturn, gnu::format(printf, 2, 3)]] void ThrowError(std::source_location where,
                                                        const char* format, ...);

/// Prints the line of a failed argument check to standard error: place, function and the condition
/// that held.
void PrintWrongParameters(std::source_location where, const char* function,
                          const char* condition) noexcept;

/// Prints that line and throws std::runtime_error("Wrong parameter(s)!").
[[noreturn]] void ThrowWrongParameters(std::source_location where, const char* function,
                                       const char* condition);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_MESSAGES_H_
