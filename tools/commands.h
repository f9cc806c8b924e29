#ifndef TOOLS_COMMANDS_H_
#define TOOLS_COMMANDS_H_

// The sub-commands of `handwriting`. Each lives in a source of its own and says its options, its
// help and what it does.

#include <functional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "utils/messages.h"

namespace handwriting::tools {

/// The most paths that --nbest lets a search keep.
inline constexpr int kMaxBest = 1000;
/// The most threads that --threads starts.
inline constexpr int kMaxThreads = 1024;

inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kWrongCommandLine = 2;

/// A sub-command: `parsed` knows whether the command line names it. `run` does the work and returns
/// the exit status; what stops it is thrown as a std::exception that says what and where.
struct Command {
  CLI::App* parsed;
  std::function<int()> run;
};

Command AddInspect(CLI::App& app);
Command AddConvert(CLI::App& app);
Command AddForward(CLI::App& app);
Command AddRecognize(CLI::App& app);
Command AddServe(CLI::App& app);
Command AddBench(CLI::App& app);

/// Refuses an option's value outside [min, max].
inline CLI::Validator CountFromTo(int min, int max) {
  CLI::Validator validator = CLI::Range(min, max);
  validator.description("");
  return validator;
}
inline CLI::Validator CountUpTo(int max) { return CountFromTo(1, max); }

/// For names that come out of files: one line, and nothing that a terminal would obey.
using tarev::nnet::handwriting_CTC::Escaped;

/// What results and times hang on: "vector target ..., BLAS core ...".
std::string MachineText();

/// Writes "handwriting: <text>" as one line to standard error.
void PrintError(const std::string& text);

/// Hands what was printed on to the reader of standard output; throws when that fails.
void FlushOutput();

}  // namespace handwriting::tools

#endif  // TOOLS_COMMANDS_H_
