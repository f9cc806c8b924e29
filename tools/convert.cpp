// `handwriting convert`: writes the networks of a model file in binary form.

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/model-writer.h"
#include "tools/output-file.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Nnet;

struct Options {
  std::string in;
  std::string out;
  bool fixed = false;
};

void WriteFile(const std::vector<Nnet>& networks, const Options& options) {
  OutputFile file(options.out);
  try {
    WriteNetworks(networks, options.fixed, file.stream());
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(options.out + ": " + error.what());
  }
  file.Commit();
}

int Run(const Options& options) {
  const ModelFile model = ReadModelFile(options.in);
  WriteFile(model.networks, options);
  if (options.fixed) {
    for (const std::string& line : FloatLayers(model.networks)) std::cout << line << '\n';
  }
  return kDone;
}

constexpr char kFooter[] =
    R"(With --fixed every layer is written under its fixed-point type code: dense and recurrent layers store
their parameters as 8-bit codes, a quarter of the size, and lose precision. A line on standard output
names each layer that holds parameters and keeps them in float, and each layer that can only be
written under its float type code.

OUT may be IN.)";

}  // namespace

Command AddConvert(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      app.add_subcommand("convert", "Write every network of a model file in binary form");
  command->add_option("IN", options->in, "Model file, binary or text")->required();
  command->add_option("OUT", options->out, "Model file to write")->required();
  command->add_flag("--fixed", options->fixed, "Write the fixed-point form");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
