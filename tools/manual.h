#ifndef TOOLS_MANUAL_H_
#define TOOLS_MANUAL_H_

#include <string>

#include <CLI/CLI.hpp>

namespace handwriting::tools {

/// The manual page (section 1) of a program and its sub-commands, from what its command line says
/// of itself.
std::string ManualPage(const CLI::App& app, const std::string& version);

/// Completions for Bash, from the same: sub-commands, options, and file names where these belong.
std::string BashCompletion(const CLI::App& app);

}  // namespace handwriting::tools

#endif  // TOOLS_MANUAL_H_
