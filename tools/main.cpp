// `handwriting`: looks at model files, converts them, runs them and times them.

#include <algorithm>
#include <exception>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <loguru.hpp>

#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"
#include "tools/commands.h"
#include "tools/manual.h"
#include "tools/model-file.h"

namespace handwriting::tools {

std::string MachineText() {
  using tarev::nnet::handwriting_CTC::blas_core_name;
  using tarev::nnet::handwriting_CTC::vector_target_name;
  std::string text = "vector target ";
  return text.append(vector_target_name()).append(", BLAS core ").append(blas_core_name());
}

void PrintError(const std::string& text) {
  std::cerr << "handwriting: " << Escaped(text) << std::endl;
}

void FlushOutput() {
  if (!std::cout.flush()) throw std::runtime_error("standard output: cannot write");
}

namespace {

constexpr char kFooter[] =
    R"(A model file holds one or more networks back to back, in binary or in text form. It is text when
its first non-blank character is '<' and a letter or '/' follows; a text network is its components
closed by </Nnet>. Networks are counted from 1, the layers of a network from 0.

Matrices are NumPy .npy files of little-endian float32 in C order: frames x dim, or channels x frames
x dim where the layer that takes or gives them works on planes.

Files are written beside their target and renamed when they are complete.

Exit status: 0 done; 1 the work failed, one line on standard error says what and where; 2 the command
line is wrong.)";

std::string VersionText() { return "handwriting " HANDWRITING_VERSION ", " + MachineText(); }

int ExitStatus(CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {  // --help, --version
    app.exit(error);
    FlushOutput();
    return kDone;
  }
  std::string reason = error.what();
  // Names that are no sub-command are left over when one is missing.
  const std::vector<std::string> remaining = app.remaining();
  if (app.get_subcommands().empty() && !remaining.empty()) {
    reason = remaining.front() + " is no sub-command";
  }
  PrintError(reason + " (--help explains the command line)");
  return kWrongCommandLine;
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Looks at the model files of the handwriting recognizer, converts them, runs them\n"
      "and times them.",
      "handwriting");
  app.set_version_flag("--version", VersionText, "Print version, vector target and BLAS core");
  app.footer(kFooter);
  app.require_subcommand(1);
  // For who installs the tool, not for who uses it: in no group, so in no help.
  const auto print = [&app](const char* flag, std::string (*text)(const CLI::App&)) {
    app.add_flag_callback(flag, [&app, text] { throw CLI::CallForVersion(text(app), 0); })
        ->group("");
  };
  print("--manual-page",
        [](const CLI::App& program) { return ManualPage(program, HANDWRITING_VERSION); });
  print("--bash-completion", BashCompletion);
  const Command commands[] = {AddInspect(app),   AddConvert(app), AddForward(app),
                              AddRecognize(app), AddServe(app),   AddBench(app)};
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ExitStatus(app, error);
  }
  const auto* chosen =
      std::find_if(std::begin(commands), std::end(commands),
                   [](const Command& command) { return command.parsed->parsed(); });
  const int status = chosen->run();
  FlushOutput();
  return status;
}

}  // namespace
}  // namespace handwriting::tools

int main(int argc, char** argv) {
  using namespace handwriting::tools;
  // The library's warnings say what its exceptions say again; one line of this tool stands for
  // both.
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  try {
    return Run(argc, argv);
  } catch (const UsageError& error) {
    PrintError(error.what());
    return kWrongCommandLine;
  } catch (const std::bad_alloc&) {
    PrintError("out of memory");
  } catch (const std::exception& error) {
    PrintError(error.what());
  }
  return kFailed;
}
